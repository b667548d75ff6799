// CCASServer::ReadFromXML over any configuration document the parser accepts, and the write
// and read back that must give the same settings.
#include <kel/kelbase.h>

#include <cstddef>
#include <cstdint>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KEL::XML::xml_document doc;
    if (!doc.load_buffer(data, size)) return 0;
    KEL::Ldap::CCASServer cas;
    if (!cas.ReadFromXML(doc)) return 0;
    // Writing replaces only the first authentication element, so a document with several
    // may still read differently; the round trip is checked in a document of its own.
    if (!cas.WriteToXML(doc)) __builtin_trap();
    KEL::XML::xml_document fresh;
    fresh.append_child("config");
    if (!cas.WriteToXML(fresh)) __builtin_trap();
    std::ostringstream out;
    fresh.save(out);
    KEL::XML::xml_document again;
    if (!again.load_string(out.str().c_str())) __builtin_trap();
    KEL::Ldap::CCASServer back;
    // Texts with NUL bytes or surrounding blanks do not survive XML; compare what does.
    if (!back.ReadFromXML(again) || back.GetPortNumber() != cas.GetPortNumber()) __builtin_trap();
    return 0;
}
