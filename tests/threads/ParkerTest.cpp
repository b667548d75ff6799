// kelbase - tests/threads/ParkerTest.cpp
//
// The engine below the public objects: a parker that waits on descriptors together with its
// wake-ups (the way sockets join list waits), and the engine's own result codes.
#include "../common/TestUtil.h"

#include "Posix/Dispatcher.h"
#include "threads/ThreadCB.h"

#include <poll.h>
#include <unistd.h>

#include <thread>

using namespace KEL::Internals::Posix;

namespace {
struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() { EXPECT_EQ(::pipe(fd), 0); }
    ~Pipe() {
        ::close(fd[0]);
        ::close(fd[1]);
    }
};
} // namespace

TEST(ParkerDescriptors, AReadableDescriptorEndsThePark) {
    CWaitContext ctx;
    Pipe p;
    pollfd fds[1] = {{p.fd[0], POLLIN, 0}};
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(::write(p.fd[1], "x", 1), 1);
    });
    EXPECT_EQ(ParkWithDescriptors(ctx, UINT64_MAX, fds, 1), 0u);
    EXPECT_TRUE(fds[0].revents & POLLIN);
    writer.join();
}

TEST(ParkerDescriptors, AnAlertEndsTheParkAndTheDescriptorStaysQuiet) {
    CWaitContext ctx;
    Pipe p;
    pollfd fds[1] = {{p.fd[0], POLLIN, 0}};
    std::thread alerter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ctx.Alert();
    });
    EXPECT_EQ(ParkWithDescriptors(ctx, UINT64_MAX, fds, 1), CWaitContext::PW_Alert);
    EXPECT_EQ(fds[0].revents, 0);
    alerter.join();
}

TEST(ParkerDescriptors, TheDeadlineEndsTheParkWithNothing) {
    CWaitContext ctx;
    Pipe p;
    pollfd fds[1] = {{p.fd[0], POLLIN, 0}};
    EXPECT_EQ(ParkWithDescriptors(ctx, MonotonicNow() + 10000000ull, fds, 1), 0u);
    EXPECT_EQ(fds[0].revents, 0);
}

TEST(Engine, ResultCodesOfSingleAndListWaits) {
    CWaitContext ctx;
    CDispatcher* ev = CDispatcher::NewEvent(false, false);
    CDispatcher* mx = CDispatcher::NewMutex(nullptr);
    CDispatcher* both[2] = {ev, mx};
    EXPECT_EQ(WaitForObjects(ctx, 1, &ev, false, 0, true), WR_Timeout);
    EXPECT_EQ(WaitForObjects(ctx, 2, both, false, 0, true), WR_Object0 + 1); // the free mutex
    EXPECT_EQ(WaitForObjects(ctx, 0, both, false, 0, true), WR_Failed);
    ctx.Alert();
    EXPECT_EQ(WaitForObjects(ctx, 1, &ev, false, 1000, true), WR_IoCompletion);
    EXPECT_EQ(SleepAlertable(ctx, 1), WR_Timeout); // the alert was consumed
    EXPECT_TRUE(mx->ReleaseMutex(ctx));
    EXPECT_FALSE(mx->ReleaseMutex(ctx)); // not the owner any more
    int previous = -1;
    CDispatcher* sem = CDispatcher::NewSemaphore(1, 1);
    EXPECT_FALSE(sem->ReleaseSemaphore(1, &previous));
    EXPECT_EQ(WaitForObjects(ctx, 1, &sem, false, 0, true), WR_Object0);
    EXPECT_TRUE(sem->ReleaseSemaphore(1, &previous));
    EXPECT_EQ(previous, 0);
    sem->Release();
    mx->Release();
    ev->Release();
}
