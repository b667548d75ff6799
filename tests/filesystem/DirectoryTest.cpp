// Tests of the directory snapshots and the process helpers.
#include <kel/Exceptions.h>
#include <kel/FileSystem.h>
#include <kel/Functions.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using KEL::FileSystem::CDirectory;
namespace fs = boost::filesystem;

class DirectoryFixture : public ::testing::Test {
protected:
    void SetUp() override {
        m_Dir = fs::temp_directory_path() / fs::unique_path("kel-dir-%%%%-%%%%");
        fs::create_directories(m_Dir / "sub");
        std::ofstream((m_Dir / "a.log").string()) << "x";
        std::ofstream((m_Dir / "b.txt").string()) << "x";
        fs::create_symlink(m_Dir / "a.log", m_Dir / "link.log");
        fs::create_symlink(m_Dir / "sub", m_Dir / "dirlink");
        ::mkfifo((m_Dir / "pipe").c_str(), 0600);
    }
    void TearDown() override {
        boost::system::error_code ec;
        fs::permissions(m_Dir, fs::owner_all, ec);
        fs::remove_all(m_Dir, ec);
    }
    static std::vector<std::string> Names(CDirectory d) {
        std::vector<fs::path> entries;
        d.List(entries);
        std::vector<std::string> names;
        for (const fs::path& p : entries) names.push_back(p.filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    fs::path m_Dir;
};

using V = std::vector<std::string>;

TEST_F(DirectoryFixture, KindsSelectFilesDirectoriesAndLinks) {
    EXPECT_EQ(Names(CDirectory(m_Dir, CDirectory::STC_Directory)), V({"sub"}));
    EXPECT_EQ(Names(CDirectory(m_Dir, CDirectory::STC_File)), V({"a.log", "b.txt"}));
    EXPECT_EQ(Names(CDirectory(m_Dir, CDirectory::STC_Symlink)), V({"dirlink", "link.log"}));
    EXPECT_EQ(Names(CDirectory(m_Dir, 1u | 2u)), V({"a.log", "b.txt", "sub"}));
    // Without kinds every entry counts, the pipe too; "." and ".." never appear.
    EXPECT_EQ(Names(CDirectory(m_Dir)), V({"a.log", "b.txt", "dirlink", "link.log", "pipe", "sub"}));
}

TEST_F(DirectoryFixture, PatternMustMatchTheWholeName) {
    EXPECT_EQ(Names(CDirectory(m_Dir, std::string(".*\\.log"))), V({"a.log", "link.log"}));
    EXPECT_EQ(Names(CDirectory(m_Dir, std::string("log"))), V());
    EXPECT_EQ(Names(CDirectory(m_Dir, std::string(".*\\.log"), CDirectory::STC_File)), V({"a.log"}));
    EXPECT_EQ(Names(CDirectory(m_Dir, std::string(".*"))).size(), 6u);
}

TEST_F(DirectoryFixture, BadPatternRaisesBadFormat) {
    unsigned int previous = KEL::Threading::CThrowState::SetThrow(1);
    EXPECT_THROW(CDirectory(m_Dir, std::string("([")), KEL::Exceptions::CKelException);
    KEL::Threading::CThrowState::SetThrow(previous);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010010u);
}

TEST_F(DirectoryFixture, MissingDirectoryRaisesWithTheSystemError) {
    try {
        CDirectory d(m_Dir / "gone");
        ADD_FAILURE();
    } catch (const KEL::Exceptions::CKelException&) {
        KEL::Exceptions::NATIVE_ERROR native;
        EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x20010017u);
        EXPECT_EQ(native.value, static_cast<unsigned int>(ENOENT));
    }
    EXPECT_THROW(CDirectory(m_Dir / "a.log"), KEL::Exceptions::CKelException); // not a directory
}

