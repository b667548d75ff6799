// Tests of the INI reader: syntax, defaults, bad input and the locked read.
#include <kel/Exceptions.h>
#include <kel/IniFiles.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <chrono>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

using KEL::INI_Files::CIniFile;
using KEL::INI_Files::CIniList;
namespace fs = boost::filesystem;

CIniFile Parsed(const std::string& text) {
    CIniFile ini;
    ini.Parse(KEL::Strings::CSubStringRef(text.data(), text.size()));
    return ini;
}

class IniOnDisk : public ::testing::Test {
protected:
    void SetUp() override {
        m_Dir = fs::temp_directory_path() / fs::unique_path("kel-ini-%%%%-%%%%");
        fs::create_directories(m_Dir);
    }
    void TearDown() override { fs::remove_all(m_Dir); }
    fs::path Write(const std::string& name, const std::string& text) {
        fs::path p = m_Dir / name;
        std::ofstream(p.string(), std::ios::binary) << text;
        return p;
    }
    fs::path m_Dir;
};

TEST(IniSyntax, SectionsKeysValuesAndComments) {
    CIniFile ini = Parsed("top=1\n; comment = no\n# also = no\n[Trace]\n  Demo_MaxFileSize  =  12  \n"
                          "[ Other ]\nkey=a=b\nempty=\n");
    EXPECT_EQ(ini.GetValue("", "top"), "1");
    EXPECT_EQ(ini.GetValue("Trace", "Demo_MaxFileSize"), "12");
    EXPECT_EQ(ini.GetValue("Other", "key"), "a=b");
    EXPECT_EQ(ini.GetValue("Other", "empty", "dflt"), "");
    EXPECT_EQ(ini.GetValue("Trace", "; comment"), "");
    EXPECT_EQ(ini.GetSectionCount(), 3u);
    EXPECT_EQ(ini.GetBrokenLines(), 0u);
}

TEST(IniSyntax, NamesIgnoreCaseAndTheFirstValueWins) {
    CIniFile ini = Parsed("[TRACE]\nKey=first\nkey=second\n[trace]\nKEY=third\nmore=x\n");
    EXPECT_EQ(ini.GetValue("Trace", "kEy"), "first");
    EXPECT_EQ(ini.GetValue("trace", "MORE"), "x");
    EXPECT_EQ(ini.GetSectionCount(), 1u);
    EXPECT_EQ(ini.FindSection("Trace")->FindKey("key")->GetLine(), 2u);
}

TEST(IniSyntax, QuotesKeepBlanksAndInlineSemicolonsStay) {
    CIniFile ini = Parsed("[s]\nq=\"  padded  \"\nc=value ; not a comment\none=\"\n");
    EXPECT_EQ(ini.GetValue("s", "q"), "  padded  ");
    EXPECT_EQ(ini.GetValue("s", "c"), "value ; not a comment");
    EXPECT_EQ(ini.GetValue("s", "one"), "\"");
}

TEST(IniSyntax, MissingKeysFallBackToTheDefault) {
    CIniFile ini = Parsed("[s]\nn=0x20\nbad=12x\nneg=-5\nhuge=99999999999999999999\nyes=On\n");
    EXPECT_EQ(ini.GetValue("s", "none", "dflt"), "dflt");
    EXPECT_EQ(ini.GetValue("nosection", "n", "dflt"), "dflt");
    EXPECT_EQ(ini.GetInt("s", "n", 7), 0x20);
    EXPECT_EQ(ini.GetInt("s", "bad", 7), 7);
    EXPECT_EQ(ini.GetInt("s", "neg", 7), -5);
    EXPECT_EQ(ini.GetInt("s", "huge", 7), 7);
    EXPECT_EQ(ini.GetInt("s", "none", 7), 7);
    EXPECT_TRUE(ini.GetBool("s", "yes", false));
    EXPECT_TRUE(ini.GetBool("s", "bad", true));
    EXPECT_FALSE(ini.GetBool("s", "none", false));
}

TEST(IniSyntax, ListsSplitAtCommas) {
    CIniFile ini = Parsed("[s]\nl= a , b,,c \n");
    CIniList items;
    ini.GetList("s", "l", items);
    ASSERT_EQ(items.Count(), 4u);
    EXPECT_EQ(items[0], "a");
    EXPECT_EQ(items[2], "");
    EXPECT_EQ(items[3], "c");
    ini.GetList("s", "none", items);
    EXPECT_EQ(items.Count(), 0u);
}

