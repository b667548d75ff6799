// The module registry, status texts, the application object and trace entry headers.
#include <kel/kelbase.h>

#include "../common/TraceCapture.h"
#include "KelKrnl/Hooks.h"
#include "KelKrnl/KelModule.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

using namespace KEL;

TEST(Modules, BuiltInModulesAreRegistered) {
    struct Expect {
        unsigned int id;
        const char* name;
    };
    for (Expect e : {Expect{1, "kelbase"}, Expect{2, "OS"}, Expect{3, "C-LIB"}, Expect{4, "OpenSSL"}}) {
        Misc::CModuleInfo* m = Functions::GetModuleInfo(e.id);
        ASSERT_NE(nullptr, m) << e.name;
        EXPECT_STREQ(e.name, m->GetModuleName());
    }
    EXPECT_STREQ("P:7.10.2 F:7.10.2", KEL_MODULE_INFO_KelLib.GetVersionInfo());
    EXPECT_NE(std::string::npos, std::string(Functions::GetModuleInfo(4)->GetVersionInfo()).find("OpenSSL"));
}

TEST(Modules, LookUpTakesAnIdOrAFullStatusCode) {
    EXPECT_EQ(Functions::GetModuleInfo(2), Functions::GetModuleInfo(0x20020005u));
    EXPECT_NE(nullptr, Functions::GetModuleInfo(0x20020005u));
    EXPECT_EQ(nullptr, Functions::GetModuleInfo(0x00020005u)); // bit 29 clear: module id 0x20005
}

TEST(Modules, NewestModuleStandsFirstAndUnloadIsCounted) {
    unsigned int unloads = Misc::CModuleInfo::GetUnloadCounter();
    unsigned int count = Misc::CModuleInfo::GetModuleCount();
    {
        Misc::CModuleInfo mine(0x123, "Mine", "V1");
        EXPECT_EQ(&mine, Misc::CModuleInfo::Enum(nullptr));
        EXPECT_EQ(&mine, Functions::GetModuleInfo(0x123));
        EXPECT_EQ(count + 1, Misc::CModuleInfo::GetModuleCount());
    }
    EXPECT_EQ(nullptr, Functions::GetModuleInfo(0x123));
    EXPECT_EQ(unloads + 1, Misc::CModuleInfo::GetUnloadCounter());
    EXPECT_EQ(count + 1, Misc::CModuleInfo::GetModuleCount()); // never decremented
}

TEST(Modules, TracePointsNeedBothTheMaskAndTheEnableFlag) {
    Misc::CModuleInfo mine(0x124, "Mine", "V1");
    mine.SetTrcPoints(0x20000020u);
    EXPECT_EQ(1u, mine.CheckTrcPoint(0x20u, 1));
    EXPECT_EQ(1u, mine.CheckTrcPoint(0x60u, 7));
    EXPECT_EQ(0u, mine.CheckTrcPoint(0x40u, 1));
    EXPECT_EQ(0u, mine.CheckTrcPoint(0xFFFFFFFFu, 0));
}

TEST(Messages, LibraryCodesHaveTheirTexts) {
    Strings::TString<128> text;
    KEL_MODULE_INFO_KelLib.GetErrorMsg(text, 0x20010016u);
    EXPECT_STREQ("Can't initalize a synchronization object", text.C_Str());
    KEL_MODULE_INFO_KelLib.GetErrorMsg(text, 0x2001003Au);
    EXPECT_STREQ("Thread interrupt", text.C_Str());
    // Answered by the owning module whichever module is asked.
    Functions::GetModuleInfo(3)->GetErrorMsg(text, 0x2001002Eu);
    EXPECT_STREQ("Connection refused", text.C_Str());
}

TEST(Messages, UnknownModuleAndUnknownNumberFallBack) {
    Strings::TString<128> unknownModule, text41, unknownNumber, text98;
    KEL_MODULE_INFO_KelLib.GetErrorMsg(unknownModule, 0x27770001u);
    KEL_MODULE_INFO_KelLib.GetErrorMsg(text41, 0x20010041u);
    EXPECT_STREQ(text41.C_Str(), unknownModule.C_Str());
    EXPECT_STRNE("", text41.C_Str());

    KEL_MODULE_INFO_KelLib.GetErrorMsg(unknownNumber, 0x2001FFF0u);
    Language_Support::CLanguageStrg generic(Internals::KelLngFile()->GetDefaultLngData(), 98);
    EXPECT_STREQ(generic.Native(), unknownNumber.C_Str());
    EXPECT_STRNE("", unknownNumber.C_Str());
}