TEST_F(DirectoryFixture, UnreadableDirectoryRaisesUnlessRunningAsRoot) {
    fs::permissions(m_Dir / "sub", fs::no_perms);
    if (::geteuid() == 0) {
        // root reads any directory: the snapshot succeeds and is empty.
        EXPECT_TRUE(CDirectory(m_Dir / "sub").GetEntries().empty());
    } else {
        EXPECT_THROW(CDirectory(m_Dir / "sub"), KEL::Exceptions::CKelException);
        KEL::Exceptions::NATIVE_ERROR native;
        EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x20010017u);
        EXPECT_EQ(native.value, static_cast<unsigned int>(EACCES));
    }
}

TEST_F(DirectoryFixture, EntriesVanishingDuringListingsNeverCrash) {
    fs::path churn = m_Dir / "churn";
    fs::create_directories(churn);
    std::atomic<bool> stop{false};
    std::thread remover([&] {
        for (unsigned int round = 0; !stop.load(); ++round) {
            for (int i = 0; i < 50; ++i) std::ofstream((churn / ("f" + std::to_string(i))).string()) << round;
            boost::system::error_code ec;
            for (int i = 0; i < 50; ++i) fs::remove(churn / ("f" + std::to_string(i)), ec);
            if (round % 8 == 7) {
                fs::remove_all(churn, ec);
                fs::create_directories(churn, ec);
            }
        }
    });
    unsigned int listed = 0, raised = 0;
    for (int i = 0; i < 300; ++i) {
        try {
            CDirectory d(churn, CDirectory::STC_File);
            listed += static_cast<unsigned int>(d.GetEntries().size() <= 50);
        } catch (const KEL::Exceptions::CKelException&) {
            ++raised; // the directory itself was gone for a moment
            EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010017u);
        }
    }
    stop = true;
    remover.join();
    EXPECT_EQ(listed + raised, 300u);
}

TEST_F(DirectoryFixture, ListCopiesAndCopiesAreIndependent) {
    CDirectory d(m_Dir, CDirectory::STC_File);
    std::vector<fs::path> out{"stale"};
    d.List(out);
    EXPECT_EQ(out.size(), 2u);
    CDirectory copy = d;
    CDirectory moved = std::move(copy);
    EXPECT_EQ(moved.GetEntries(), d.GetEntries());
    d = CDirectory(m_Dir, CDirectory::STC_Directory);
    EXPECT_EQ(moved.GetEntries().size(), 2u);
}

TEST(ProcessHelpers, AnswerFromTheSystem) {
    EXPECT_EQ(KEL::Functions::GetCurrentProcessID(), static_cast<unsigned long long>(::getpid()));
    std::string host, fqdn;
    ASSERT_EQ(KEL::Functions::GetDnsName(host, fqdn), 1u);
    EXPECT_FALSE(host.empty());
    EXPECT_EQ(fqdn.find(host.substr(0, host.find('.'))), 0u);
    KEL::Strings::CStringVar h, f;
    ASSERT_EQ(KEL::Functions::GetDnsName(h, f), 1u);
    EXPECT_EQ(std::string(h.C_Str()), host);
    EXPECT_EQ(KEL::Functions::HeapCheck(), 1u);
}

TEST(ProcessHelpers, CurrentDirectoryFollowsChdirAndFailsWhenRemoved) {
    fs::path saved = fs::current_path();
    fs::path dir = fs::canonical(fs::temp_directory_path()) / fs::unique_path("kel-cwd-%%%%-%%%%");
    fs::create_directories(dir);
    ASSERT_EQ(::chdir(dir.c_str()), 0);
    KEL::Strings::CStringVar cwd;
    EXPECT_EQ(KEL::Functions::GetCurrentDirectoryA(cwd), 1u);
    EXPECT_EQ(std::string(cwd.C_Str()), dir.string());
    fs::remove(dir);
    EXPECT_NE(KEL::Functions::GetCurrentDirectoryA(cwd), 1u);
    KEL::Exceptions::NATIVE_ERROR native;
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x20010017u);
    EXPECT_EQ(native.value, static_cast<unsigned int>(ENOENT));
    ASSERT_EQ(::chdir(saved.c_str()), 0);
}

} // namespace
