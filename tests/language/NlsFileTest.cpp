// kelbase - tests/language/NlsFileTest.cpp
//
// Binary language files: the search along the NLS path, the checks of Open, LoadStrings, the
// fall-back to the compiled-in strings and the error log that records why.
#include "LanguageTestSupport.h"

#include <kel/LanguageSupport.h>
#include <kel/Misc.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace KEL::Language_Support;
using kel_test::CTempDir;
using kel_test::MakeNls;
using kel_test::NLS_ENTRY;

namespace {

const char* const kBuiltIn[] = {"File %s not found", "Two", "Three"};
constexpr unsigned int kCount = 3;
constexpr unsigned int kDe = MakeLanguageID('d', 'e');
constexpr unsigned int kFr = MakeLanguageID('f', 'r');

std::string ValidFile() {
    return MakeNls(
        {{kDe, {"Datei %s nicht gefunden", "Zwei", "Drei"}}, {kFr, {"Fichier %s introuvable", "Deux", ""}}},
        kCount);
}

class NlsFile : public ::testing::Test {
protected:
    void SetUp() override {
        KEL::Misc::pKelApp->GetNlsSearchPath(m_SavedPath);
        KEL::Exceptions::ThreadErrorLog().Clear();
        KEL::Threading::CCurrentThread().SetLngId(kDe);
    }
    void TearDown() override {
        KEL::Misc::pKelApp->SetNlsSearchPath(KEL::Strings::CSubStringRef(m_SavedPath));
        KEL::Threading::CCurrentThread().SetLngId(0);
        KEL::Exceptions::ThreadErrorLog().Clear();
    }
    void SearchIn(const std::string& path) {
        KEL::Misc::pKelApp->SetNlsSearchPath(KEL::Strings::CSubStringRef(path));
    }

