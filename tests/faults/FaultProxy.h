// kelbase - tests/faults/FaultProxy.h
//
// A loopback TCP proxy for fault injection: it listens on a free port of 127.0.0.1, connects
// each accepted client to the target port, and forwards both directions on its own thread
// (one poll loop for all connections). The fault set before a client connects applies to that
// connection: delay every chunk, split the stream into single bytes, or, after N bytes in one
// direction, end both sides cleanly (truncation) or with a reset (SO_LINGER 0).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kel_test {

class CFaultProxy {
public:
    enum class Kind {
        Pass,        ///< forward as it comes
        Delay,       ///< hold every chunk for `delayMs` before forwarding it
        SingleBytes, ///< forward one byte per send, `delayMs` apart
        Truncate,    ///< after `afterBytes` bytes in `direction`, close both sides (FIN)
        Reset,       ///< after `afterBytes` bytes in `direction`, reset both sides (RST)
    };
    enum class Direction { ClientToServer, ServerToClient, Both };

    struct Fault {
        Kind kind = Kind::Pass;
        Direction direction = Direction::Both;
        size_t afterBytes = 0;
        unsigned int delayMs = 0;
    };

    /// Starts listening and the forwarding thread; `targetPort` is a loopback IPv4 port.
    explicit CFaultProxy(unsigned int targetPort);
    ~CFaultProxy();
    CFaultProxy(const CFaultProxy&) = delete;
    CFaultProxy& operator=(const CFaultProxy&) = delete;

    unsigned int Port() const { return m_nPort; }
    /// The fault for connections accepted from now on.
    void SetFault(const Fault& fault);
    /// Connections accepted so far, and those ended by a truncation or reset.
    size_t Accepted() const { return m_nAccepted.load(); }
    size_t FaultsApplied() const { return m_nFaults.load(); }
    /// Bytes forwarded so far in each direction (over all connections).
    size_t ForwardedToServer() const { return m_nToServer.load(); }
    size_t ForwardedToClient() const { return m_nToClient.load(); }

private:
    using Clock = std::chrono::steady_clock;
    struct Chunk {
        Clock::time_point due;
        std::vector<uint8_t> bytes;
        size_t sent = 0;
    };
    struct Flow {  // one direction of one connection
        int from = -1;
        int to = -1;
        std::deque<Chunk> pending;
        size_t passed = 0; // bytes taken from `from` so far
        bool eof = false;  // `from` has closed; shut `to` down once pending is empty
        bool faulty = false;
        bool cut = false;      // the fault's byte count is reached: end the link once sent
        bool shutDown = false; // `to` has been shut down for sending
    };
    struct Link {
        Fault fault;
        Flow up;   // client -> server
        Flow down; // server -> client
        bool dead = false;
    };

    void Run();
    void AcceptOne();
    void ReadInto(Link& link, Flow& flow);
    void WriteFrom(Link& link, Flow& flow);
    void Kill(Link& link, bool reset);
    int NextTimeout() const;

    unsigned int m_nTarget;
    unsigned int m_nPort = 0;
    int m_hListen = -1;
    int m_hWake[2] = {-1, -1};
    std::atomic<bool> m_bStop{false};
    std::mutex m_Lock; // guards m_Fault
    Fault m_Fault;
    std::vector<std::unique_ptr<Link>> m_Links; // the proxy thread's own
    std::atomic<size_t> m_nAccepted{0};
    std::atomic<size_t> m_nFaults{0};
    std::atomic<size_t> m_nToServer{0};
    std::atomic<size_t> m_nToClient{0};
    std::thread m_Thread;
};

} // namespace kel_test
