// The XML model as the suite uses it through KEL::XML: parse, navigate, XPath, write back.
#include <kel/Xml.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

const char* const kConfig =
    "<?xml version=\"1.0\"?>\n"
    "<config><authorization><ldapServer host=\"ldap1\" port=\"636\"/><ldapServer host=\"ldap2\" port=\"389\" "
    "nonSecure=\"true\"/></authorization><authentication><cas url=\"https://cas/\">on</cas></authentication>"
    "</config>";

TEST(Xml, ConfigurationIsReadThroughTheKelNames) {
    KEL::XML::xml_document doc;
    KEL::XML::xml_parse_result result = doc.load_string(kConfig);
    ASSERT_TRUE(result) << result.description();
    KEL::XML::xpath_node_set servers = doc.select_nodes("/config/authorization/ldapServer");
    ASSERT_EQ(servers.size(), 2u);
    EXPECT_STREQ(servers[1].node().attribute("host").value(), "ldap2");
    EXPECT_EQ(servers[0].node().attribute("port").as_uint(), 636u);
    EXPECT_TRUE(servers[1].node().attribute("nonSecure").as_bool());
    KEL::XML::xpath_query secure("count(//ldapServer[not(@nonSecure)])");
    EXPECT_EQ(secure.evaluate_number(doc), 1.0);
    KEL::XML::xml_node cas = doc.child("config").child("authentication").child("cas");
    EXPECT_STREQ(cas.text().get(), "on");
}

TEST(Xml, ChangesAreWrittenBackAndReadAgain) {
    KEL::XML::xml_document doc;
    ASSERT_TRUE(doc.load_string(kConfig));
    KEL::XML::xml_node ldap = doc.select_node("//ldapServer[@host='ldap1']").node();
    ldap.attribute("port").set_value(1636);
    doc.child("config").child("authentication").remove_child("cas");
    std::ostringstream out;
    doc.save(out, "", KEL::XML::format_raw);
    KEL::XML::xml_document again;
    ASSERT_TRUE(again.load_string(out.str().c_str()));
    EXPECT_EQ(again.select_node("//ldapServer[@host='ldap1']/@port").attribute().as_int(), 1636);
    EXPECT_TRUE(again.select_node("//cas").node().empty());
}

TEST(Xml, BrokenDocumentsReportWhereTheyBreak) {
    KEL::XML::xml_document doc;
    KEL::XML::xml_parse_result result = doc.load_string("<config><a></config>");
    EXPECT_FALSE(result);
    EXPECT_EQ(result.status, KEL::XML::status_end_element_mismatch);
    EXPECT_EQ(result.offset, 13);
}

} // namespace
