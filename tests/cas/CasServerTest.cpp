// CAS server settings: defaults, comparison and the XML form in the suite's configuration.
#include <kel/kelbase.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

using KEL::Ldap::CCASServer;
namespace XML = KEL::XML;

namespace {

XML::xml_document Parse(const char* text) {
    XML::xml_document doc;
    EXPECT_TRUE(doc.load_string(text)) << text;
    return doc;
}

std::string Serialised(const XML::xml_document& doc) {
    std::ostringstream out;
    doc.save(out, "", XML::format_raw | XML::format_no_declaration);
    return out.str();
}

CCASServer Configured() {
    CCASServer cas;
    cas.SetServer("cas.example");
    cas.SetPortNumber(8443);
    cas.SetContextRoot("/sso");
    cas.SetURILogin("/signin");
    cas.SetURIServiceValidate("/p3/serviceValidate");
    return cas;
}

} // namespace

TEST(CasSettings, DefaultsAndSetDefaults) {
    CCASServer cas;
    EXPECT_EQ("0.0.0.0", cas.GetServer());
    EXPECT_EQ(3170u, cas.GetPortNumber());
    EXPECT_EQ("/cas", cas.GetContextRoot());
    EXPECT_EQ("/login", cas.GetURILogin());
    EXPECT_EQ("/validate", cas.GetURIServiceValidate());
    CCASServer changed = Configured();
    EXPECT_NE(cas, changed);
    changed.SetDefaults();
    EXPECT_EQ(cas, changed);
}

TEST(CasSettings, EqualityLooksAtEveryField) {
    const CCASServer base = Configured();
    CCASServer copy(base);
    EXPECT_EQ(base, copy);
    copy.SetServer("other");
    EXPECT_NE(base, copy);
    copy = base;
    copy.SetPortNumber(8444);
    EXPECT_FALSE(base == copy);
    copy = base;
    copy.SetContextRoot("/x");
    EXPECT_NE(base, copy);
    copy = base;
    copy.SetURILogin("/x");
    EXPECT_NE(base, copy);
    copy = base;
    copy.SetURIServiceValidate("/x");
    EXPECT_NE(base, copy);
}

TEST(CasXmlRead, ReadsEveryField) {
    XML::xml_document doc = Parse("<config><authentication><cas><server>cas.example</server><port>8443</port>"
                                  "<contextRoot>/sso</contextRoot><uriLogin>/signin</uriLogin>"
                                  "<uriServiceValidate>/p3/serviceValidate</uriServiceValidate></cas>"
                                  "</authentication></config>");
    CCASServer cas;
    ASSERT_TRUE(cas.ReadFromXML(doc));
    EXPECT_EQ(Configured(), cas);
}

TEST(CasXmlRead, EmptyElementsStoreTheDefaults) {
    XML::xml_document doc = Parse("<config><authentication><cas><server/><contextRoot></contextRoot><uriLogin/>"
                                  "<uriServiceValidate/></cas></authentication></config>");
    CCASServer cas = Configured();
    ASSERT_TRUE(cas.ReadFromXML(doc));
    EXPECT_EQ("0.0.0.0", cas.GetServer());
    EXPECT_EQ("/cas", cas.GetContextRoot());
    EXPECT_EQ("/login", cas.GetURILogin());
    EXPECT_EQ("/validate", cas.GetURIServiceValidate());
    EXPECT_EQ(8443u, cas.GetPortNumber()) << "no port element: kept";
}

TEST(CasXmlRead, MissingElementsKeepTheirFieldsAndUnknownOnesAreIgnored) {
    XML::xml_document doc = Parse("<config><authentication><cas><Server>upper</Server><port>1</port>"
                                  "<extra>x</extra><!-- note --><contextroot>/lower</contextroot></cas>"
                                  "</authentication></config>");
    CCASServer cas = Configured();
    ASSERT_TRUE(cas.ReadFromXML(doc));
    CCASServer expected = Configured();
    expected.SetPortNumber(1);
    EXPECT_EQ(expected, cas) << "element names are compared exactly";
}

