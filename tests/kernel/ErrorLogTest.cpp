// Error logs, throw modes and boundaries: what a failure leaves behind and how it travels.
#include <kel/kelbase.h>

#include "KelKrnl/Hooks.h"

#include <boost/format.hpp>
#include <gtest/gtest.h>

#include <string>
#include <thread>

using namespace KEL;
using Exceptions::CErrorLog;
using Exceptions::CKelException;
using Threading::CThrowState;

namespace {

// Restores the thread's throw mode whatever a test does.
struct ThrowModeScope {
    unsigned int saved;
    explicit ThrowModeScope(unsigned int mode) : saved(CThrowState::SetThrow(mode)) {}
    ~ThrowModeScope() { CThrowState::SetThrow(saved); }
};

[[noreturn]] void RaiseStringLimit(int capacity) {
    KEL_RAISE(0x20010036u, "Maximum buff size (%d) already reached", capacity);
}

unsigned int FailingBoundary() {
    return Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        RaiseStringLimit(7);
    });
}

unsigned int OuterBoundary() {
    return Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        unsigned int status = FailingBoundary(); // in throw mode the inner boundary throws on
        return status == 1 ? 1u : status;
    });
}

} // namespace

TEST(ErrorLog, EmptyLogReadsAsNoError) {
    CErrorLog log;
    Exceptions::NATIVE_ERROR native{7, 9};
    EXPECT_EQ(0u, log.GetError(native));
    EXPECT_EQ(7u, native.kind); // untouched
    EXPECT_EQ(0u, log.GetLogCount());
    EXPECT_EQ(nullptr, log.GetErrorMsg(0));
    EXPECT_EQ(nullptr, log.GetSrcInfo(0));
}

TEST(ErrorLog, MessagesKeepTheirTextsWhileTheTableGrows) {
    static Exceptions::SOURCE_INFO site{&KEL_MODULE_INFO_KelLib, "Src/test", 1};
    CErrorLog log;
    Exceptions::NATIVE_ERROR native{2, 111};
    ASSERT_TRUE(log.Start(0x20010017u, &native));
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(log.BeginMessage(&site));
        std::string text = "message " + std::to_string(i);
        ASSERT_TRUE(log.AppendText(text.data(), text.size(), 0));
        ASSERT_TRUE(log.AppendFill('.', static_cast<size_t>(i % 3)));
    }
    ASSERT_EQ(50u, log.GetLogCount());
    for (unsigned int i = 0; i < 50; ++i) {
        EXPECT_EQ("message " + std::to_string(i) + std::string(i % 3, '.'), log.GetErrorMsg(i));
        EXPECT_EQ(&site, log.GetSrcInfo(i));
    }
    EXPECT_EQ(nullptr, log.GetErrorMsg(50)); // an index equal to the count
    Exceptions::NATIVE_ERROR got;
    EXPECT_EQ(0x20010017u, log.GetError(got));
    EXPECT_EQ(2u, got.kind);
    EXPECT_EQ(111u, got.value);

    CErrorLog copy(log);
    log.Clear();
    EXPECT_EQ(50u, copy.GetLogCount());
    EXPECT_STREQ("message 49.", copy.GetErrorMsg(49));
    CErrorLog moved(std::move(copy));
    EXPECT_TRUE(copy.IsEmpty());
    EXPECT_EQ(0x20010017u, moved.GetError());
}

TEST(ErrorLog, UpperCaseWriteConvertsOnlyLetters) {
    CErrorLog log;
    ASSERT_TRUE(log.Start(1, nullptr));
    ASSERT_TRUE(log.BeginMessage(nullptr));
    log.AppendText("abc-xyz_09", 10, 1);
    EXPECT_STREQ("ABC-XYZ_09", log.GetErrorMsg(0));
}