TEST(Messages, IdZeroIsAnsweredByTheCalledModule) {
    Strings::TString<128> text;
    Functions::GetModuleInfo(2)->GetErrorMsg(text, 2); // errno ENOENT through the OS module
    EXPECT_STREQ("No such file or directory", text.C_Str());
    KEL_MODULE_INFO_KelLib.GetErrorMsg(text, 0x0036u);
    EXPECT_STREQ("Max count reached", text.C_Str());
}

TEST(Messages, ModuleWithItsOwnListAndLanguageFile) {
    static const char* const strings[] = {"zero", "Widget jammed", "Gr\xC3\xBC\xC3\x9F\x65"};
    static Language_Support::ERROR_MSG_LIST list[] = {{0x0005, 1}, {0x0006, 2}, {0, 0}};
    Language_Support::CLngFile file("widget.nls", Language_Support::Default_Language_ID, "English", 1, strings, 3);
    Misc::CModuleInfo widget(0x200, "Widget", "1.0", &file, list);
    Strings::TString<64> text;
    widget.GetErrorMsg(text, 0x22000005u);
    EXPECT_STREQ("Widget jammed", text.C_Str());
    KEL_MODULE_INFO_KelLib.GetErrorMsg(text, 0x22000006u); // asked through another module
    EXPECT_STREQ("Gr\xFC\xDF\x65", text.C_Str());         // converted to the local code page
    widget.GetErrorMsg(text, 0x22000006u, 1);
    EXPECT_STREQ("Gr\xC3\xBC\xC3\x9F\x65", text.C_Str()); // raw: the UTF-8 bytes
}

TEST(Application, DefaultObjectAndProgramObject) {
    Misc::CKelApplication* defaultApp = Misc::pKelApp;
    ASSERT_NE(nullptr, defaultApp);
    struct MyApp : Misc::CKelApplication {
        unsigned int GetErrorMessage(Strings::CStringVar& text, unsigned int) override {
            text = "mine";
            return 1;
        }
    };
    {
        MyApp app;
        EXPECT_EQ(&app, Misc::pKelApp);
        Strings::TString<16> text;
        EXPECT_EQ(1u, Misc::pKelApp->GetErrorMessage(text, 5));
    }
    EXPECT_EQ(defaultApp, Misc::pKelApp);
    Strings::TString<16> text("x");
    EXPECT_EQ(129u, Misc::pKelApp->GetErrorMessage(text, 5));
    EXPECT_EQ(0u, text.Length());
}

TEST(Application, Paths) {
    boost::filesystem::path exe;
    ASSERT_EQ(1u, Misc::CKelApplication::GetProcessPath(exe));
    EXPECT_EQ("kel_test_kernel", exe.filename().string());
    Strings::TString<256> exeText;
    EXPECT_EQ(1u, Misc::CKelApplication::GetProcessPath(exeText));
    EXPECT_EQ(exe.string(), exeText.C_Str());

    boost::filesystem::path windows("untouched");
    EXPECT_EQ(0u, Misc::CKelApplication::GetWindowsPath(windows));
    EXPECT_EQ("untouched", windows.string());

    boost::filesystem::path sh;
    ASSERT_EQ(1u, Misc::CKelApplication::GetCommandPath("sh", sh));
    EXPECT_EQ("sh", sh.filename().string());
    boost::filesystem::path none("kept");
    EXPECT_EQ(0u, Misc::CKelApplication::GetCommandPath("no-such-command-kel", none));
    EXPECT_EQ("kept", none.string());
}

TEST(Application, NlsSearchPathAndDebugWait) {
    Misc::pKelApp->SetNlsSearchPath(Strings::CSubStringRef("a;b/c;"));
    Strings::TString<32> path;
    Misc::pKelApp->GetNlsSearchPath(path);
    EXPECT_STREQ("a;b/c;", path.C_Str());
    Misc::pKelApp->SetNlsSearchPath(boost::filesystem::path("/opt/nls"));
    Misc::pKelApp->GetNlsSearchPath(path);
    EXPECT_STREQ("/opt/nls", path.C_Str());
    EXPECT_FALSE(Misc::pKelApp->GetDebugWait());
    Misc::pKelApp->SetDebugWait(true);
    EXPECT_TRUE(Misc::pKelApp->GetDebugWait());
    Misc::pKelApp->SetDebugWait(false);
}

