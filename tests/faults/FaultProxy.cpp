// kelbase - tests/faults/FaultProxy.cpp
#include "FaultProxy.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace kel_test {

namespace {

constexpr size_t kReadChunk = 16384;
constexpr size_t kMaxPending = 1u << 20; // stop reading a side whose peer does not take its bytes

sockaddr_in Loopback(unsigned int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

void NoDelay(int fd) {
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void NonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

} // namespace

CFaultProxy::CFaultProxy(unsigned int targetPort) : m_nTarget(targetPort) {
    m_hListen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int on = 1;
    ::setsockopt(m_hListen, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a = Loopback(0);
    socklen_t len = sizeof a;
    if (m_hListen < 0 || ::bind(m_hListen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(m_hListen, 256) != 0 || ::getsockname(m_hListen, reinterpret_cast<sockaddr*>(&a), &len) != 0 ||
        ::pipe2(m_hWake, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error("fault proxy: no loopback listener");
    m_nPort = ntohs(a.sin_port);
    m_Thread = std::thread([this] { Run(); });
}

CFaultProxy::~CFaultProxy() {
    m_bStop = true;
    const char b = 1;
    (void)!::write(m_hWake[1], &b, 1);
    m_Thread.join();
    for (auto& link : m_Links) Kill(*link, false);
    ::close(m_hListen);
    ::close(m_hWake[0]);
    ::close(m_hWake[1]);
}

void CFaultProxy::SetFault(const Fault& fault) {
    std::lock_guard<std::mutex> hold(m_Lock);
    m_Fault = fault;
}

void CFaultProxy::AcceptOne() {
    int client = ::accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) return;
    int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = Loopback(m_nTarget);
    if (server < 0 || ::connect(server, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        if (server >= 0) ::close(server);
        ::close(client);
        return;
    }
    NonBlocking(server);
    NoDelay(client);
    NoDelay(server);
    auto link = std::make_unique<Link>();
    {
        std::lock_guard<std::mutex> hold(m_Lock);
        link->fault = m_Fault;
    }
    link->up.from = link->down.to = client;
    link->up.to = link->down.from = server;
    const Direction d = link->fault.direction;
    link->up.faulty = d != Direction::ServerToClient;
    link->down.faulty = d != Direction::ClientToServer;
    m_Links.push_back(std::move(link));
    ++m_nAccepted;
}

void CFaultProxy::Kill(Link& link, bool reset) {
    if (link.dead) return;
    link.dead = true;
    for (int fd : {link.up.from, link.up.to}) {
        if (reset) {
            linger l{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        } else {
            // A close with unread input would turn into a reset: read it away first.
            uint8_t sink[4096];
            while (::recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
            }
            ::shutdown(fd, SHUT_WR);
        }
        ::close(fd);
    }
}

void CFaultProxy::ReadInto(Link& link, Flow& flow) {
    uint8_t buffer[kReadChunk];
    const ssize_t n = ::recv(flow.from, buffer, sizeof buffer, 0);
    if (n == 0) {
        flow.eof = true;
        return;
    }
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
        Kill(link, true); // the side reset: so does the other
        return;
    }
    size_t take = static_cast<size_t>(n);
    const Fault& f = link.fault;
    const bool counts = flow.faulty && (f.kind == Kind::Truncate || f.kind == Kind::Reset);
    if (counts && flow.passed + take >= f.afterBytes) {
        take = f.afterBytes - flow.passed;
        flow.cut = true;
    }
    flow.passed += take;
    const Clock::time_point now = Clock::now();
    const auto delay = std::chrono::milliseconds(flow.faulty ? f.delayMs : 0);
    if (flow.faulty && f.kind == Kind::SingleBytes) {
        Clock::time_point due = flow.pending.empty() ? now : std::max(now, flow.pending.back().due);
        for (size_t i = 0; i < take; ++i) {
            due += delay;
            flow.pending.push_back(Chunk{due, {buffer[i]}, 0});
        }
    } else if (take != 0) {
        const Clock::time_point due = flow.faulty && f.kind == Kind::Delay ? now + delay : now;
        flow.pending.push_back(Chunk{due, std::vector<uint8_t>(buffer, buffer + take), 0});
    }
}

void CFaultProxy::WriteFrom(Link& link, Flow& flow) {
    std::atomic<size_t>& counter = &flow == &link.up ? m_nToServer : m_nToClient;
    const Clock::time_point now = Clock::now();
    while (!link.dead && !flow.pending.empty() && flow.pending.front().due <= now) {
        Chunk& c = flow.pending.front();
        const ssize_t n = ::send(flow.to, c.bytes.data() + c.sent, c.bytes.size() - c.sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
            Kill(link, true);
            return;
        }
        c.sent += static_cast<size_t>(n);
        counter += static_cast<size_t>(n);
        if (c.sent == c.bytes.size()) flow.pending.pop_front();
    }
    if (link.dead || !flow.pending.empty()) return;
    if (flow.cut) {
        ++m_nFaults;
        Kill(link, link.fault.kind == Kind::Reset);
        return;
    }
    if (flow.eof && !flow.shutDown) {
        ::shutdown(flow.to, SHUT_WR);
        flow.shutDown = true;
    }
    if (link.up.shutDown && link.down.shutDown) Kill(link, false);
}

int CFaultProxy::NextTimeout() const {
    const Clock::time_point now = Clock::now();
    long long best = 100; // also re-checks the stop flag now and then
    for (const auto& link : m_Links) {
        for (const Flow* f : {&link->up, &link->down}) {
            if (f->pending.empty()) continue;
            const long long ms =
                std::chrono::duration_cast<std::chrono::milliseconds>(f->pending.front().due - now).count();
            best = std::min(best, std::max(ms, 0LL));
        }
    }
    return static_cast<int>(best);
}

void CFaultProxy::Run() {
    std::vector<pollfd> fds;
    while (!m_bStop) {
        fds.clear();
        fds.push_back(pollfd{m_hWake[0], POLLIN, 0});
        fds.push_back(pollfd{m_hListen, POLLIN, 0});
        const Clock::time_point now = Clock::now();
        for (const auto& link : m_Links) {
            // One entry per descriptor: the client's reads feed `up` and its writes drain `down`.
            auto reads = [](const Flow& f) -> short {
                size_t queued = 0;
                for (const Chunk& c : f.pending) queued += c.bytes.size() - c.sent;
                return !f.eof && !f.cut && queued < kMaxPending ? POLLIN : 0;
            };
            auto writes = [&](const Flow& f) -> short {
                return !f.pending.empty() && f.pending.front().due <= now ? POLLOUT : 0;
            };
            fds.push_back(pollfd{link->up.from, static_cast<short>(reads(link->up) | writes(link->down)), 0});
            fds.push_back(pollfd{link->down.from, static_cast<short>(reads(link->down) | writes(link->up)), 0});
        }
        if (::poll(fds.data(), fds.size(), NextTimeout()) < 0 && errno != EINTR) break;
        if (fds[0].revents) {
            char sink[64];
            while (::read(m_hWake[0], sink, sizeof sink) > 0) {
            }
        }
        if (m_bStop) break;
        if (fds[1].revents & POLLIN) AcceptOne();
        for (size_t i = 0; i + 2 < fds.size() && i / 2 < m_Links.size(); i += 2) {
            Link& link = *m_Links[i / 2];
            const short client = fds[i + 2].revents;
            const short server = fds[i + 3].revents;
            if ((client | server) & POLLERR) {
                Kill(link, true); // a side reset: so does the other
                continue;
            }
            if ((client & (POLLIN | POLLHUP)) && !link.up.eof && !link.up.cut) ReadInto(link, link.up);
            if (!link.dead && (server & (POLLIN | POLLHUP)) && !link.down.eof && !link.down.cut)
                ReadInto(link, link.down);
        }
        for (auto& link : m_Links) {
            if (!link->dead) WriteFrom(*link, link->up);
            if (!link->dead) WriteFrom(*link, link->down);
        }
        m_Links.erase(std::remove_if(m_Links.begin(), m_Links.end(), [](const auto& l) { return l->dead; }),
                      m_Links.end());
    }
}

} // namespace kel_test