TEST(ThrowMode, OffReturnsTheStatusAndTheLogTellsWhy) {
    ThrowModeScope mode(0);
    EXPECT_EQ(0x20010036u, FailingBoundary());
    const CErrorLog& log = Exceptions::ThreadErrorLog();
    EXPECT_EQ(0x20010036u, log.GetError());
    ASSERT_EQ(2u, log.GetLogCount()); // where it was raised, then the boundary
    EXPECT_STREQ("Maximum buff size (7) already reached", log.GetErrorMsg(0));
    EXPECT_STREQ("", log.GetErrorMsg(1));
    ASSERT_NE(nullptr, log.GetSrcInfo(0));
    EXPECT_EQ(&KEL_MODULE_INFO_KelLib, log.GetSrcInfo(0)->module);
}

TEST(ThrowMode, OnThrowsTheSameStatus) {
    ThrowModeScope mode(1);
    try {
        FailingBoundary();
        FAIL() << "the boundary returned in throw mode";
    } catch (const CKelException& e) {
        EXPECT_EQ(0x20010036u, e.GetCode());
        EXPECT_STREQ("kelbase status 0x20010036", e.what());
    }
    EXPECT_EQ(2u, Exceptions::ThreadErrorLog().GetLogCount());
}

TEST(ThrowMode, BoundaryRestoresTheCallersModeOnEveryPath) {
    {
        ThrowModeScope mode(0);
        FailingBoundary();
        EXPECT_EQ(0u, CThrowState::GetThrow());
    }
    {
        ThrowModeScope mode(1);
        EXPECT_THROW(FailingBoundary(), CKelException);
        EXPECT_EQ(1u, CThrowState::GetThrow());
    }
}

TEST(ThrowMode, SetThrowReturnsThePreviousModeAndCountsThreads) {
    unsigned int before = CThrowState::ThrowingThreads();
    {
        ThrowModeScope mode(0);
        EXPECT_EQ(0u, CThrowState::SetThrow(5)); // any non-zero value means on
        EXPECT_EQ(1u, CThrowState::SetThrow(1));
        EXPECT_EQ(before + 1, CThrowState::ThrowingThreads());
        std::thread other([] {
            EXPECT_EQ(0u, CThrowState::GetThrow()); // off for a new thread
            CThrowState::SetThrow(1);
            CThrowState::SetThrow(0);
        });
        other.join();
        EXPECT_EQ(0x20010036u, [] {
            try {
                return FailingBoundary();
            } catch (const CKelException& e) {
                return e.GetCode();
            }
        }());
    }
    EXPECT_EQ(before, CThrowState::ThrowingThreads());
}

TEST(ThrowMode, NestedBoundariesAddEverySite) {
    ThrowModeScope mode(1);
    EXPECT_THROW(OuterBoundary(), CKelException);
    EXPECT_EQ(3u, Exceptions::ThreadErrorLog().GetLogCount());
}

TEST(ThrowMode, EachThreadHasItsOwnLog) {
    ThrowModeScope mode(0);
    FailingBoundary();
    unsigned int otherCode = 1;
    std::thread other([&] { otherCode = Exceptions::ThreadErrorLog().GetError(); });
    other.join();
    EXPECT_EQ(0u, otherCode);
    EXPECT_EQ(0x20010036u, Exceptions::ThreadErrorLog().GetError());
}

TEST(Raise, NativeErrorTravelsWithTheStatus) {
    ThrowModeScope mode(0);
    unsigned int status = Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        errno = ECONNREFUSED;
        KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "connect to %s failed", "peer");
        return 1;
    });
    EXPECT_EQ(0x20010017u, status);
    Exceptions::NATIVE_ERROR native;
    EXPECT_EQ(0x20010017u, Exceptions::ThreadErrorLog().GetError(native));
    EXPECT_EQ(2u, native.kind);
    EXPECT_EQ(static_cast<unsigned int>(ECONNREFUSED), native.value);
    EXPECT_STREQ("connect to peer failed", Exceptions::ThreadErrorLog().GetErrorMsg(0));
}