// Only the writer is replaced: the trace points stay as the test sets them.
using TraceWriter = kel_test::CTraceCapture;

TEST(TraceEntry, HeaderLayouts) {
    TraceWriter capture(0, true);
    Misc::CModuleInfo mine(0x125, "Mine", "V1");
    mine.SetTrcPoints(0xFFFFFFFFu);
    KEL_TRACE(mine, 0x20, "KEL::Test::Short", "value=%d") << 5;
    KEL_TRACE(mine, 0x40000000, "KEL::Test::Long", "text");
    KEL_TRACE(mine, 0x80000020u, "KEL::Test::Cont", "more");
    { Internals::CTraceStreamBuffer(0x20, mine, "KEL::Test::Second", "extra", 77).Format("x"); }
    const std::vector<std::string> entries = capture.Entries();
    ASSERT_EQ(4u, entries.size());
    std::regex shortForm(R"(\n\*\*F0020\*\* \d{2}:\d{2}:\d{2}\.\d{4} \[TID=undefined\] Mine::KEL::Test::Short@\d+\nvalue=5)");
    EXPECT_TRUE(std::regex_match(entries[0], shortForm)) << entries[0];
    std::regex longForm(R"(\n\*\*F40000000\*\* \d{2}:\d{2}:\d{2}\.\d{4} \[TID=undefined\] Mine::KEL::Test::Long@\d+\ntext)");
    EXPECT_TRUE(std::regex_match(entries[1], longForm)) << entries[1];
    std::regex continued(R"(\*\*F80000020\*\* \d{2}:\d{2}:\d{2}\.\d{4} \[TID=undefined\]: more)");
    EXPECT_TRUE(std::regex_match(entries[2], continued)) << entries[2];
    std::regex second(R"(\n\*\*F0020\*\* \d{2}:\d{2}:\d{2}\.\d{4} \[TID=undefined\] Mine::KEL::Test::Second:extra@77\nx)");
    EXPECT_TRUE(std::regex_match(entries[3], second)) << entries[3];
}

TEST(TraceEntry, SwitchedOffPointFormatsNothing) {
    TraceWriter capture(0, true);
    Misc::CModuleInfo mine(0x126, "Mine", "V1");
    int evaluated = 0;
    auto arg = [&] { return ++evaluated; };
    KEL_TRACE(mine, 0x20, "KEL::Test::Off", "%d") << arg();
    EXPECT_EQ(0, evaluated);
    EXPECT_TRUE(capture.Entries().empty());
}

TEST(TraceEntry, ModuleUnloadLineWhenItsPointIsOn) {
    TraceWriter capture(0, true);
    unsigned int saved = KEL_MODULE_INFO_KelLib.GetTrcPoints();
    KEL_MODULE_INFO_KelLib.SetTrcPoints(0x20000000u);
    { Misc::CModuleInfo passing(0x127, "Passing", "1"); }
    KEL_MODULE_INFO_KelLib.SetTrcPoints(saved);
    const std::vector<std::string> entries = capture.Entries();
    ASSERT_EQ(1u, entries.size());
    std::regex line(R"(\n\*\*F20000000\*\* .*kelbase::KEL::Misc::CModuleInfo::~CModuleInfo@\d+\n)"
                    R"(KEL-powered Module unloaded \(Module=Passing, System time: \w{3} \w{3} [ \d]\d \d{2}:\d{2}:\d{2} \d{4}\)\.\n)");
    EXPECT_TRUE(std::regex_match(entries[0], line)) << entries[0];
}

TEST(Clock, TickTimeIsMonotonicAndScaled) {
    unsigned long long a = Functions::GetTickTime();
    unsigned long long ms = Functions::GetTickTime(1000);
    unsigned long long b = Functions::GetTickTime();
    EXPECT_LE(a, b);
    EXPECT_EQ(1000000000ull, Functions::GetTickFrequency());
    EXPECT_LE(a / 1000000ull, ms);
    EXPECT_LE(ms, b / 1000000ull);
}