    KEL::Strings::TString<256> m_SavedPath;
    CTempDir m_Dir;
};

// A file object of its own per test: each searches once.
struct CModuleFile : CLngFile {
    CModuleFile() : CLngFile("module.nls", Default_Language_ID, "English", 1, kBuiltIn, kCount) {}
};

TEST_F(NlsFile, ValidFileGivesTheThreadsLanguage) {
    m_Dir.Write("module.nls", ValidFile());
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    LNGDATA& de = file.GetLngData();
    EXPECT_EQ(0u, file.GetState());
    EXPECT_EQ(3u, file.GetEntryCount());
    EXPECT_EQ(kDe, de.languageId);
    EXPECT_STREQ("Datei %s nicht gefunden", CLanguageStrg(de, 0).Native());
    EXPECT_STREQ("Drei", CLanguageStrg(de, 2).Native());
    EXPECT_STREQ("", CLanguageStrg(de, 3).Native()); // past the strings
    EXPECT_STREQ("Test", de.name);

    KEL::Threading::CCurrentThread().SetLngId(kFr);
    LNGDATA& fr = file.GetLngData();
    EXPECT_STREQ("Deux", CLanguageStrg(fr, 1).Native());
    EXPECT_STREQ("", CLanguageStrg(fr, 2).Native());
    EXPECT_EQ(0u, KEL::Exceptions::ThreadErrorLog().GetError());
}

TEST_F(NlsFile, ThreadWithoutLanguageOrWithAnUnknownOneGetsTheBuiltInStrings) {
    m_Dir.Write("module.nls", ValidFile());
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    KEL::Threading::CCurrentThread().SetLngId(0);
    EXPECT_EQ(&file.GetDefaultLngData(), &file.GetLngData());
    KEL::Threading::CCurrentThread().SetLngId(MakeLanguageID('i', 't'));
    LNGDATA& e = file.GetLngData();
    EXPECT_EQ(&file.GetDefaultLngData(), &e);
    EXPECT_STREQ("File %s not found", CLanguageStrg(e, 0).Native());
    EXPECT_EQ(0u, file.GetState());
}

TEST_F(NlsFile, LanguageNameIsTruncatedTo32Characters) {
    CLngFile file("x.nls", Default_Language_ID, "A language name that is far longer than thirty-two", 0,
                  kBuiltIn, kCount);
    EXPECT_STREQ("A language name that is far long", file.GetDefaultLngData().name);
    EXPECT_EQ(0u, file.GetDefaultLngData().isUtf8);
}

// Each damaged file must be refused as a whole: only the built-in strings stay, the state
// records a search without success, and the thread's log says 0x2001000a.
struct DAMAGE {
    const char* name;
    std::string (*make)();
};

// A valid file with the 32-bit field at `offset` set to `value`.
std::string Patched(size_t offset, unsigned int value) {
    std::string b = ValidFile();
    kel_test::Patch32(b, offset, value);
    return b;
}

class NlsFileDamage : public NlsFile, public ::testing::WithParamInterface<DAMAGE> {};

TEST_P(NlsFileDamage, IsRefusedAndTheBuiltInStringsStay) {
    m_Dir.Write("module.nls", GetParam().make());
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    LNGDATA& e = file.GetLngData();
    EXPECT_EQ(&file.GetDefaultLngData(), &e);
    EXPECT_EQ(kBuiltIn, e.strings);
    EXPECT_EQ(2u, file.GetState());
    EXPECT_EQ(1u, file.GetEntryCount());
    EXPECT_EQ(0x2001000Au, KEL::Exceptions::ThreadErrorLog().GetError());
    // Never searched again, even once a good file is in place.
    m_Dir.Write("module.nls", ValidFile());
    EXPECT_EQ(&file.GetDefaultLngData(), &file.GetLngData());
}

INSTANTIATE_TEST_SUITE_P(
    Damaged, NlsFileDamage,
    ::testing::Values(DAMAGE{"Truncated", [] { return ValidFile().substr(0, ValidFile().size() - 1); }},
                      DAMAGE{"OneByteTooLong", [] { return ValidFile() + "x"; }},
                      DAMAGE{"WrongMagic", [] { return Patched(0, 0x25031962u); }},
                      DAMAGE{"WrongCount", [] { return Patched(4, kCount + 1); }},
                      // The second entry's block starts at the end of the file.
                      DAMAGE{
                          "OffsetOutside",
                          [] { return Patched(12 + 48 + 4, static_cast<unsigned int>(ValidFile().size())); }},
                      DAMAGE{"OffsetIntoTheHeaders", [] { return Patched(12 + 4, 0); }},
                      DAMAGE{"NegativeOffset", [] { return Patched(12 + 4, 0x80000000u); }},
                      DAMAGE{"HugeN", [] { return Patched(8, 0xFFFFFFFFu); }},
                      DAMAGE{"BlockSizeOverflows", [] { return Patched(12 + 8, 0xFFFFFFF0u); }},
                      DAMAGE{"HeaderOnly", [] { return ValidFile().substr(0, 8); }},
                      DAMAGE{"EntryHeaderCut", [] { return ValidFile().substr(0, 12 + 48 + 20); }}),
    [](const ::testing::TestParamInfo<DAMAGE>& info) { return std::string(info.param.name); });

TEST_F(NlsFile, BlockWithTooFewStringsIsRefusedWhenLoaded) {
    // Sizes add up, but the German block holds two strings instead of three.
    std::string bytes = MakeNls({{kDe, {"Eins", "Zwei"}}, {kFr, {"Un", "Deux", "Trois"}}}, kCount);
    m_Dir.Write("module.nls", bytes);
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    EXPECT_EQ(&file.GetDefaultLngData(), &file.GetLngData());
    EXPECT_EQ(0x2001000Au, KEL::Exceptions::ThreadErrorLog().GetError());
    EXPECT_EQ(0u, file.GetState()); // the file itself is fine
    KEL::Threading::CCurrentThread().SetLngId(kFr);
    EXPECT_STREQ("Trois", CLanguageStrg(file.GetLngData(), 2).Native());
}

TEST_F(NlsFile, BlockWithTooManyStringsIsRefusedWhenLoaded) {
    std::string bytes = MakeNls({{kDe, {"Eins", "Zwei", "Drei", "Vier"}}}, kCount);
    m_Dir.Write("module.nls", bytes);
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    EXPECT_EQ(&file.GetDefaultLngData(), &file.GetLngData());
    EXPECT_EQ(0x2001000Au, KEL::Exceptions::ThreadErrorLog().GetError());
}

TEST_F(NlsFile, EmptySearchPathFindsNothingAndReportsNothing) {
    m_Dir.Write("module.nls", ValidFile());
    SearchIn("");
    CModuleFile file;
    EXPECT_EQ(&file.GetDefaultLngData(), &file.GetLngData());
    EXPECT_EQ(2u, file.GetState());
    EXPECT_EQ(0u, KEL::Exceptions::ThreadErrorLog().GetError());
}

TEST_F(NlsFile, EmptyItemsAndTrailingSeparatorLeaveOnlyTheOneFolder) {
    m_Dir.Write("module.nls", ValidFile());
    SearchIn(";" + m_Dir.Path().string() + ";");
    CModuleFile file;
    EXPECT_STREQ("Zwei", CLanguageStrg(file.GetLngData(), 1).Native());
    EXPECT_EQ(0u, file.GetState());
}

TEST_F(NlsFile, SearchStopsAtTheFirstFolderThatOpens) {
    CTempDir second;
    m_Dir.Write("module.nls", ValidFile());
    second.Write("module.nls", MakeNls({{kDe, {"Zweiter", "Ordner", "!"}}}, kCount));
    SearchIn(m_Dir.File("missing") + ";" + second.Path().string() + ";" + m_Dir.Path().string());
    CModuleFile file;
    EXPECT_STREQ("Zweiter", CLanguageStrg(file.GetLngData(), 0).Native());
}

TEST_F(NlsFile, CorruptFileInFrontDoesNotHideAGoodOneBehind) {
    CTempDir second;
    m_Dir.Write("module.nls", ValidFile() + "x");
    second.Write("module.nls", ValidFile());
    SearchIn(m_Dir.Path().string() + ";" + second.Path().string());
    CModuleFile file;
    EXPECT_STREQ("Zwei", CLanguageStrg(file.GetLngData(), 1).Native());
    EXPECT_EQ(0u, file.GetState());
}

TEST_F(NlsFile, CallersErrorLogSurvivesAFailedSearch) {
    try {
        KEL_RAISE(0x20010016u, "caller's failure %d", 7);
    } catch (const KEL::Exceptions::CKelException&) {
    }
    ASSERT_EQ(0x20010016u, KEL::Exceptions::ThreadErrorLog().GetError());
    m_Dir.Write("module.nls", Patched(0, 0x25031962u));
    SearchIn(m_Dir.Path().string());
    kel_test::CTraceCapture trace;
    CModuleFile file;
    EXPECT_EQ(&file.GetDefaultLngData(), &file.GetLngData());
    EXPECT_EQ(0x20010016u, KEL::Exceptions::ThreadErrorLog().GetError());
    EXPECT_EQ(1u, trace.Count("Language file not used (0x2001000A)"));
}

TEST_F(NlsFile, ManyThreadsAskingFirstSearchOnceAndAgree) {
    m_Dir.Write("module.nls", ValidFile());
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    constexpr int kThreads = 12;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<const LNGDATA*> seen(kThreads, nullptr);
    std::vector<std::string> text(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            KEL::Threading::CCurrentThread().SetLngId(kDe);
            ++ready;
            while (!go.load())
                std::this_thread::yield();
            LNGDATA& e = file.GetLngData();
            seen[i] = &e;
            text[i] = CLanguageStrg(e, 1).Native();
        });
    }
    while (ready.load() != kThreads)
        std::this_thread::yield();
    go = true;
    for (std::thread& t : threads)
        t.join();
    // A thread that came while the search was under way may have had the built-in entry; any
    // thread asking afterwards gets the file's.
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_NE(nullptr, seen[i]);
        EXPECT_TRUE(text[i] == "Zwei" || text[i] == "Two") << text[i];
    }
    EXPECT_EQ(0u, file.GetState());
    EXPECT_STREQ("Zwei", CLanguageStrg(file.GetLngData(), 1).Native());
}