TEST(Raise, BadFormatInTheMessageDoesNotHideTheStatus) {
    ThrowModeScope mode(0);
    unsigned int status = Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        KEL_RAISE(0x2001002Cu, "Protocol %d broken", "not an integer");
        return 1;
    });
    EXPECT_EQ(0x2001002Cu, status);
    EXPECT_EQ(0x2001002Cu, Exceptions::ThreadErrorLog().GetError());
    EXPECT_STREQ("Protocol ", Exceptions::ThreadErrorLog().GetErrorMsg(0));
}

TEST(Raise, OutOfMemoryInsideABoundaryBecomesItsStatus) {
    ThrowModeScope mode(0);
    unsigned int status = Exceptions::Guarded(KEL_SITE(), []() -> unsigned int { throw std::bad_alloc(); });
    EXPECT_EQ(0x2001000Fu, status);
}

TEST(Raise, ContinueExceptionAddsAMessageForTheSite) {
    ThrowModeScope mode(0);
    unsigned int status = Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        try {
            RaiseStringLimit(3);
        } catch (const CKelException& e) {
            CThrowState state;
            state.ContinueException(KEL_SITE()).Format("while copying %s", "names");
            throw;
        }
    });
    EXPECT_EQ(0x20010036u, status);
    ASSERT_EQ(3u, Exceptions::ThreadErrorLog().GetLogCount());
    EXPECT_STREQ("while copying names", Exceptions::ThreadErrorLog().GetErrorMsg(1));
}

TEST(Raise, BoostFormatMessagesStayLiteral) {
    ThrowModeScope mode(0);
    unsigned int status = Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        Threading::CThrowState state;
        state.StartException(__LINE__).prepareThrow(0x20010029u, boost::format("%1% out of %2%%%") % 120 % 100).tryThrow();
    });
    EXPECT_EQ(0x20010029u, status);
    EXPECT_STREQ("120 out of 100%", Exceptions::ThreadErrorLog().GetErrorMsg(0));
}

TEST(Rendering, ErrorLogRendersStatusNativeAndStack) {
    ThrowModeScope mode(0);
    Exceptions::Guarded(KEL_SITE(), []() -> unsigned int {
        errno = ENOENT;
        KEL_RAISE_NATIVE(0x20010016u, Functions::GetOsError(), "CreateEvent failed\nsecond line");
        return 1;
    });
    const CErrorLog& log = Exceptions::ThreadErrorLog();
    Strings::TString<512> text;
    text.Format("%s") << log;
    const Exceptions::SOURCE_INFO* raised = log.GetSrcInfo(0);
    const Exceptions::SOURCE_INFO* passed = log.GetSrcInfo(1);
    ASSERT_TRUE(raised && passed);
    std::string expected = "Error   : kelbase::22 (0x20010016)\nMessage : Can't initalize a synchronization object\n"
                           "\nN-Error : OS::2 (0x2)\nMessage : No such file or directory\n"
                           "\nErrLog-Stack:\n\n"
                           "  CreateEvent failed\n  second line\n"
                           "\nModule  : kelbase::" +
                           std::string(raised->file) + "@" + std::to_string(raised->line) +
                           "\n          -->  kelbase::" + std::string(passed->file) + "@" +
                           std::to_string(passed->line) + "\n";
    EXPECT_EQ(expected, std::string(text.C_Str()));
}

TEST(Rendering, UnknownModuleIsShownByNumber) {
    CErrorLog log;
    ASSERT_TRUE(log.Start(0x20770003u, nullptr));
    Strings::TString<128> text;
    text.Format("%s") << log;
    EXPECT_STREQ("Error   : 119::3 (0x20770003)\n", text.C_Str());
}

TEST(Rendering, SitesOfAnUnloadedModuleAreLost) {
    ThrowModeScope mode(0);
    FailingBoundary();
    {
        // Any module going away may have taken the site records with it.
        Misc::CModuleInfo passing(0x77, "Passing", "1");
    }
    const CErrorLog& log = Exceptions::ThreadErrorLog();
    EXPECT_EQ(nullptr, log.GetSrcInfo(0));
    Strings::TString<512> text;
    text.Format("%s") << log;
    EXPECT_NE(std::string::npos, std::string(text.C_Str()).find("  Maximum buff size (7) already reached\n Source information lost!\n"));
}
