// kelbase - tests/ldap/LdapSettingsTest.cpp
//
// Directory server settings without a server: kinds and defaults, names, filter escaping and
// the XML form with its bad documents.
#include <kel/kelbase.h>

#include "../common/TraceCapture.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace KEL::Ldap;

namespace {

std::string ServerXml(const std::string& children) { return "<ldapServer>" + children + "</ldapServer>"; }

void Load(KEL::XML::xml_document& doc, const std::string& servers) {
    std::string text = "<config><other keep=\"1\"/><authorization>" + servers + "</authorization></config>";
    ASSERT_TRUE(doc.load_string(text.c_str()));
}

std::string Dump(const KEL::XML::xml_document& doc) {
    std::ostringstream out;
    doc.save(out, "", KEL::XML::format_raw);
    return out.str();
}

} // namespace

TEST(LdapKinds, EachKindAnswersWhatItIsAndInternalKindsCarryTheInternalDomain) {
    CLDAPServerInternal internal;
    CLDAPServerExternal external;
    CLDAPServerUnspecified unspecified;
    CLDAPServerInternalOnly only;
    const CLDAPServer* all[] = {&internal, &external, &unspecified, &only};
    const bool expect[][3] = {{true, false, false}, {false, true, false}, {false, false, false}, {true, true, true}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(all[i]->isInternal(), expect[i][0]) << i;
        EXPECT_EQ(all[i]->isExternal(), expect[i][1]) << i;
        EXPECT_EQ(all[i]->isInternalOnly(), expect[i][2]) << i;
    }
    EXPECT_EQ(internal.GetDomain(), "LANTERNBAY");
    EXPECT_EQ(only.GetDomain(), "LANTERNBAY");
    EXPECT_EQ(external.GetDomain(), "");
    // One shared settings part: a change through either base is seen through the other.
    static_cast<CLDAPServerExternal&>(only).SetServer("dir.example");
    EXPECT_EQ(static_cast<CLDAPServerInternal&>(only).GetServer(), "dir.example");
}

TEST(LdapKinds, NewServerHasTheDocumentedDefaults) {
    CLDAPServerExternal s;
    EXPECT_FALSE(s.GetConnected());
    EXPECT_EQ(s.GetServer(), "0.0.0.0");
    EXPECT_EQ(s.GetPortNumber(), 636u);
    EXPECT_FALSE(s.GetNonSecure());
    EXPECT_EQ(s.GetPortNumberNonSecure(), 389u);
    EXPECT_EQ(s.GetUsername(), "");
    EXPECT_EQ(s.GetPassword(), "");
    EXPECT_EQ(s.GetBaseDN(), "DC=example,DC=com");
    EXPECT_EQ(s.GetUserSearchBase(), "OU=Users,DC=Users,DC=example,DC=com");
    EXPECT_EQ(s.GetUserSearchFilter(), "sAMAccountName=%u");
    EXPECT_EQ(s.GetSuiteRDN(), "OU=Tessel");
    EXPECT_EQ(s.GetTimeout(), CLDAPServer::DEFAULT_TIMEOUT_MS);
    EXPECT_EQ(CLDAPServer::MAX_LDAP_SERVERS, 10u);
    EXPECT_EQ(CLDAPServerInternal::readOnlyPrivilegeCNGet(), "CN=AccessVolkeep,OU=Volkeep");
    EXPECT_EQ(CLDAPServerInternal::readWritePrivilegeCNGet(), "CN=ModifyRaidConfig,OU=Volkeep");
    EXPECT_STREQ(CLDAPServer::getInternalNameChar(), "LANTERNBAY");
}

TEST(LdapNames, InternalDomainIsRecognisedWithoutRegardToCaseAndNothingElse) {
    EXPECT_TRUE(CLDAPServer::isInternalLDAPDomain("lanternbay"));
    EXPECT_TRUE(CLDAPServer::isInternalLDAPDomain(std::string("LanternBay")));
    EXPECT_FALSE(CLDAPServer::isInternalLDAPDomain(static_cast<const char*>(nullptr)));
    EXPECT_FALSE(CLDAPServer::isInternalLDAPDomain(""));
    EXPECT_FALSE(CLDAPServer::isInternalLDAPDomain("LANTERNBAY2"));
    EXPECT_FALSE(CLDAPServer::isInternalLDAPDomain("LANTERNBA"));
    EXPECT_FALSE(CLDAPServer::isInternalLDAPDomain(std::string("LANTERNBAY\0x", 12)));
}