TEST(CasXmlRead, PortIsADecimalNumber) {
    struct Case {
        const char* text;
        unsigned int port;
    } cases[] = {{"0443", 443}, {"0x10", 0}, {" 99", 99}, {"12abc", 12}, {"abc", 0}, {"", 0},
                 {"4294967295", 4294967295u}, {"4294967296", 4294967295u}, {"99999999999999999999999", 4294967295u}};
    for (const Case& c : cases) {
        std::string text = std::string("<config><authentication><cas><port>") + c.text + "</port></cas></authentication></config>";
        XML::xml_document doc = Parse(text.c_str());
        CCASServer cas;
        ASSERT_TRUE(cas.ReadFromXML(doc));
        EXPECT_EQ(c.port, cas.GetPortNumber()) << c.text;
    }
}

TEST(CasXmlRead, LaterDuplicatesWin) {
    XML::xml_document doc =
        Parse("<config><authentication><cas><server>a</server><server>b</server></cas></authentication></config>");
    CCASServer cas;
    ASSERT_TRUE(cas.ReadFromXML(doc));
    EXPECT_EQ("b", cas.GetServer());
}

TEST(CasXmlRead, WithoutTheCasNodeNothingChanges) {
    for (const char* text : {"<config/>", "<config><authentication/></config>", "<other><authentication><cas>"
                                                                                  "<server>x</server></cas></authentication></other>",
                             "<config><cas><server>x</server></cas></config>"}) {
        XML::xml_document doc = Parse(text);
        CCASServer cas = Configured();
        EXPECT_FALSE(cas.ReadFromXML(doc)) << text;
        EXPECT_EQ(Configured(), cas);
    }
    XML::xml_document empty;
    CCASServer cas;
    EXPECT_FALSE(cas.ReadFromXML(empty));
}

TEST(CasXmlWrite, WritesTheFiveElementsInOrder) {
    XML::xml_document doc = Parse("<config><general>keep</general></config>");
    ASSERT_TRUE(Configured().WriteToXML(doc));
    EXPECT_EQ("<config><general>keep</general><authentication><cas><server>cas.example</server><port>8443</port>"
              "<contextRoot>/sso</contextRoot><uriLogin>/signin</uriLogin>"
              "<uriServiceValidate>/p3/serviceValidate</uriServiceValidate></cas></authentication></config>",
              Serialised(doc));
}

TEST(CasXmlWrite, ReplacesTheWholeAuthenticationElement) {
    XML::xml_document doc = Parse("<config><authentication mode=\"x\"><ldap>gone</ldap><cas><server>old</server>"
                                  "<extra/></cas></authentication><authorization><ldapServer/></authorization>"
                                  "</config>");
    CCASServer cas;
    ASSERT_TRUE(cas.WriteToXML(doc));
    EXPECT_EQ("<config><authorization><ldapServer/></authorization><authentication><cas><server>0.0.0.0</server>"
              "<port>3170</port><contextRoot>/cas</contextRoot><uriLogin>/login</uriLogin>"
              "<uriServiceValidate>/validate</uriServiceValidate></cas></authentication></config>",
              Serialised(doc));
}

TEST(CasXmlWrite, OnlyTheFirstAuthenticationElementIsReplaced) {
    XML::xml_document doc = Parse("<config><authentication>1</authentication><authentication>2</authentication></config>");
    ASSERT_TRUE(CCASServer().WriteToXML(doc));
    std::string text = Serialised(doc);
    EXPECT_EQ(0u, text.find("<config><authentication>2</authentication><authentication><cas>")) << text;
}

TEST(CasXmlWrite, WithoutConfigNothingIsWritten) {
    XML::xml_document doc = Parse("<settings><authentication/></settings>");
    EXPECT_FALSE(Configured().WriteToXML(doc));
    EXPECT_EQ("<settings><authentication/></settings>", Serialised(doc));
    XML::xml_document empty;
    EXPECT_FALSE(Configured().WriteToXML(empty));
}

TEST(CasXmlWrite, WhatIsWrittenReadsBackEqual) {
    CCASServer written = Configured();
    written.SetServer("a&b<c>\"d\"");
    written.SetPortNumber(4294967295u);
    XML::xml_document doc = Parse("<config/>");
    ASSERT_TRUE(written.WriteToXML(doc));
    XML::xml_document again = Parse(Serialised(doc).c_str());
    CCASServer read;
    ASSERT_TRUE(read.ReadFromXML(again));
    EXPECT_EQ(written, read);
}
