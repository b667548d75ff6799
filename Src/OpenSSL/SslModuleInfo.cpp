// kelbase - Src/OpenSSL/SslModuleInfo.cpp
//
// The TLS library as module 4 ("OpenSSL"): version banner, error texts, the error queue as
// text for error logs, library start-up and shutdown, and the lock array.
#define KEL_SOURCE_FILE "Src/OpenSSL"
#include <kel/Ssl.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include "OpenSSL/SslModuleInfo.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

namespace KEL {
namespace Internals {

namespace {

CSslModuleInfo s_SslModule;

// One lock of the array: the mutex and the thread that holds it, so that misuse is reported
// instead of deadlocking or releasing someone else's lock.
struct CSslLock {
    std::mutex mutex;
    std::atomic<std::thread::id> owner{};
};

std::mutex s_LocksGuard;
std::unique_ptr<CSslLock[]> s_pLocks;
std::atomic<unsigned int> s_nLocks{0};
unsigned int s_nInitCount = 0;
std::atomic<unsigned int> s_nLockFailures{0};

// Error texts of libssl exist only once libssl was initialised; a text may be wanted before
// any context was made (a key read, a code in an error log). Cheap after the first call.
void LoadErrorTexts() noexcept {
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
}

void ReportLockFailure(const char* file, int line, const char* reason) {
    s_nLockFailures.fetch_add(1, std::memory_order_relaxed);
    Strings::TString<256> text;
    text.Format("QUIETSCH, *** SSL-Lock failed ***\ncalled from %s@%d\n\n%S") << (file ? file : "?") << line << reason;
    KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Internals::CSslModuleInfo::SSL_LockingCallback", "%s")
        << static_cast<const Strings::CSubStringRef&>(text);
    std::fprintf(stderr, "%s\n", text.C_Str());
}

} // namespace

CSslModuleInfo::CSslModuleInfo() : CModuleInfo(4, "OpenSSL", OpenSSL_version(OPENSSL_VERSION)) {}

CSslModuleInfo::~CSslModuleInfo() = default;

void CSslModuleInfo::GetErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int) {
    LoadErrorTexts();
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    text = buffer;
}

unsigned long CSslModuleInfo::GetErrorMsg(Strings::CStringVar& text, ERROR_ENTRY_FN onEntry) {
    if (ERR_peek_error() == 0) return 0;
    LoadErrorTexts();
    unsigned long first = 0;
    const char* file = nullptr;
    const char* func = nullptr;
    const char* data = nullptr;
    int line = 0;
    int flags = 0;
    while (unsigned long code = ERR_get_error_all(&file, &line, &func, &data, &flags)) {
        if (first == 0) first = code;
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        if (onEntry) onEntry(code, buffer, file ? file : "?", line);
        if (text.Length() != 0 && text[text.Length() - 1] != '\n') text += '\n';
        text += buffer;
        text.Format(" (%s@%d)") << (file ? file : "?") << line;
        if (data && *data && (flags & ERR_TXT_STRING)) text.Format(": %s") << data;
    }
    return first;
}

unsigned int CSslModuleInfo::InitSslLocks() {
    std::lock_guard<std::mutex> hold(s_LocksGuard);
    if (s_nInitCount == 0) {
        if (OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr) != 1)
            KEL_RAISE_SSL(0x20010042u, "OPENSSL_init_ssl failed");
        unsigned int count = static_cast<unsigned int>(CRYPTO_num_locks());
        s_pLocks.reset(new CSslLock[count]);
        s_nLocks.store(count, std::memory_order_release);
        // The older thread interface; OpenSSL 3 ignores both.
        CRYPTO_set_id_callback(SSL_IDCallback);
        CRYPTO_set_locking_callback(SSL_LockingCallback);
    }
    ++s_nInitCount;
    return 1;
}

void CSslModuleInfo::UninitSslLocks() noexcept {
    std::lock_guard<std::mutex> hold(s_LocksGuard);
    if (s_nInitCount == 0 || --s_nInitCount != 0) return;
    CRYPTO_set_locking_callback(nullptr);
    CRYPTO_set_id_callback(nullptr);
    s_nLocks.store(0, std::memory_order_release);
    s_pLocks.reset();
}

void CSslModuleInfo::PrepareSslShutdown() noexcept {
    ERR_clear_error();
    OPENSSL_thread_stop();
}

unsigned int CSslModuleInfo::GetLockCount() noexcept { return s_nLocks.load(std::memory_order_acquire); }

unsigned int CSslModuleInfo::GetLockFailures() noexcept { return s_nLockFailures.load(std::memory_order_relaxed); }

void CSslModuleInfo::SSL_LockingCallback(int mode, int n, const char* file, int line) {
    unsigned int count = s_nLocks.load(std::memory_order_acquire);
    if (count == 0) return ReportLockFailure(file, line, "no SSL lock array");
    if (n < 0 || static_cast<unsigned int>(n) >= count) {
        char reason[64];
        std::snprintf(reason, sizeof reason, "lock %d out of range (%u locks)", n, count);
        return ReportLockFailure(file, line, reason);
    }
    CSslLock& lock = s_pLocks[static_cast<size_t>(n)];
    const std::thread::id self = std::this_thread::get_id();
    try {
        if (mode & CRYPTO_LOCK) {
            if (lock.owner.load(std::memory_order_relaxed) == self)
                return ReportLockFailure(file, line, "lock already held by the calling thread");
            lock.mutex.lock();
            lock.owner.store(self, std::memory_order_relaxed);
        } else if (mode & CRYPTO_UNLOCK) {
            if (lock.owner.load(std::memory_order_relaxed) != self)
                return ReportLockFailure(file, line, "lock not held by the calling thread");
            lock.owner.store(std::thread::id(), std::memory_order_relaxed);
            lock.mutex.unlock();
        } else {
            ReportLockFailure(file, line, "neither lock nor unlock requested");
        }
    } catch (const std::system_error& e) {
        ReportLockFailure(file, line, e.what());
    }
}

unsigned long CSslModuleInfo::SSL_IDCallback() { return Threading::CCurrentThread().GetThreadID(); }

void RaiseSsl(Exceptions::SOURCE_INFO& site, unsigned int code, const std::string& message) {
    Strings::TString<512> text(message);
    unsigned long first = CSslModuleInfo::GetErrorMsg(text);
    Exceptions::NATIVE_ERROR native;
    native.kind = 4;
    native.value = static_cast<unsigned int>(first);
    Exceptions::CFormatStreamCurrExc s(code, first ? &native : nullptr, &site, text.str());
    s.tryThrow();
}

} // namespace Internals

namespace Sockets {

unsigned int InitSslLibrary() {
    return Exceptions::Guarded(KEL_SITE(), [] { return Internals::CSslModuleInfo::InitSslLocks(); });
}

void UninitSslLibrary() noexcept { Internals::CSslModuleInfo::UninitSslLocks(); }

void PrepareSslShutdown() noexcept { Internals::CSslModuleInfo::PrepareSslShutdown(); }

} // namespace Sockets
} // namespace KEL