TEST(LdapNames, OneServerListIsInternalOnly) {
    LDAPServerList list;
    EXPECT_FALSE(CLDAPServer::checkIsInternalOnly(list));
    list.emplace_back(new CLDAPServerExternal);
    EXPECT_TRUE(CLDAPServer::checkIsInternalOnly(list));
    list.emplace_back(new CLDAPServerExternal);
    EXPECT_FALSE(CLDAPServer::checkIsInternalOnly(list));
}

TEST(LdapNames, ReplaceFormatReplacesTheFirstOccurrenceOnly) {
    EXPECT_EQ(CLDAPServer::ReplaceFormat("uid=%u", "%u", "bob"), "uid=bob");
    EXPECT_EQ(CLDAPServer::ReplaceFormat("(|(a=%u)(b=%u))", "%u", "x"), "(|(a=x)(b=%u))");
    EXPECT_EQ(CLDAPServer::ReplaceFormat("%u", "%u", ""), "");
    EXPECT_EQ(CLDAPServer::ReplaceFormat("no pattern", "%u", "x"), "no pattern");
    EXPECT_EQ(CLDAPServer::ReplaceFormat("abc", "", "x"), "abc");
    // The replacement is inserted as it is, never searched again.
    EXPECT_EQ(CLDAPServer::ReplaceFormat("a%ub", "%u", "%u%u"), "a%u%ub");
}

TEST(LdapNames, FilterValuesAreEscapedByteForByte) {
    EXPECT_EQ(CLDAPServer::EscapeFilterValue("plain.name-1"), "plain.name-1");
    EXPECT_EQ(CLDAPServer::EscapeFilterValue("*"), "\\2a");
    EXPECT_EQ(CLDAPServer::EscapeFilterValue("a(b)c\\d"), "a\\28b\\29c\\5cd");
    EXPECT_EQ(CLDAPServer::EscapeFilterValue(std::string("x\0y", 3)), "x\\00y");
    EXPECT_EQ(CLDAPServer::EscapeFilterValue("\xc3\xa9=,"), "\xc3\xa9=,"); // UTF-8 and DN syntax pass
}

TEST(LdapXmlRead, OneServerBecomesInternalOnlyForItsDomain) {
    KEL::XML::xml_document doc;
    Load(doc, ServerXml("<domain>customer</domain><server>10.0.0.5</server>"));
    LDAPServerList list = CLDAPServer::ReadFromXML(doc);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(list[0]->isInternalOnly());
    EXPECT_EQ(list[0]->GetDomain(), "customer");
    EXPECT_EQ(list[0]->GetServer(), "10.0.0.5");
    EXPECT_TRUE(CLDAPServer::checkIsInternalOnly(list));

    KEL::XML::xml_document bare;
    Load(bare, ServerXml(""));
    list = CLDAPServer::ReadFromXML(bare);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(list[0]->isInternalOnly());
    EXPECT_EQ(list[0]->GetDomain(), "LANTERNBAY");
}

TEST(LdapXmlRead, SeveralServersAreSortedByDomainAndTheDomainElementIgnoresCase) {
    KEL::XML::xml_document doc;
    Load(doc, ServerXml("<DOMAIN>lanternBay</DOMAIN>") + ServerXml("<Domain>Customer</Domain>") +
                  ServerXml("<server>x</server>"));
    LDAPServerList list = CLDAPServer::ReadFromXML(doc);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_TRUE(list[0]->isInternal());
    EXPECT_FALSE(list[0]->isExternal());
    EXPECT_EQ(list[0]->GetDomain(), "LANTERNBAY");
    EXPECT_TRUE(list[1]->isExternal());
    EXPECT_FALSE(list[1]->isInternalOnly());
    EXPECT_EQ(list[1]->GetDomain(), "Customer");
    EXPECT_TRUE(list[2]->isExternal());
    EXPECT_EQ(list[2]->GetDomain(), "");
    EXPECT_FALSE(CLDAPServer::checkIsInternalOnly(list));
}

