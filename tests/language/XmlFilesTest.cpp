// kelbase - tests/language/XmlFilesTest.cpp
//
// XML language files that are broken, incomplete, oversized or oddly named: each is left out
// or falls back to English, with the trace line that says why, and never takes the process down.
#include "LanguageTestSupport.h"
#include "xmlLngSupport/XmlLanguage.h"

#include <kel/LanguageSupport.h>

#include <gtest/gtest.h>

using KEL::Language_Support::CXMLLanguages;
using KEL::Language_Support::MakeLanguageID;

namespace {

constexpr unsigned int kDe = MakeLanguageID('d', 'e');
const char* const kLocale =
    "<LOCALE LANGUAGEID=\"de\" VERSION=\"1\" IMAGEPATH=\"de.gif\" LANGUAGENAME=\"Deutsch\">";

std::string Labels(const std::string& body) { return std::string("<?xml version=\"1.0\"?>\n") + kLocale + body + "</LOCALE>"; }

class XmlFiles : public ::testing::Test {
protected:
    std::string Text(CXMLLanguages& languages, unsigned int label, unsigned int language = kDe) {
        size_t length = 0;
        const char* text = languages.Resolve(label, language, length);
        return std::string(text, length);
    }
    kel_test::CTempDir m_Dir;
    kel_test::CTraceCapture m_Trace;
};

TEST_F(XmlFiles, MalformedFileIsLeftOutWithItsPath) {
    std::string path = m_Dir.Write("de.xml", "<LOCALE LANGUAGEID=\"de\"><EVT_CONNECTED Text=\"x\"></LOCALE>");
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ(1u, languages.size());
    EXPECT_EQ(1u, m_Trace.Count("Bad xmlfile " + path));
    EXPECT_EQ("Connected", Text(languages, 2));
}

TEST_F(XmlFiles, FileWithoutLocaleIsLeftOut) {
    std::string path = m_Dir.Write("de.xml", "<LANGUAGE LANGUAGEID=\"de\"/>");
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ(1u, languages.size());
    EXPECT_EQ(1u, m_Trace.Count("LOCALE not found " + path));
}

struct MISSING {
    const char* attribute;
    const char* locale;
};

class XmlFilesMissing : public XmlFiles, public ::testing::WithParamInterface<MISSING> {};

TEST_P(XmlFilesMissing, AttributeIsReportedAndTheFileLeftOut) {
    std::string path = m_Dir.Write("de.xml", std::string(GetParam().locale) + "<EVT_CONNECTED Text=\"Verbunden\"/></LOCALE>");
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ(1u, languages.size());
    EXPECT_EQ(1u, m_Trace.Count(std::string(GetParam().attribute) + " not found " + path));
    EXPECT_EQ("Connected", Text(languages, 2));
}

INSTANTIATE_TEST_SUITE_P(
    Locale, XmlFilesMissing,
    ::testing::Values(
        MISSING{"LANGUAGEID", "<LOCALE VERSION=\"1\" IMAGEPATH=\"i\" LANGUAGENAME=\"n\">"},
        MISSING{"LANGUAGEID", "<LOCALE LANGUAGEID=\"deu\" VERSION=\"1\" IMAGEPATH=\"i\" LANGUAGENAME=\"n\">"},
        MISSING{"LANGUAGEID", "<LOCALE LANGUAGEID=\"d\" VERSION=\"1\" IMAGEPATH=\"i\" LANGUAGENAME=\"n\">"},
        MISSING{"VERSION", "<LOCALE LANGUAGEID=\"de\" IMAGEPATH=\"i\" LANGUAGENAME=\"n\">"},
        MISSING{"IMAGEPATH", "<LOCALE LANGUAGEID=\"de\" VERSION=\"1\" LANGUAGENAME=\"n\">"},
        MISSING{"LANGUAGENAME", "<LOCALE LANGUAGEID=\"de\" VERSION=\"1\" IMAGEPATH=\"i\">"}),
    [](const ::testing::TestParamInfo<MISSING>& info) {
        return std::string(info.param.attribute) + std::to_string(info.index);
    });

TEST_F(XmlFiles, HelpPathAndOrientationAreOptional) {
    m_Dir.Write("de.xml", Labels("<EVT_CONNECTED Text=\"Verbunden\"/>"));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    ASSERT_EQ(2u, languages.size());
    EXPECT_EQ(kDe, languages[1].m_uLanguageId);
    EXPECT_TRUE(languages[1].m_HelpPath.empty());
    EXPECT_TRUE(languages[1].m_Orientation.empty());
    EXPECT_EQ("Deutsch", languages[1].m_LanguageName);
    EXPECT_EQ(1u, m_Trace.Count("NLS: found: de"));
    EXPECT_EQ("Verbunden", Text(languages, 2));
}

TEST_F(XmlFiles, OnlyTwoLetterNamesWithXmlCount) {
    const std::string body = Labels("<EVT_CONNECTED Text=\"Verbunden\"/>");
    for (const char* name : {"deu.xml", "d1.xml", "de.xml.bak", "de.XML", "d.xml", "_e.xml", "de.xmlx"})
        m_Dir.Write(name, body);
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ(1u, languages.size());
    EXPECT_TRUE(KEL::Internals::IsLanguageFileName("fr.xml"));
    EXPECT_TRUE(KEL::Internals::IsLanguageFileName("DE.xml"));
    EXPECT_FALSE(KEL::Internals::IsLanguageFileName("\xC3\xA9t.xml"));
}

TEST_F(XmlFiles, MissingFolderLeavesOnlyEnglish) {
    CXMLLanguages languages;
    languages.Build(m_Dir.Path() / "absent");
    EXPECT_EQ(1u, languages.size());
    EXPECT_EQ("Connected", Text(languages, 2, 0));
}

TEST_F(XmlFiles, UnknownKeysPseudoObjectsAndLabelsWithoutTextAreIgnored) {
    m_Dir.Write("de.xml", Labels("<NO_SUCH_LABEL Text=\"egal\"/>"
                                 "<PSEUDO_OBJ_ Text=\"Platzhalter\"/>"
                                 "<EVT_DISCONNECTED/>"
                                 "<EVT_CONNECTED Text=\"Verbunden\"/>"
                                 "<!-- comment --><?pi x?>"
                                 "<EVT_TEST_TRAP Text=\"Zeile 1\\nZeile 2\\\\n\"/>"));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ("Verbunden", Text(languages, 2));
    EXPECT_EQ("Disconnected", Text(languages, 3));
    EXPECT_EQ("?", Text(languages, 19998));
    // Each backslash-n pair is a line break; a lone backslash stays.
    EXPECT_EQ("Zeile 1\nZeile 2\\\n", Text(languages, 5));
}

TEST_F(XmlFiles, TranslatedEmptyTextReadsAsQuestionMark) {
    m_Dir.Write("de.xml", Labels("<EVT_CONNECTED Text=\"\"/>"));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ("?", Text(languages, 2));
}

TEST_F(XmlFiles, HugeTextKeepsEnglishAndIsTraced) {
    std::string huge(KEL::Internals::Max_Label_Text + 1, 'x');
    m_Dir.Write("de.xml", Labels("<EVT_CONNECTED Text=\"" + huge + "\"/><EVT_DISCONNECTED Text=\"" +
                                 huge.substr(1) + "\"/>"));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ("Connected", Text(languages, 2));
    EXPECT_EQ(huge.size() - 1, Text(languages, 3).size());
    EXPECT_EQ(1u, m_Trace.Count("NLS: text of EVT_CONNECTED too long"));
}

TEST_F(XmlFiles, FileBrokenAfterItWasFoundLoadsAsEnglish) {
    std::string path = m_Dir.Write("de.xml", Labels("<EVT_CONNECTED Text=\"Verbunden\"/>"));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    ASSERT_EQ(2u, languages.size());
    m_Dir.Write("de.xml", "<LOCALE");
    EXPECT_EQ("Connected", Text(languages, 2));
    EXPECT_TRUE(languages[1].IsLoaded());
    EXPECT_EQ(1u, m_Trace.Count("Bad xmlfile " + path));
}

TEST_F(XmlFiles, EveryLabelTranslatedAtOnce) {
    std::string body;
    const KEL::Language_Support::NLS_DEFAULT* t = KEL::Language_Support::CLanguageSupport::GetDefaults();
    for (size_t i = 0; i < KEL::Language_Support::CLanguageSupport::Label_Count; ++i)
        body += std::string("<") + t[i].key + " Text=\"de:" + t[i].key + "\"/>";
    m_Dir.Write("de.xml", Labels(body));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ("de:EVT_CONNECTED", Text(languages, 2));
    EXPECT_EQ("de:WRN_Field", Text(languages, 35604));
    EXPECT_EQ("?", Text(languages, 19998)); // the pseudo object stays untranslated
    std::string shared = Text(languages, 40605);
    EXPECT_TRUE(shared == "de:VAL_RAPID" || shared == "de:VAL_PRIORITY_RAPID") << shared;
}

TEST_F(XmlFiles, FirstOfTwoFilesForOneLanguageWins) {
    m_Dir.Write("de.xml", Labels("<EVT_CONNECTED Text=\"Erste\"/>"));
    m_Dir.Write("dx.xml", Labels("<EVT_CONNECTED Text=\"Zweite\"/>"));
    CXMLLanguages languages;
    languages.Build(m_Dir.Path());
    EXPECT_EQ(3u, languages.size());
    EXPECT_EQ("Erste", Text(languages, 2));
}

} // namespace
