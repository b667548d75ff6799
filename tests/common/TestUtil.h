// kelbase - tests/common/TestUtil.h
//
// Helpers shared by the test programs: lambdas as counted delegates, a status-code catcher and
// a bounded spin for conditions another thread makes true. A folder with no .cpp of its own, so
// it never becomes a test program.
#pragma once

#include <kel/Delegates.h>
#include <kel/Exceptions.h>
#include <kel/Sockets.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace kel_test {

/// A call block that runs a lambda and counts failure notifications.
class CLambdaCb : public KEL::Delegates_and_Calls::CDelegate::CCbBase {
public:
    explicit CLambdaCb(std::function<void()> fn, std::atomic<int>* failed = nullptr)
        : m_Fn(std::move(fn)), m_pFailed(failed) {}
    void Call() override { m_Fn(); }
    void Failed() override {
        if (m_pFailed) m_pFailed->fetch_add(1);
    }

private:
    std::function<void()> m_Fn;
    std::atomic<int>* m_pFailed;
};

/// An initialised event (manual or auto reset, signalled or not).
inline KEL::Threading::CEvent NewEvent(bool manual, bool state) {
    KEL::Threading::CEvent e;
    e.Init(manual, state);
    return e;
}

inline KEL::Delegates_and_Calls::CDelegate Fn(std::function<void()> fn, std::atomic<int>* failed = nullptr) {
    return KEL::Delegates_and_Calls::CDelegate(new CLambdaCb(std::move(fn), failed));
}

/// Runs `body` with throw mode on and returns the library status it raised (0 when none).
template <class F>
unsigned int RaisedCode(F&& body) {
    unsigned int old = KEL::Threading::CThrowState::SetThrow(1);
    unsigned int code = 0;
    try {
        body();
    } catch (const KEL::Exceptions::CKelException& e) {
        code = e.GetCode();
    }
    KEL::Threading::CThrowState::SetThrow(old);
    return code;
}

/// Spins (sleeping a little) until `cond` holds; false after a generous hang guard.
template <class C>
bool Eventually(C&& cond, int seconds = 20) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

/// What `body` returns when run on a thread of its own, for checks that need another owner.
template <class F>
auto OnOtherThread(F&& body) -> decltype(body()) {
    decltype(body()) result{};
    std::thread([&] { result = body(); }).join();
    return result;
}

/// Runs `body` on `n` threads at once and joins them.
template <class F>
void OnThreads(int n, const F& body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) threads.emplace_back(body);
    for (auto& t : threads) t.join();
}

constexpr unsigned int kHangGuardMs = 20000;

/// A port on which nothing listens: free a moment ago (the system picks it) and closed again.
inline unsigned int FreePort() {
    KEL::Sockets::CSocketListener probe;
    probe.StartListen(0, 0);
    return probe.GetLocalAddr().GetPort();
}

/// A loopback listener with a connected client of type `S` and its accepted server side, both
/// with the hang guard as their time-out.
template <class S>
class TLoopbackPair : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(m_Listener.StartListen(0, 0), 1u);
        m_nPort = m_Listener.GetLocalAddr().GetPort();
        m_Client.SetTimeout(kHangGuardMs);
        ASSERT_EQ(m_Client.ConnectLocal(m_nPort), 1u);
        ASSERT_EQ(m_Listener.Wait(kHangGuardMs), 1u);
        ASSERT_EQ(m_Listener.Accept(m_Server), 1u);
        m_Server.SetTimeout(kHangGuardMs);
    }

    KEL::Sockets::CSocketListener m_Listener;
    S m_Client;
    S m_Server;
    unsigned int m_nPort = 0;
};

} // namespace kel_test