TEST(LdapXmlRead, EmptyOrMissingElementsKeepTheDefaults) {
    KEL::XML::xml_document doc;
    Load(doc, ServerXml("<server/><port></port><suiteRDN/><userSearchFilter></userSearchFilter>"
                        "<baseDN>DC=corp,DC=test</baseDN>") +
                  ServerXml("<Server>ignored: other names match exactly</Server>"));
    LDAPServerList list = CLDAPServer::ReadFromXML(doc);
    ASSERT_EQ(list.size(), 2u);
    const CLDAPServer& a = *list[0];
    EXPECT_EQ(a.GetServer(), "0.0.0.0");
    EXPECT_EQ(a.GetPortNumber(), 636u);
    EXPECT_EQ(a.GetPortNumberNonSecure(), 389u);
    EXPECT_FALSE(a.GetNonSecure());
    EXPECT_EQ(a.GetSuiteRDN(), "OU=Tessel");
    EXPECT_EQ(a.GetUserSearchFilter(), "sAMAccountName=%u");
    EXPECT_EQ(a.GetUserSearchBase(), "OU=Users,DC=corp,DC=test");
    const CLDAPServer& b = *list[1];
    EXPECT_EQ(b.GetServer(), "0.0.0.0");
    EXPECT_EQ(b.GetBaseDN(), "");
    EXPECT_EQ(b.GetUserSearchBase(), "OU=Users");
}

TEST(LdapXmlRead, BadPortsAndFlagsKeepTheirDefaultsAndAreTraced) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    const char* bad[] = {"63a6", "-1", "0", "65536", "99999999999999999999", "0x27c", "6 36"};
    for (const char* port : bad) {
        KEL::XML::xml_document doc;
        Load(doc, ServerXml(std::string("<port>") + port + "</port><portNonSecure>" + port +
                            "</portNonSecure><nonSecure>maybe</nonSecure>"));
        LDAPServerList list = CLDAPServer::ReadFromXML(doc);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0]->GetPortNumber(), 636u) << port;
        EXPECT_EQ(list[0]->GetPortNumberNonSecure(), 389u) << port;
        EXPECT_FALSE(list[0]->GetNonSecure());
    }
    EXPECT_TRUE(trace.Has("ReadFromXML: port \"63a6\" is not a port number, 636 is used"));
    EXPECT_TRUE(trace.Has("ReadFromXML: portNonSecure \"65536\" is not a port number, 389 is used"));
    EXPECT_TRUE(trace.Has("ReadFromXML: nonSecure \"maybe\" is not a truth value, false is used"));

    KEL::XML::xml_document doc;
    Load(doc, ServerXml("<port> 1636\n</port><portNonSecure>65535</portNonSecure><nonSecure>TRUE</nonSecure>"));
    LDAPServerList list = CLDAPServer::ReadFromXML(doc);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]->GetPortNumber(), 1636u);
    EXPECT_EQ(list[0]->GetPortNumberNonSecure(), 65535u);
    EXPECT_TRUE(list[0]->GetNonSecure());
}

TEST(LdapXmlRead, DocumentsWithoutServersGiveAnEmptyList) {
    const char* docs[] = {"", "<notconfig><authorization><ldapServer/></authorization></notconfig>",
                          "<config/>", "<config><authorization/></config>",
                          "<x><config><authorization><ldapServer/></authorization></config></x>"};
    for (const char* text : docs) {
        KEL::XML::xml_document doc;
        doc.load_string(text);
        EXPECT_TRUE(CLDAPServer::ReadFromXML(doc).empty()) << text;
    }
}

TEST(LdapXmlRead, MoreThanTheMaximumKeepsTheFirstTenAndSaysSo) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    std::string servers;
    for (int i = 0; i < 12; ++i) servers += ServerXml("<domain>d" + std::to_string(i) + "</domain>");
    KEL::XML::xml_document doc;
    Load(doc, servers);
    LDAPServerList list = CLDAPServer::ReadFromXML(doc);
    ASSERT_EQ(list.size(), 10u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(list[i]->GetDomain(), "d" + std::to_string(i));
    EXPECT_TRUE(trace.Has("ReadFromXML: 12 ldapServer elements, only the first 10 are used"));
}

