// kelbase - Src/Posix/SocketDeadline.h
//
// A deadline for a blocking exchange inside a third-party library that has no reliable
// time-out of its own (OpenLDAP's TLS handshake waits for ever on a server that accepts and
// then stays silent). A watcher thread shuts the watched socket down for reading and writing
// when the deadline passes, which makes the library's next read see the end of the stream and
// give up. The socket is watched only between Watch and Unwatch, so a descriptor that was
// closed and reused is never touched.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace KEL {
namespace Internals {
namespace Posix {

class CSocketDeadline {
public:
    /// Starts watching the clock: the deadline is `milliseconds` from now.
    explicit CSocketDeadline(unsigned int milliseconds);
    /// Ends the watch (the deadline no longer applies) and waits for the watcher.
    ~CSocketDeadline();
    CSocketDeadline(const CSocketDeadline&) = delete;
    CSocketDeadline& operator=(const CSocketDeadline&) = delete;

    /// The socket to shut down at the deadline (replaces an earlier one).
    void Watch(int fd);
    /// No socket is watched any more.
    void Unwatch();
    /// Whether the deadline passed and a socket was shut down.
    bool Expired();

private:
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    int m_nFd = -1;
    bool m_bDone = false;
    bool m_bExpired = false;
    std::thread m_Watcher;
};

} // namespace Posix
} // namespace Internals
} // namespace KEL