TEST(IniBadInput, BrokenLinesAreSkippedAndCounted) {
    CIniFile ini = Parsed("[good]\na=1\nno equals sign\n=novalue\n[broken\nb=2\n[x] junk\nc=3\n[ok]\nd=4\n");
    EXPECT_EQ(ini.GetValue("good", "a"), "1");
    // Keys under a broken header go with it rather than into the section before.
    EXPECT_EQ(ini.GetValue("good", "b", "-"), "-");
    EXPECT_EQ(ini.GetValue("good", "c", "-"), "-");
    EXPECT_EQ(ini.GetValue("ok", "d"), "4");
    EXPECT_EQ(ini.GetBrokenLines(), 6u);
}

TEST(IniBadInput, LineEndsOfEveryKindAndNoFinalNewline) {
    CIniFile ini = Parsed("\xEF\xBB\xBF[s]\r\na=1\rb=2\nc=3");
    EXPECT_EQ(ini.GetValue("s", "a"), "1");
    EXPECT_EQ(ini.GetValue("s", "b"), "2");
    EXPECT_EQ(ini.GetValue("s", "c"), "3");
    EXPECT_EQ(ini.FindSection("s")->FindKey("c")->GetLine(), 4u);
}

TEST(IniBadInput, HugeValuesAndBinaryJunkAreKeptAsBytes) {
    std::string huge(5u << 20, 'v');
    std::string text = "[s]\nhuge=" + huge + "\njunk=\x01\x02\xff" + std::string(1, '\0') + "x\n\xfe\xfd\n";
    CIniFile ini = Parsed(text);
    EXPECT_EQ(ini.GetValue("s", "huge").size(), huge.size());
    EXPECT_EQ(ini.GetValue("s", "junk"), std::string("\x01\x02\xff\0x", 5));
    EXPECT_EQ(ini.GetInt("s", "junk", 3), 3);
    EXPECT_EQ(ini.GetBrokenLines(), 1u);
}

TEST_F(IniOnDisk, ReadReplacesTheContentsAndRemembersTheFile) {
    fs::path p = Write("a.ini", "[s]\nk=v");
    CIniFile ini = Parsed("[old]\nx=1\n");
    ASSERT_EQ(ini.Read(p, 2000), 1u);
    EXPECT_EQ(ini.GetValue("s", "k"), "v");
    EXPECT_EQ(ini.FindSection("old"), nullptr);
    EXPECT_EQ(ini.GetFileName(), p);
}

TEST_F(IniOnDisk, MissingFileFailsWithItsSystemErrorAndKeepsTheContents) {
    CIniFile ini = Parsed("[old]\nx=1\n");
    ASSERT_NE(ini.Read(m_Dir / "none.ini", 0), 1u);
    KEL::Exceptions::NATIVE_ERROR native;
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x20010017u);
    EXPECT_EQ(native.kind, 2u);
    EXPECT_EQ(native.value, static_cast<unsigned int>(ENOENT));
    EXPECT_EQ(ini.GetValue("old", "x"), "1");
    EXPECT_NE(ini.Read(m_Dir, 0), 1u); // a directory is not a file
}

TEST_F(IniOnDisk, ReadWaitsForAWritersLockAndGivesUpAfterTheWait) {
    fs::path p = Write("locked.ini", "[s]\nk=v\n");
    int fd = ::open(p.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    CIniFile ini;
    EXPECT_NE(ini.Read(p, 50), 1u);
    KEL::Exceptions::NATIVE_ERROR native;
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x20010017u);
    EXPECT_EQ(native.value, static_cast<unsigned int>(EWOULDBLOCK));
    std::thread release([fd] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ::flock(fd, LOCK_UN);
    });
    EXPECT_EQ(ini.Read(p, 0xFFFFFFFFu), 1u);
    release.join();
    ::close(fd);
    EXPECT_EQ(ini.GetValue("s", "k"), "v");
}

TEST_F(IniOnDisk, ThrowModeTurnsTheFailureIntoAnException) {
    unsigned int previous = KEL::Threading::CThrowState::SetThrow(1);
    CIniFile ini;
    EXPECT_THROW(ini.Read(m_Dir / "none.ini", 0), KEL::Exceptions::CKelException);
    KEL::Threading::CThrowState::SetThrow(previous);
}

} // namespace
