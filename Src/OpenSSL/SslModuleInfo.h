// kelbase - Src/OpenSSL/SslModuleInfo.h
//
// The TLS library's process state as module 4 ("OpenSSL"): its version banner, the texts of
// its error codes and of the calling thread's error queue, and the lock array of OpenSSL's
// older thread interface. OpenSSL 3 keeps its own locks and never calls the callbacks; they
// stay for code of the suite that still installs or calls them.
//
// Failures inside the TLS wrappers are raised with KEL_RAISE_SSL, which drains the thread's
// error queue into the exception: the first queued error becomes the native error (kind 4)
// and every queued entry a line of the message.
#pragma once

#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include <string>

namespace KEL {
namespace Internals {

class CSslModuleInfo : public Misc::CModuleInfo {
public:
    CSslModuleInfo();
    ~CSslModuleInfo() override;

    /// The text OpenSSL has for the error code `code` (a native error of kind 4).
    void GetErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int raw = 0) override;
    /// Drains the calling thread's error queue into `text` (appending), one entry a line:
    /// OpenSSL's error string, the source of the entry and its data when it has any. Returns
    /// the oldest error code of the queue, 0 when it was empty. `onEntry`, when given, sees
    /// each entry as it is taken (a caller that traces the queue entry by entry).
    using ERROR_ENTRY_FN = void (*)(unsigned long code, const char* reason, const char* file, int line);
    static unsigned long GetErrorMsg(Strings::CStringVar& text, ERROR_ENTRY_FN onEntry = nullptr);

    /// Sets up the lock array (counted: each call needs one UninitSslLocks). 1, or 0x20010042.
    static unsigned int InitSslLocks();
    /// Undoes one InitSslLocks; the last one frees the lock array.
    static void UninitSslLocks() noexcept;
    /// Releases the calling thread's state inside OpenSSL (its error queue among it).
    static void PrepareSslShutdown() noexcept;
    /// Number of locks in the array, 0 while none is set up.
    static unsigned int GetLockCount() noexcept;

    /// OpenSSL's locking callback: `mode` CRYPTO_LOCK or CRYPTO_UNLOCK (with CRYPTO_READ or
    /// CRYPTO_WRITE), lock number `n`. A failing operation (no lock array, a number out of
    /// range, a lock taken twice or released by a thread that does not hold it) is reported
    /// as "QUIETSCH, *** SSL-Lock failed ***" with the caller's site, in the trace (category
    /// 0x40000000) and on the standard error stream; the lock is then left as it was.
    static void SSL_LockingCallback(int mode, int n, const char* file, int line);
    /// OpenSSL's thread-id callback: the calling thread's id.
    static unsigned long SSL_IDCallback();
    /// Number of lock failures reported so far.
    static unsigned int GetLockFailures() noexcept;
};

/// Raises `code` with `message` followed by the calling thread's OpenSSL error queue (which it
/// empties); the oldest queued error becomes the native error.
[[noreturn]] void RaiseSsl(Exceptions::SOURCE_INFO& site, unsigned int code, const std::string& message);

/// Formats a message for RaiseSsl (a kelbase format with its arguments).
template <class... A>
std::string SslMessage(const char* format, const A&... args) {
    Strings::TString<256> text;
    {
        Output_Streams::CFormatStream s(text, format);
        ((s << args), ...);
    }
    return text.str();
}

} // namespace Internals
} // namespace KEL

/// Raises a TLS failure with OpenSSL's error queue attached: KEL_RAISE_SSL(code, "fmt %d", n).
#define KEL_RAISE_SSL(code, ...) ::KEL::Internals::RaiseSsl(KEL_SITE(), (code), ::KEL::Internals::SslMessage(__VA_ARGS__))
