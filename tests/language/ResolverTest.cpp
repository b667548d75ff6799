// kelbase - tests/language/ResolverTest.cpp
//
// Resolving labels through the process's languages: the German file of the project is copied
// into the folder "NLS" beside this test program before any test runs.
#include "LanguageTestSupport.h"

#include <kel/LanguageSupport.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include <unistd.h>

using KEL::Language_Support::CLanguageSupport;
using KEL::Language_Support::CXMLLanguages;
using KEL::Language_Support::MakeLanguageID;

namespace {

constexpr unsigned int kDe = MakeLanguageID('d', 'e');
constexpr unsigned int kFr = MakeLanguageID('f', 'r');
const char* const kNoInformation = "?: There is no information available!";

// The project's German file: NLS/de.xml two folders above this source.
std::string ProjectGermanFile() {
    return (boost::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "NLS" / "de.xml")
        .string();
}

class CNlsBesideProgram : public ::testing::Environment {
public:
    // CTest runs each test as a process of its own, several at once: the file is copied under a
    // name of this process and renamed into place, so a reader sees a whole file or none.
    void SetUp() override {
        boost::filesystem::path program;
        ASSERT_EQ(1u, KEL::Misc::CKelApplication::GetProcessPath(program));
        boost::filesystem::path folder = program.parent_path() / "NLS";
        boost::filesystem::create_directories(folder);
        boost::filesystem::path staging = folder / ("de.xml." + std::to_string(::getpid()));
        boost::filesystem::copy_file(ProjectGermanFile(), staging,
                                     boost::filesystem::copy_option::overwrite_if_exists);
        boost::filesystem::rename(staging, folder / "de.xml");
    }
};
const ::testing::Environment* const s_Nls = ::testing::AddGlobalTestEnvironment(new CNlsBesideProgram);

class Resolver : public ::testing::Test {
protected:
    void TearDown() override { KEL::Threading::CCurrentThread().SetLngId(0); }
    static std::string Resolve(unsigned int label, bool english = false) {
        std::string text = "stale";
        CLanguageSupport::ResolveString(label, text, english);
        return text;
    }
};

TEST_F(Resolver, ThreadWithoutLanguageResolvesInEnglish) {
    EXPECT_EQ("Invalid input", Resolve(35600));
    EXPECT_EQ("This field cannot be blank (at least %d characters needed)!", Resolve(35602));
    EXPECT_EQ("Auto Replace", Resolve(40664));
    EXPECT_EQ("Connected", Resolve(2));
}

TEST_F(Resolver, ThreadLanguageChoosesTheTranslation) {
    KEL::Threading::CCurrentThread().SetLngId(kDe);
    EXPECT_EQ("Ung\xC3\xBCltige Eingabe", Resolve(35600));
    EXPECT_EQ("Sie m\xC3\xBCssen mindestens %d Zeichen eingeben!", Resolve(35603));
    EXPECT_EQ("Invalid input", Resolve(35600, true)) << "English asked for";
    // A label the file does not translate keeps its English text.
    EXPECT_EQ("Raid5", Resolve(40014));
}

TEST_F(Resolver, TranslationsTurnBackslashNIntoALineBreakAndDecodeEntities) {
    KEL::Threading::CCurrentThread().SetLngId(kDe);
    EXPECT_EQ("Das System muss neu gestartet werden,\num den Vorgang abzuschlie\xC3\x9F"
              "en",
              Resolve(35548));
    EXPECT_EQ("Die vorhandene Datei \"\xC3\xBC"
              "berschreiben\"?",
              Resolve(35691));
}

TEST_F(Resolver, PseudoObjectIsNeverTranslated) {
    KEL::Threading::CCurrentThread().SetLngId(kDe);
    EXPECT_EQ("?", Resolve(19998));
}

TEST_F(Resolver, LanguageWithoutFileResolvesInEnglish) {
    KEL::Threading::CCurrentThread().SetLngId(kFr);
    EXPECT_EQ("Execution error", Resolve(35541));
}

TEST_F(Resolver, MissingLabelGivesTheNoInformationTextAndATraceLine) {
    kel_test::CTraceCapture trace;
    KEL::Threading::CCurrentThread thread;
    EXPECT_EQ(kNoInformation, Resolve(99999));
    char expected[128];
    std::snprintf(expected, sizeof(expected),
                  "NLS-Thread-ID=0x%x Language=en Label-ID=99999\t??? not found ???", thread.GetThreadID());
    EXPECT_EQ(1u, trace.Count(expected)) << (trace.Entries().empty() ? "" : trace.Entries().back());

    thread.SetLngId(kDe);
    EXPECT_EQ(kNoInformation, Resolve(0));
    EXPECT_EQ(1u, trace.Count("Language=de Label-ID=0\t??? not found ???"));
}

TEST_F(Resolver, EmptyTextsReadAsQuestionMark) {
    EXPECT_EQ("?", Resolve(19998));
    EXPECT_EQ("?", Resolve(19999));
    EXPECT_EQ("?", Resolve(35754));
}

TEST_F(Resolver, SharedIdsResolveToOneOfTheirTexts) {
    std::string rapid = Resolve(40605);
    EXPECT_TRUE(rapid == "Rapid" || rapid == "Rapid priority") << rapid;
    EXPECT_EQ("Unspecified", Resolve(2147483647u));
}

TEST_F(Resolver, LowestAndHighestIdsAreFound) {
    EXPECT_EQ("Undefined", Resolve(1));
    EXPECT_EQ(kNoInformation, Resolve(2147483646u));
    EXPECT_EQ(kNoInformation, Resolve(4294967295u));
}

TEST_F(Resolver, StringVarResultMatchesTheStdStringResult) {
    KEL::Threading::CCurrentThread().SetLngId(kDe);
    KEL::Strings::TString<16> text("stale");
    CLanguageSupport::ResolveString(35541, text, false);
    EXPECT_STREQ("Ausf\xC3\xBChrungsfehler", text.C_Str());
    CLanguageSupport::ResolveString(35541, text, true);
    EXPECT_STREQ("Execution error", text.C_Str());
    CLanguageSupport::ResolveString(99999, text, true);
    EXPECT_STREQ(kNoInformation, text.C_Str());
}

TEST_F(Resolver, LanguageRecordsDescribeEnglishAndTheGermanFile) {
    unsigned int index = 0;
    EXPECT_EQ(CLanguageSupport::Default_Language_ID, CLanguageSupport::GetLanguageID(index));
    index = 1;
    EXPECT_EQ(kDe, CLanguageSupport::GetLanguageID(index));
    EXPECT_EQ(1u, index);

    std::string image, name;
    EXPECT_EQ(CLanguageSupport::Default_Language_ID, CLanguageSupport::GetImagePath(0, image, name));
    EXPECT_EQ("public/SJT/images/en.gif", image);
    EXPECT_EQ("English", name);
    EXPECT_EQ(kDe, CLanguageSupport::GetImagePath(1, image, name));
    EXPECT_EQ("public/SJT/images/de.gif", image);
    EXPECT_EQ("Deutsch", name);

    CXMLLanguages& languages = CLanguageSupport::Languages();
    ASSERT_EQ(2u, languages.size());
    EXPECT_EQ("LEFT_TO_RIGHT", languages[0].m_Orientation);
    EXPECT_EQ("7.10.2", languages[0].m_Version);
    EXPECT_TRUE(languages[0].m_FilePath.empty());
}

TEST_F(Resolver, IndexPastTheEndGivesEnglishAndResetsTheIndex) {
    unsigned int index = 2;
    EXPECT_EQ(25966u, CLanguageSupport::GetLanguageID(index));
    EXPECT_EQ(0u, index);
    index = 0xFFFFFFFFu;
    EXPECT_EQ(25966u, CLanguageSupport::GetLanguageID(index));
    EXPECT_EQ(0u, index);

    std::string image = "untouched", name = "untouched";
    EXPECT_EQ(0u, CLanguageSupport::GetImagePath(2, image, name));
    EXPECT_EQ("untouched", image);
    EXPECT_EQ("untouched", name);
}

TEST_F(Resolver, HelpPathFollowsTheLanguageOrFallsBackToEnglish) {
    std::string help;
    CLanguageSupport::GetHelpPath(kDe, help);
    EXPECT_EQ("public/help/de", help);
    CLanguageSupport::GetHelpPath(kFr, help);
    EXPECT_EQ("public/help/en", help);
    CLanguageSupport::GetHelpPath(0, help);
    EXPECT_EQ("public/help/en", help);
    KEL::Threading::CCurrentThread().SetLngId(kDe);
    CLanguageSupport::GetHelpPath(0, help);
    EXPECT_EQ("public/help/de", help);
}

TEST_F(Resolver, ThreadsKeepTheirOwnLanguage) {
    std::string german, english;
    std::thread a([&] {
        KEL::Threading::CCurrentThread().SetLngId(kDe);
        CLanguageSupport::ResolveString(3, german, false);
    });
    std::thread b([&] { CLanguageSupport::ResolveString(3, english, false); });
    a.join();
    b.join();
    EXPECT_EQ("Verbindung zum Server getrennt", german);
    EXPECT_EQ("Disconnected", english);
}

// A fresh set of languages over a folder of its own, so the first load is observable.
TEST(ResolverLoad, ManyThreadsResolvingANewLanguageLoadItOnce) {
    kel_test::CTempDir dir;
    boost::filesystem::copy_file(ProjectGermanFile(), dir.Path() / "de.xml");
    kel_test::CTraceCapture trace;
    CXMLLanguages languages;
    languages.Build(dir.Path());
    ASSERT_EQ(2u, languages.size());
    EXPECT_EQ(1u, trace.Count("NLS: found: de"));
    EXPECT_FALSE(languages[1].IsLoaded());

    constexpr int kThreads = 16;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::string> results(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (!go.load())
                std::this_thread::yield();
            size_t length = 0;
            const char* text = languages.Resolve(35600, kDe, length);
            results[i].assign(text, length);
        });
    }
    while (ready.load() != kThreads)
        std::this_thread::yield();
    go = true;
    for (std::thread& t : threads)
        t.join();
    for (const std::string& r : results)
        EXPECT_EQ("Ung\xC3\xBCltige Eingabe", r);
    EXPECT_EQ(1u, trace.Count("NLS: Loading language: de"));
    EXPECT_TRUE(languages[1].IsLoaded());
}

} // namespace
