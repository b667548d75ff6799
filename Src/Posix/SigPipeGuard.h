// kelbase - Src/Posix/SigPipeGuard.h
//
// Keeps SIGPIPE away from the calling thread while a third-party library writes to a socket
// whose peer may have gone (OpenLDAP's socket layer uses write(), which raises SIGPIPE and
// would end the process). The library must not change the process's signal disposition, so the
// signal is blocked for this thread only and a SIGPIPE raised meanwhile is taken off the
// thread's pending set before the old mask returns.
#pragma once

#include <cerrno>

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace KEL {
namespace Internals {
namespace Posix {

class CSigPipeGuard {
public:
    CSigPipeGuard() noexcept {
        sigemptyset(&m_Pipe);
        sigaddset(&m_Pipe, SIGPIPE);
        sigset_t pending;
        sigemptyset(&pending);
        // A SIGPIPE that was already pending belongs to someone else: leave it alone.
        m_bWasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
        m_bBlocked = pthread_sigmask(SIG_BLOCK, &m_Pipe, &m_Old) == 0 && sigismember(&m_Old, SIGPIPE) == 0;
    }
    ~CSigPipeGuard() {
        if (!m_bBlocked) return;
        if (!m_bWasPending) {
            sigset_t pending;
            sigemptyset(&pending);
            if (sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
                const timespec zero{0, 0};
                while (sigtimedwait(&m_Pipe, nullptr, &zero) < 0 && errno == EINTR) {
                }
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_Old, nullptr);
    }
    CSigPipeGuard(const CSigPipeGuard&) = delete;
    CSigPipeGuard& operator=(const CSigPipeGuard&) = delete;

private:
    sigset_t m_Pipe;
    sigset_t m_Old;
    bool m_bWasPending = false;
    bool m_bBlocked = false;
};

} // namespace Posix
} // namespace Internals
} // namespace KEL