TEST_F(NlsFile, ModuleMessagesComeFromTheThreadsLanguage) {
    m_Dir.Write("module.nls", ValidFile());
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    KEL::Language_Support::ERROR_MSG_LIST list[] = {{1, 0}, {2, 1}, {0, 0}};
    KEL::Misc::CModuleInfo module(0x123, "lngtest", "1.0", &file, list);
    unsigned int code = 0x20000000u | (0x123u << 16) | 2u;
    KEL::Strings::TString<64> text;
    module.GetErrorMsg(text, code);
    EXPECT_STREQ("Zwei", text.C_Str());
    KEL::Threading::CCurrentThread().SetLngId(0);
    module.GetErrorMsg(text, code);
    EXPECT_STREQ("Two", text.C_Str());
}

TEST_F(NlsFile, StringsAndFormatStreamsTakeFileTextsConverted) {
    m_Dir.Write("module.nls", MakeNls({{kDe,
                                        {"Gr\xC3\xBC\xC3\x9F"
                                         "e %s",
                                         "Zwei", "Drei"}}},
                                      kCount));
    SearchIn(m_Dir.Path().string());
    CModuleFile file;
    CLanguageStrg greeting(file.GetLngData(), 0);
    ASSERT_EQ(1u, greeting.IsUTF8());
    KEL::Strings::CStringVar constructed(greeting);
    EXPECT_STREQ("Gr\xFC\xDF"
                 "e %s",
                 constructed.C_Str());
    KEL::Strings::TString<512> big(greeting);
    big += CLanguageStrg(file.GetLngData(), 1);
    EXPECT_STREQ("Gr\xFC\xDF"
                 "e %sZwei",
                 big.C_Str());
    KEL::Strings::TString<16> formatted;
    formatted.Format("[%s|%s]") << greeting << CLanguageStrg(file.GetLngData(), 2);
    EXPECT_STREQ("[Gr\xFC\xDF"
                 "e %s|Drei]",
                 formatted.C_Str());
    // The native bytes stay UTF-8.
    EXPECT_STREQ("Gr\xC3\xBC\xC3\x9F"
                 "e %s",
                 greeting.Native());
}

