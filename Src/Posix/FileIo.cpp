// kelbase - Src/Posix/FileIo.cpp
//
// Whole-file reads under flock, and the process's id, directory and host names.
#include "Posix/FileIo.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <netdb.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KEL {
namespace Internals {
namespace Posix {

namespace {

class CFd {
public:
    explicit CFd(int fd) noexcept : m_fd(fd) {}
    ~CFd() {
        if (m_fd >= 0) ::close(m_fd);
    }
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;
    int Get() const noexcept { return m_fd; }

private:
    int m_fd;
};

int LockShared(int fd, unsigned int waitMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
        if (::flock(fd, LOCK_SH | LOCK_NB) == 0) return 0;
        int err = errno;
        if (err == EINTR) continue;
        if (err != EWOULDBLOCK) return err;
        if (waitMs != 0xFFFFFFFFu && Clock::now() >= deadline) return EWOULDBLOCK;
        // A writer normally holds the lock for a moment only; poll finely at first.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace

int ReadLockedFile(const boost::filesystem::path& file, unsigned int waitMs, size_t maxSize, std::string& text) {
    CFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.Get() < 0) return errno;
    struct stat st {};
    if (::fstat(fd.Get(), &st) != 0) return errno;
    if (S_ISDIR(st.st_mode)) return EISDIR;
    if (int err = LockShared(fd.Get(), waitMs)) return err;
    std::string data;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd.Get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (n == 0) break;
        if (data.size() + static_cast<size_t>(n) > maxSize) return READ_TOO_LARGE;
        data.append(buffer, static_cast<size_t>(n));
    }
    text.swap(data);
    return 0;
}

unsigned long long ProcessId() noexcept { return static_cast<unsigned long long>(::getpid()); }

int CurrentDirectory(std::string& directory) {
    std::string buffer(256, '\0');
    for (;;) {
        if (::getcwd(&buffer[0], buffer.size())) {
            buffer.resize(std::strlen(buffer.c_str()));
            directory.swap(buffer);
            return 0;
        }
        if (errno != ERANGE) return errno;
        buffer.resize(buffer.size() * 2);
    }
}

int HostNames(std::string& host, std::string& fqdn) {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return errno;
    host = name;
    fqdn = name;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* result = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &result) == 0 && result) {
        if (result->ai_canonname && *result->ai_canonname) fqdn = result->ai_canonname;
        ::freeaddrinfo(result);
    }
    return 0;
}

int HeapState() noexcept { return HEAP_SOUND; }

} // namespace Posix
} // namespace Internals
} // namespace KEL
