// kelbase - Exceptions.h
//
// One way to fail for the whole library (KEL::Exceptions, KEL::Threading::CThrowState).
//
// A failing operation raises a status code: the details (status, the native error behind it,
// a stack of messages each with its source site) go into the calling thread's CErrorLog, and
// a CKelException carrying only the status is thrown. Exported operations that convert
// failures into results are boundaries: there the site's message is added and, by the
// thread's throw mode, the exception travels on or the operation returns the status.
//
//     KEL_RAISE(0x20010036, "Maximum buff size (%d) already reached", capacity);
//
//     unsigned int CFoo::Bar() {                    // an exported boundary
//         return KEL::Exceptions::Guarded(KEL_SITE(), [&] { ...; return 1u; });
//     }
//
// Throw mode is per thread and off for a new thread; CThrowState::SetThrow(1) at the start of
// a program or thread makes boundaries throw instead of returning their status.
//
// Status codes: bit 29 marks a module-scoped code, bits 16..28 the module id, bits 0..15 the
// message number. kelbase's own codes are 0x2001xxxx.
#pragma once

#include <kel/OutputStreams.h>

#include <boost/format/format_fwd.hpp>

#include <atomic>
#include <exception>
#include <new>
#include <utility>

namespace KEL {
namespace Misc {
class CModuleInfo;
}
/// The library's own module (id 1, "kelbase").
KEL_API extern Misc::CModuleInfo KEL_MODULE_INFO_KelLib;
namespace Internals {
class CThreadCB;
} // namespace Internals
namespace Threading {
class CThrowState;
}

namespace Exceptions {

/// A static record per raising site: module, source file (area) and line.
struct SOURCE_INFO {
    Misc::CModuleInfo* module;
    const char* file;
    unsigned int line;
};

/// The native error behind a status: kind = the module whose numbering `value` uses
/// (2 operating system, 3 C runtime, 4 OpenSSL).
struct NATIVE_ERROR {
    unsigned int kind = 0;
    unsigned int value = 0;
};

/// The object that is thrown: only the status; the details are in the thread's error log.
class KEL_API CKelException : public std::exception {
public:
    explicit CKelException(unsigned int code) noexcept : m_uCode(code) {}
    unsigned int GetCode() const noexcept { return m_uCode; }
    /// "kelbase status 0x2001xxxx" (the details are in the thread's error log).
    const char* what() const noexcept override;

private:
    unsigned int m_uCode;
    mutable char m_szWhat[32] = {};
};

/// An error log: the status, the native error and a stack of messages with their sites, kept
/// in one heap block. Copying copies the block.
class KEL_API CErrorLog {
public:
    CErrorLog() noexcept = default;
    CErrorLog(const CErrorLog& other);
    CErrorLog(CErrorLog&& other) noexcept : m_pData(other.m_pData) { other.m_pData = nullptr; }
    CErrorLog& operator=(const CErrorLog& other);
    CErrorLog& operator=(CErrorLog&& other) noexcept;
    ~CErrorLog();

    /// The status (0 for an empty log) and its native error.
    unsigned int GetError(NATIVE_ERROR& native) const noexcept;
    unsigned int GetError() const noexcept;
    unsigned int GetLogCount() const noexcept;
    /// The i-th message (0 = where the error was raised), null when out of range.
    const char* GetErrorMsg(unsigned int i) const noexcept;
    /// The i-th site; null when out of range or when a module was unloaded since the log was
    /// made (the site records may have belonged to it).
    const SOURCE_INFO* GetSrcInfo(unsigned int i) const noexcept;
    bool IsEmpty() const noexcept { return m_pData == nullptr; }
    void Clear() noexcept;

    /// Replaces the block (taking ownership of `block`, which came from this class).
    void SetLogData(void* block) noexcept;
    void* ReleaseLogData() noexcept;

    // Building a log (used by the exception buffer). Each returns false when memory ran out;
    // the message is then dropped, the status still travels.
    /// Empties the log and starts it with `code` and its native error (none when null).
    bool Start(unsigned int code, const NATIVE_ERROR* native) noexcept;
    /// Opens the next message, raised or passed at `site`; text is appended to it.
    bool BeginMessage(const SOURCE_INFO* site) noexcept;
    /// Appends to the open message (`upperCase` not 0: ASCII letters in upper case).
    bool AppendText(const char* text, size_t length, unsigned int upperCase) noexcept;
    /// Appends `count` copies of `ch` to the open message.
    bool AppendFill(int ch, size_t count) noexcept;

