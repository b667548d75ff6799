// kelbase - Src/Posix/SocketDeadline.cpp
//
// The watcher of CSocketDeadline: one thread per deadline, waiting on the monotonic clock.
#include "Posix/SocketDeadline.h"

#include <chrono>
#include <sys/socket.h>

namespace KEL {
namespace Internals {
namespace Posix {

CSocketDeadline::CSocketDeadline(unsigned int milliseconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    m_Watcher = std::thread([this, deadline] {
        std::unique_lock<std::mutex> lock(m_Lock);
        if (m_Changed.wait_until(lock, deadline, [this] { return m_bDone; })) return;
        if (m_nFd >= 0) {
            ::shutdown(m_nFd, SHUT_RDWR);
            m_bExpired = true;
        }
        // Without a socket yet, one watched later is already late: shut it down at once.
        while (!m_bDone) {
            m_Changed.wait(lock);
            if (m_nFd >= 0) {
                ::shutdown(m_nFd, SHUT_RDWR);
                m_bExpired = true;
            }
        }
    });
}

CSocketDeadline::~CSocketDeadline() {
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_bDone = true;
        m_nFd = -1;
    }
    m_Changed.notify_all();
    m_Watcher.join();
}

void CSocketDeadline::Watch(int fd) {
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_nFd = fd;
    }
    m_Changed.notify_all();
}

void CSocketDeadline::Unwatch() {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_nFd = -1;
}

bool CSocketDeadline::Expired() {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_bExpired;
}

} // namespace Posix
} // namespace Internals
} // namespace KEL