TEST(LdapXmlWrite, WritesEveryFieldInOrderAndReadsBackTheSame) {
    LDAPServerList list;
    list.emplace_back(new CLDAPServerInternal);
    list.emplace_back(new CLDAPServerExternal);
    CLDAPServer& e = *list[1];
    e.SetDomain("customer");
    e.SetServer("dir.customer.test");
    e.SetPortNumber(1636);
    e.SetNonSecure(true);
    e.SetPortNumberNonSecure(1389);
    e.SetUserName("CN=reader,DC=customer");
    e.SetPassword("p<&>\"w");
    e.SetBaseDN("DC=customer");
    e.SetSuiteRDN("OU=Suite");
    e.SetUserSearchBase("OU=People,DC=customer");
    e.SetUserSearchFilter("(uid=%u)");

    KEL::XML::xml_document doc;
    Load(doc, ServerXml("<domain>old</domain>"));
    doc.child("config").append_child("authorization"); // a second stale one goes too
    ASSERT_TRUE(CLDAPServer::WriteToXML(list, doc));
    EXPECT_EQ(Dump(doc),
              "<?xml version=\"1.0\"?><config><other keep=\"1\"/><authorization><ldapServer>"
              "<domain>LANTERNBAY</domain><server>0.0.0.0</server><port>636</port><nonSecure>false</nonSecure>"
              "<portNonSecure>389</portNonSecure><securityPrincipal/><securityCredentials/>"
              "<baseDN>DC=example,DC=com</baseDN><suiteRDN>OU=Tessel</suiteRDN>"
              "<userSearchBase>OU=Users,DC=Users,DC=example,DC=com</userSearchBase>"
              "<userSearchFilter>sAMAccountName=%u</userSearchFilter></ldapServer><ldapServer>"
              "<domain>customer</domain><server>dir.customer.test</server><port>1636</port>"
              "<nonSecure>true</nonSecure><portNonSecure>1389</portNonSecure>"
              "<securityPrincipal>CN=reader,DC=customer</securityPrincipal>"
              "<securityCredentials>p&lt;&amp;&gt;\"w</securityCredentials><baseDN>DC=customer</baseDN>"
              "<suiteRDN>OU=Suite</suiteRDN><userSearchBase>OU=People,DC=customer</userSearchBase>"
              "<userSearchFilter>(uid=%u)</userSearchFilter></ldapServer></authorization></config>");

    LDAPServerList back = CLDAPServer::ReadFromXML(doc);
    ASSERT_EQ(back.size(), 2u);
    EXPECT_TRUE(back[0]->isInternal() && !back[0]->isExternal());
    EXPECT_TRUE(back[1]->isExternal() && !back[1]->isInternal());
    for (size_t i = 0; i < 2; ++i) {
        const CLDAPServer& a = *list[i];
        const CLDAPServer& b = *back[i];
        EXPECT_EQ(a.GetDomain(), b.GetDomain());
        EXPECT_EQ(a.GetServer(), b.GetServer());
        EXPECT_EQ(a.GetPortNumber(), b.GetPortNumber());
        EXPECT_EQ(a.GetNonSecure(), b.GetNonSecure());
        EXPECT_EQ(a.GetPortNumberNonSecure(), b.GetPortNumberNonSecure());
        EXPECT_EQ(a.GetUsername(), b.GetUsername());
        EXPECT_EQ(a.GetPassword(), b.GetPassword());
        EXPECT_EQ(a.GetBaseDN(), b.GetBaseDN());
        EXPECT_EQ(a.GetSuiteRDN(), b.GetSuiteRDN());
        EXPECT_EQ(a.GetUserSearchBase(), b.GetUserSearchBase());
        EXPECT_EQ(a.GetUserSearchFilter(), b.GetUserSearchFilter());
    }
}

TEST(LdapXmlWrite, RefusesWithoutConfigOrWithTooManyOrNullServersAndLeavesTheDocument) {
    LDAPServerList one{LDAPServerPtr(new CLDAPServerInternalOnly)};
    KEL::XML::xml_document none;
    none.load_string("<settings/>");
    EXPECT_FALSE(CLDAPServer::WriteToXML(one, none));
    EXPECT_EQ(Dump(none), "<?xml version=\"1.0\"?><settings/>");

    KEL::XML::xml_document doc;
    Load(doc, ServerXml("<domain>kept</domain>"));
    const std::string before = Dump(doc);
    LDAPServerList eleven;
    for (int i = 0; i < 11; ++i) eleven.emplace_back(new CLDAPServerExternal);
    EXPECT_FALSE(CLDAPServer::WriteToXML(eleven, doc));
    EXPECT_EQ(Dump(doc), before);
    LDAPServerList withNull{LDAPServerPtr(new CLDAPServerExternal), LDAPServerPtr()};
    EXPECT_FALSE(CLDAPServer::WriteToXML(withNull, doc));
    EXPECT_EQ(Dump(doc), before);

    eleven.pop_back();
    EXPECT_TRUE(CLDAPServer::WriteToXML(eleven, doc));
    EXPECT_EQ(CLDAPServer::ReadFromXML(doc).size(), 10u);
    EXPECT_TRUE(CLDAPServer::WriteToXML(LDAPServerList(), doc));
    EXPECT_EQ(Dump(doc), "<?xml version=\"1.0\"?><config><other keep=\"1\"/><authorization/></config>");
}