    /// The block's layout is private to the library.
    struct LOGDATA;

private:
    LOGDATA* m_pData = nullptr;
};

/// The calling thread's error log (the one the last failure filled).
KEL_API CErrorLog& ThreadErrorLog();

/// The stream buffer that writes a message into an error log, growing it as strings grow.
class KEL_API CExceptionBuffer : public Output_Streams::Base_Classes::CFormatStreamBuffer {
public:
    explicit CExceptionBuffer(CErrorLog& log) noexcept : m_Log(log) {}
    void Write(const char* text, size_t length, unsigned int upperCase) override;
    void Fill(int ch, size_t count) override;
    bool RaisesFormatErrors() const noexcept override { return false; }

private:
    CErrorLog& m_Log;
};

/// The stream of a new exception's first message; tryThrow() ends it and throws. It is built in
/// place (returned as a prvalue) and never copied: its stream writes into its own log.
class KEL_API CFormatStreamCurrExc {
public:
    CFormatStreamCurrExc(unsigned int code, const NATIVE_ERROR* native, SOURCE_INFO* site, const char* format);
    /// With a finished message text (taken literally).
    CFormatStreamCurrExc(unsigned int code, const NATIVE_ERROR* native, SOURCE_INFO* site, std::string&& text);
    CFormatStreamCurrExc(const CFormatStreamCurrExc&) = delete;
    CFormatStreamCurrExc& operator=(const CFormatStreamCurrExc&) = delete;
    ~CFormatStreamCurrExc();

    /// Arguments; a format error only ends the message, it never hides the status.
    template <class T>
    CFormatStreamCurrExc& operator<<(const T& value) {
        if (m_pStream) {
            try {
                *m_pStream << value;
            } catch (const Output_Streams::Internals::CFormatAbort&) {
                EndMessage();
            }
        }
        return *this;
    }
    /// Ends the message, makes the new log the thread's error log and throws the status.
    [[noreturn]] void tryThrow();

private:
    void EndMessage() noexcept;
    unsigned int m_uCode;
    CErrorLog m_Log;
    CExceptionBuffer m_Buffer;
    std::string m_Text;
    Output_Streams::CFormatStream* m_pStream = nullptr;
    alignas(Output_Streams::CFormatStream) unsigned char m_Stream[sizeof(Output_Streams::CFormatStream)];
};

/// An exception being raised (from CThrowState::StartException).
class KEL_API CException {
public:
    CException(Threading::CThrowState& state, unsigned int line) noexcept : m_State(state), m_uLine(line) {}
    /// Starts a new log with `code` (and its native error) and returns the stream of its first
    /// message: `message` is a format whose arguments follow with `<<`, a boost::format
    /// arrives finished and is taken literally; `site`, when given, is recorded as the raising
    /// place. The stream's tryThrow() throws.
    CFormatStreamCurrExc prepareThrow(unsigned int code, const char* message);
    CFormatStreamCurrExc prepareThrow(unsigned int code, const NATIVE_ERROR& native, const char* message);
    CFormatStreamCurrExc prepareThrow(unsigned int code, SOURCE_INFO& site, const char* message);
    CFormatStreamCurrExc prepareThrow(unsigned int code, const NATIVE_ERROR& native, SOURCE_INFO& site,
                                      const char* message);
    CFormatStreamCurrExc prepareThrow(unsigned int code, const boost::format& message);
    CFormatStreamCurrExc prepareThrow(unsigned int code, const NATIVE_ERROR& native, const boost::format& message);
    CFormatStreamCurrExc prepareThrow(unsigned int code, SOURCE_INFO& site, const boost::format& message);

private:
    Threading::CThrowState& m_State;
    unsigned int m_uLine;
};

/// The log of an exception that passes a further site: Format adds a message for the site,
/// tryThrow throws on or returns the status, by the caller's throw mode.
class KEL_API CExceptionLog {
public:
    CExceptionLog(Threading::CThrowState& state, SOURCE_INFO& site) noexcept : m_State(state), m_Site(site) {}
    /// Adds a message (formatted like any other) for this site to the thread's log.
    void Format(const char* message);
    template <class... A>
    void Format(const char* message, const A&... args);
    /// Throws `code` on when the caller of the operation is in throw mode, else returns it.
    unsigned int tryThrow(unsigned int code);

private:
    Threading::CThrowState& m_State;
    SOURCE_INFO& m_Site;
};

} // namespace Exceptions

namespace Threading {

/// The throw state of one operation (on its stack): it remembers the thread's throw mode when
/// the operation began and puts it back when the operation ends. While no thread of the
/// process has throw mode on, constructing one costs one relaxed atomic load.
class KEL_API CThrowState {
public:
    CThrowState() noexcept {
        if (s_nThrowingThreads.load(std::memory_order_relaxed) != 0) Init();
    }
    ~CThrowState() {
        if (m_bChanged) Restore();
    }
    CThrowState(const CThrowState&) = delete;
    CThrowState& operator=(const CThrowState&) = delete;