TEST(LanguageStrg, Utf8TextIsConvertedToLatin1AndOtherTextIsCopied) {
    const char* const strings[] = {"Gr\xC3\xBC\xC3\x9F"
                                   "e",
                                   "Gr\xFC\xDF"
                                   "e"};
    CLngFile utf8("u.nls", Default_Language_ID, "English", 1, strings, 2);
    KEL::Strings::TString<32> out;
    CLanguageStrg(utf8.GetDefaultLngData(), 0).UTF8ToChar(out);
    EXPECT_STREQ("Gr\xFC\xDF"
                 "e",
                 out.C_Str());
    CLngFile latin1("l.nls", Default_Language_ID, "English", 0, strings, 2);
    CLanguageStrg(latin1.GetDefaultLngData(), 1).UTF8ToChar(out);
    EXPECT_STREQ("Gr\xFC\xDF"
                 "e",
                 out.C_Str());
    EXPECT_EQ(0u, CLanguageStrg(latin1.GetDefaultLngData(), 1).IsUTF8());
    // Asked for UTF-8, the bytes stay as stored.
    CLanguageStrg(utf8.GetDefaultLngData(), 0).UTF8ToChar(out, 65001);
    EXPECT_STREQ("Gr\xC3\xBC\xC3\x9F"
                 "e",
                 out.C_Str());
    // Not UTF-8 at all: shown as stored rather than lost.
    const char* const broken[] = {"Gr\xC3"};
    CLngFile bad("b.nls", Default_Language_ID, "English", 1, broken, 1);
    CLanguageStrg(bad.GetDefaultLngData(), 0).UTF8ToChar(out);
    EXPECT_STREQ("Gr\xC3", out.C_Str());
}

} // namespace
