// kelbase - fuzz/fuzz_ldap_xml.cpp
//
// Arbitrary configuration documents into the directory server reader. Whatever it accepts
// must be at most MAX_LDAP_SERVERS servers that write back and read again to the same settings.
#include <kel/kelbase.h>

#include <cstdint>
#include <cstdlib>

using KEL::Ldap::CLDAPServer;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KEL::XML::xml_document doc;
    if (!doc.load_buffer(data, size)) return 0;
    KEL::Ldap::LDAPServerList servers = CLDAPServer::ReadFromXML(doc);
    if (servers.size() > CLDAPServer::MAX_LDAP_SERVERS) std::abort();

    KEL::XML::xml_document out;
    out.append_child("config");
    if (!CLDAPServer::WriteToXML(servers, out)) std::abort();
    KEL::Ldap::LDAPServerList back = CLDAPServer::ReadFromXML(out);
    if (back.size() != servers.size()) std::abort();
    for (size_t i = 0; i < servers.size(); ++i) {
        const CLDAPServer& a = *servers[i];
        const CLDAPServer& b = *back[i];
        if (a.isInternal() != b.isInternal() || a.isExternal() != b.isExternal() ||
            a.GetServer() != b.GetServer() || a.GetPortNumber() != b.GetPortNumber() ||
            a.GetNonSecure() != b.GetNonSecure() || a.GetPortNumberNonSecure() != b.GetPortNumberNonSecure() ||
            a.GetUsername() != b.GetUsername() || a.GetPassword() != b.GetPassword() ||
            a.GetUserSearchFilter() != b.GetUserSearchFilter() || a.GetSuiteRDN() != b.GetSuiteRDN())
            std::abort();
    }
    return 0;
}