    Exceptions::CException StartException(unsigned int line) noexcept { return Exceptions::CException(*this, line); }
    Exceptions::CExceptionLog ContinueException(Exceptions::SOURCE_INFO& site) noexcept {
        return Exceptions::CExceptionLog(*this, site);
    }
    /// At a boundary, inside the catch block: adds `site` to the thread's log; throws the status
    /// on when the caller's mode is "throw", else returns it.
    unsigned int ThrowNext(Exceptions::SOURCE_INFO& site);
    /// The same for a status the caller already holds (saves looking it up again).
    unsigned int ThrowNext(Exceptions::SOURCE_INFO& site, unsigned int code);
    /// Adds `site` to the log and returns the status, whatever the mode.
    unsigned int EndException(Exceptions::SOURCE_INFO& site);

    /// Sets the calling thread's throw mode (0 off, else on); returns the previous mode.
    /// Callable without an object: a program or thread sets its mode once at its start.
    static unsigned int SetThrow(unsigned int on);
    static unsigned int GetThrow() noexcept;
    /// Number of threads of the process whose throw mode is on.
    static unsigned int ThrowingThreads() noexcept { return s_nThrowingThreads.load(std::memory_order_relaxed); }

    /// Whether the caller of this operation wanted exceptions.
    bool CallerThrows() const noexcept { return m_bInit && m_uSavedMode != 0; }

    /// Finds the calling thread's control block and remembers its throw mode (once; the other
    /// operations call it first).
    void Init() noexcept;
    /// Puts back the throw mode remembered by Init when the operation changed it.
    void Restore() noexcept;
    /// The calling thread's control block (made on first use for a foreign thread).
    Internals::CThreadCB* GetThreadCB() noexcept;

private:
    static unsigned int SwapMode(Internals::CThreadCB& cb, unsigned int on) noexcept;
    static std::atomic<unsigned int> s_nThrowingThreads;
    Internals::CThreadCB* m_pTCB = nullptr;
    unsigned int m_uSavedMode = 0;
    bool m_bInit = false;
    bool m_bChanged = false;
};

} // namespace Threading

namespace Exceptions {

template <class... A>
void CExceptionLog::Format(const char* message, const A&... args) {
    CErrorLog& log = ThreadErrorLog();
    if (!log.BeginMessage(&m_Site)) return;
    CExceptionBuffer buffer(log);
    try {
        Output_Streams::CFormatStream s(buffer, message);
        ((s << args), ...);
    } catch (const Output_Streams::Internals::CFormatAbort&) {
    }
}

/// Raises `code` with a message formatted from `format` and `args` at `site`. Never returns.
template <class... A>
[[noreturn]] void Raise(SOURCE_INFO& site, unsigned int code, const NATIVE_ERROR* native, const char* format,
                        const A&... args) {
    CFormatStreamCurrExc s(code, native, &site, format);
    ((s << args), ...);
    s.tryThrow();
}

/// Runs `body` as an exported boundary: a library exception leaving it gets `site` added and
/// is thrown on or returned as the status by the caller's throw mode; running out of memory
/// becomes status 0x2001000F.
template <class F>
auto Guarded(SOURCE_INFO& site, F&& body) -> decltype(body()) {
    Threading::CThrowState state;
    try {
        try {
            return body();
        } catch (const std::bad_alloc&) {
            Raise(site, 0x2001000Fu, nullptr, "Out of memory");
        }
    } catch (const CKelException& e) {
        return static_cast<decltype(body())>(state.ThrowNext(site, e.GetCode()));
    }
}

} // namespace Exceptions
} // namespace KEL

/// The area name written with each site (define before including, e.g. "Src/string").
#ifndef KEL_SOURCE_FILE
#define KEL_SOURCE_FILE __FILE__
#endif
/// The module a site belongs to; the suite's libraries define their own.
#ifndef KEL_SITE_MODULE
#define KEL_SITE_MODULE (&::KEL::KEL_MODULE_INFO_KelLib)
#endif

/// A static SOURCE_INFO for this line.
#define KEL_SITE()                                                                                             \
    ([]() -> ::KEL::Exceptions::SOURCE_INFO& {                                                                 \
        static ::KEL::Exceptions::SOURCE_INFO kelSite_{KEL_SITE_MODULE, KEL_SOURCE_FILE, __LINE__};            \
        return kelSite_;                                                                                       \
    }())

/// Raises a status with a formatted message at this line: KEL_RAISE(code, "fmt %d", value).
#define KEL_RAISE(code, ...) ::KEL::Exceptions::Raise(KEL_SITE(), (code), nullptr, __VA_ARGS__)
/// The same with the native error behind it: KEL_RAISE_NATIVE(code, GetOsError(), "fmt").
#define KEL_RAISE_NATIVE(code, native, ...)                                                                    \
    do {                                                                                                       \
        const ::KEL::Exceptions::NATIVE_ERROR kelNative_ = (native);                                           \
        ::KEL::Exceptions::Raise(KEL_SITE(), (code), &kelNative_, __VA_ARGS__);                                \
    } while (0)
