// kelbase - Src/Socket/KelSocket.cpp
//
// The shared half of the message channel: the one buffer that carries input and output in
// turn, the command reader with its flag tables, numbers, strings, binary blocks and files,
// skipping, and the state checks. The client and server ends live beside this file.
#define KEL_SOURCE_FILE "Src/Socket"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Sockets.h>

#include "Socket/KelSocketInternal.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace KEL {

namespace Internals {
namespace Channel {

// Classification of the bytes below 0xC0, by byte / 8. With kSingle, bits 8..15 mark the low
// three bits that make the byte invalid.
const unsigned short kCmdFlags[24] = {
    kSingle | (0x100u << 7), // 0x00-0x07: 0x07 invalid
    kSingle | (0x100u << 0), // 0x08-0x0F: 0x08 invalid
    kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, // 0x10-0x57
    kNumber | kPayload, kNumber | kPayload, kNumber | kPayload, // 0x58, 0x60, 0x68: reserved blocks
    kNumber,                                                     // 0x70 STC_File
    kNumber | kPayload, kNumber | kPayload,                      // 0x78 block start, 0x80 continuation
    kNumber, kNumber,                                            // 0x88 request, 0x90 acknowledge
    kNumber | kPayload,                                          // 0x98 string
    kNumber, kNumber, kNumber, kNumber,                          // 0xA0 events, 0xA8 version, 0xB0, 0xB8
};

// Raw payload of the single-byte commands, by their low three bits (0x0F carries four bytes).
const unsigned char kSinglePayload[8] = {0, 0, 0, 0, 0, 0, 0, 4};

unsigned int ReadAvailable(Sockets::CSocket& socket, void* dest, size_t size, size_t& got) {
    got = 0;
    if (socket.IsClosedByPeer()) return URET_PeerClosed;
    unsigned int r;
    try {
        r = socket.Read(dest, size, &got, Sockets::RM_Normal);
    } catch (const Exceptions::CKelException& e) {
        // A socket that reports the close only once (and raises it afterwards) still ends in
        // STC_Close, whatever socket class it is.
        if (e.GetCode() != 0x20010024u) throw;
        return URET_PeerClosed;
    }
    if (r == URET_Ok && got != 0) return URET_Ok;
    if (r == URET_PeerClosed || r == URET_WouldBlock) return r;
    if (r == URET_Ok) return URET_WouldBlock;
    KEL_RAISE(r ? r : 0x2001001Fu, "Socket read failed (%d)", r);
}

} // namespace Channel
} // namespace Internals

namespace Sockets {

using namespace KEL::Internals::Channel;

namespace {

const char* CmdName(unsigned int cmd) noexcept {
    switch (cmd) {
    case CKelSocket::STC_EndAck: return "STC_EndAck";
    case CKelSocket::STC_WaitAck: return "STC_WaitAck";
    default: return "Command";
    }
}

} // namespace

CKelSocket::CKelSocket() noexcept : m_cursor(m_buffer) {}

CKelSocket::~CKelSocket() = default;

// ---- state ----------------------------------------------------------------------------------

void CKelSocket::StateError(const char* name) const {
    if (m_state & ST_Error) KEL_RAISE(0x2001002Au, "Socket already in error state (Current=%d)", m_state);
    KEL_RAISE(0x20010027u, "Current=%d, expected=%s", m_state, name);
}

void CKelSocket::OutOfSync(const char* what, unsigned int cmd, unsigned long long value) {
    // Put back first: the caller may Skip, or read the command as what it is.
    PutBack(cmd, value);
    KEL_RAISE(0x20010028u, "%s expected, %d received", what, cmd);
}

void CKelSocket::StreamFailed() {
    SetState(m_state | ST_Error);
    try {
        throw;
    } catch (const std::bad_alloc&) {
        KEL_RAISE(0x2001000Fu, "Out of memory");
    } catch (const Exceptions::CKelException&) {
        Exceptions::ThreadErrorLog().BeginMessage(&KEL_SITE());
        throw;
    }
}

void CKelSocket::BeginAttach(CSocket& socket) {
    SetState(ST_Idle);
    m_socket = &socket;
    m_peerVersion = 0;
    m_peekCmd = NO_PEEK;
    m_peekValue = 0;
    m_eventsPending = 0;
    m_blockLeft = 0;
    m_count = 0;
    m_cursor = m_buffer;
}

void CKelSocket::Detach() noexcept {
    m_socket = nullptr;
    SetState(ST_Detached);
    m_peekCmd = NO_PEEK;
    m_blockLeft = 0;
    m_count = 0;
    m_cursor = m_buffer;
}

void CKelSocket::FailAttach(CSocket& passed) noexcept {
    CSocket* victim = m_socket ? m_socket : &passed;
    try {
        victim->Abort();
    } catch (...) {
    }
    Detach();
}

unsigned int CKelSocket::Abort() {
    if (m_socket) {
        try {
            m_socket->Abort();
        } catch (...) {
        }
    }
    Detach();
    return URET_Ok;
}

CKelSocket::operator Threading::CWaitHandle() {
    if (!m_socket) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    return static_cast<Threading::CWaitHandle>(*m_socket);
}

// ---- output ---------------------------------------------------------------------------------

void CKelSocket::Flush() {
    if (m_count != 0) {
        const unsigned int r = m_socket->Write(m_buffer, static_cast<size_t>(m_count), nullptr);
        if (r != URET_Ok) KEL_RAISE(r ? r : 0x2001001Fu, "Socket write failed (%d)", r);
    }
    m_count = 0;
    m_cursor = m_buffer;
}

void CKelSocket::WriteBlock(const void* data, size_t size) {
    const unsigned char* in = static_cast<const unsigned char*>(data);
    while (size != 0) {
        if (m_count == BUFFER_SIZE) Flush();
        const size_t n = std::min(BUFFER_SIZE - static_cast<size_t>(m_count), size);
        std::memcpy(m_buffer + m_count, in, n);
        m_count += n;
        in += n;
        size -= n;
        if (size >= BUFFER_SIZE) {
            // The rest fills whole segments anyway: send the buffer (header and the first
            // bytes) and then the caller's memory as it is, instead of copying it through.
            Flush();
            const unsigned int r = m_socket->Write(in, size, nullptr);
            if (r != URET_Ok) KEL_RAISE(r ? r : 0x2001001Fu, "Socket write failed (%d)", r);
            return;
        }
    }
}

void CKelSocket::PrepareBufferForSend() {
    if (m_peekCmd != NO_PEEK)
        KEL_RAISE(0x2001002Cu, "Protocol error: unread command x%02X before sending", m_peekCmd);
    while (m_count != 0) {
        const unsigned int byte = *m_cursor++;
        --m_count;
        if (byte == STC_EventsPending)
            m_eventsPending = 1;
        else if (byte != STC_KeepAlive)
            KEL_RAISE(0x2001002Cu, "Protocol error: unread input x%02X before sending", byte);
    }
    m_count = 0;
    m_cursor = m_buffer;
}

CKelSocket& CKelSocket::PutSignedSlow(long long v) {
    try {
        CheckState(ST_Send, "ST_Send");
        WriteINT(v);
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

CKelSocket& CKelSocket::PutUnsignedSlow(unsigned long long v) {
    try {
        CheckState(ST_Send, "ST_Send");
        WriteUINT(v);
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

CKelSocket& CKelSocket::PutStringSlow(const char* text, size_t length) {
    try {
        CheckState(ST_Send, "ST_Send");
        if (length == 0) {
            WriteByte(STC_EmptyString);
        } else {
            WriteCmd(STC_String, length);
            WriteBlock(text, length);
        }
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

CKelSocket& CKelSocket::Write(const void* data, size_t size, unsigned int continued) {
    try {
        CheckState(ST_Send, "ST_Send");
        WriteCmd(continued ? STC_BinBlockCont : STC_BinBlockStart, size);
        WriteBlock(data, size);
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

CKelSocket& CKelSocket::operator<<(FILE* file) {
    try {
        CheckState(ST_Send, "ST_Send");
        if (!file) {
            errno = EINVAL;
            KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "No file to send");
        }
        long size = -1;
        if (std::fseek(file, 0, SEEK_END) == 0) size = std::ftell(file);
        if (size < 0) KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "Can't find the size of the file");
        std::rewind(file);
        WriteCmd(STC_File, static_cast<unsigned long long>(size));
        unsigned char piece[FILE_PIECE];
        unsigned long long left = static_cast<unsigned long long>(size);
        while (left != 0) {
            const size_t n = static_cast<size_t>(std::min<unsigned long long>(left, FILE_PIECE));
            errno = 0;
            const size_t got = std::fread(piece, 1, n, file);
            if (got != n)
                KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "File read short: %d of %d bytes", got, n);
            WriteCmd(STC_BinBlockStart, n);
            WriteBlock(piece, n);
            left -= n;
        }
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

// ---- input ----------------------------------------------------------------------------------

namespace {

// One partial receive into `dest`, waiting (with the socket's time-out) while nothing is there.
// 1 with got > 0, or 134 when the peer has closed.
unsigned int Receive(CSocket& socket, void* dest, size_t size, size_t& got) {
    for (;;) {
        const unsigned int r = ReadAvailable(socket, dest, size, got);
        if (r != URET_WouldBlock) return r;
        socket.Wait();
    }
}

} // namespace

unsigned int CKelSocket::ReadData() {
    m_cursor = m_buffer;
    m_count = 0;
    size_t got = 0;
    if (Receive(*m_socket, m_buffer, BUFFER_SIZE, got) == URET_PeerClosed) {
        // Readers meet a clean "closed" command instead of an error.
        m_buffer[0] = STC_Close;
        m_count = 1;
        return URET_PeerClosed;
    }
    m_count = got;
    return URET_Ok;
}

void CKelSocket::ReadBlock(void* dest, size_t size) {
    unsigned char* out = static_cast<unsigned char*>(dest);
    while (size != 0) {
        if (m_count == 0) {
            if (size >= BUFFER_SIZE) {
                // Large payloads go straight into the caller's memory.
                size_t got = 0;
                if (Receive(*m_socket, out, size, got) == URET_PeerClosed) {
                    ReadData();
                    KEL_RAISE(0x2001002Fu, "%d Bytes missing", size);
                }
                out += got;
                size -= got;
                continue;
            }
            if (ReadData() == URET_PeerClosed) KEL_RAISE(0x2001002Fu, "%d Bytes missing", size);
        }
        const size_t n = std::min(static_cast<size_t>(m_count), size);
        std::memcpy(out, m_cursor, n);
        m_cursor += n;
        m_count -= n;
        out += n;
        size -= n;
    }
}

void CKelSocket::SkipBytes(unsigned long long size) {
    while (size != 0) {
        if (m_count == 0 && ReadData() == URET_PeerClosed) KEL_RAISE(0x2001002Fu, "%d Bytes missing", size);
        const unsigned long long n = std::min(m_count, size);
        m_cursor += n;
        m_count -= n;
        size -= n;
    }
}

unsigned long long CKelSocket::ReadInteger(unsigned int bytes) {
    unsigned long long value = 0;
    if (m_count >= bytes) {
        for (unsigned int i = 0; i < bytes; ++i) value = value << 8 | m_cursor[i];
        m_cursor += bytes;
        m_count -= bytes;
        return value;
    }
    unsigned char raw[8];
    ReadBlock(raw, bytes);
    for (unsigned int i = 0; i < bytes; ++i) value = value << 8 | raw[i];
    return value;
}

unsigned int CKelSocket::ReadCmd(unsigned long long& value) {
    if (m_peekCmd != NO_PEEK) {
        const unsigned int cmd = m_peekCmd;
        value = m_peekValue;
        m_peekCmd = NO_PEEK;
        return cmd;
    }
    for (;;) {
        if (m_count == 0) ReadData();
        const unsigned int byte = *m_cursor++;
        --m_count;
        if (byte >= 0xC0) {
            value = byte & 0x1Fu;
            return byte & 0xE0u;
        }
        const unsigned int flags = kCmdFlags[byte >> 3];
        if (flags & kNumber) {
            value = ReadInteger((byte & 7u) + 1);
            return byte & 0xF8u;
        }
        if ((flags & kInvalid) || (flags & (0x100u << (byte & 7u))))
            KEL_RAISE(0x20010026u, "CKelSocket, Cmd=x%08X, Line=%d", byte, __LINE__);
        if (byte == STC_EventsPending) {
            m_eventsPending = 1;
            continue;
        }
        if (byte == STC_KeepAlive) continue;
        value = 0;
        return byte;
    }
}

unsigned int CKelSocket::PeekCmd(unsigned long long& value) {
    if (m_peekCmd == NO_PEEK) {
        unsigned long long v = 0;
        const unsigned int cmd = ReadCmd(v);
        PutBack(cmd, v);
    }
    value = m_peekValue;
    return m_peekCmd;
}

void CKelSocket::Skip(unsigned int cmd) {
    if (m_state == ST_ReadBlock && m_blockLeft != 0) SkipBytes(m_blockLeft);
    m_blockLeft = 0;
    for (;;) {
        unsigned long long value = 0;
        const unsigned int c = ReadCmd(value);
        if (c == cmd) {
            PutBack(c, value);
            return;
        }
        // The connection ended: nothing more will come.
        if (c == STC_Close) OutOfSync(CmdName(cmd), c, value);
        if (c < 0xC0) {
            const unsigned int flags = kCmdFlags[c >> 3];
            if (flags & kSingle)
                SkipBytes(kSinglePayload[c & 7u]);
            else if (flags & kPayload)
                SkipBytes(value);
        }
    }
}

long long CKelSocket::ReadINT(unsigned int size) {
    unsigned long long value = 0;
    const unsigned int cmd = ReadCmd(value);
    const unsigned long long max = size >= 8 ? 0x7FFFFFFFFFFFFFFFull : (1ull << (8 * size - 1)) - 1;
    switch (cmd) {
    case STC_SmallUInt: return static_cast<long long>(value);
    case STC_SmallNegInt: return -static_cast<long long>(value);
    case STC_UInt:
        if (value > max) KEL_RAISE(0x20010029u, "Integer out of range: %u for %d bytes", value, size);
        return static_cast<long long>(value);
    case STC_NegInt:
        if (value > max + 1) KEL_RAISE(0x20010029u, "Integer out of range: -%u for %d bytes", value, size);
        return static_cast<long long>(0ull - value);
    default: OutOfSync("Integer-STC", cmd, value);
    }
}

unsigned long long CKelSocket::ReadUINT(unsigned int size) {
    unsigned long long value = 0;
    const unsigned int cmd = ReadCmd(value);
    const unsigned long long smax = size >= 8 ? 0x7FFFFFFFFFFFFFFFull : (1ull << (8 * size - 1)) - 1;
    const unsigned long long umax = size >= 8 ? ~0ull : (1ull << (8 * size)) - 1;
    switch (cmd) {
    case STC_SmallUInt: return value;
    case STC_SmallNegInt: return 0ull - value;
    case STC_UInt:
        if (value > umax) KEL_RAISE(0x20010029u, "Integer out of range: %u for %d bytes", value, size);
        return value;
    case STC_NegInt:
        if (value > smax + 1) KEL_RAISE(0x20010029u, "Integer out of range: -%u for %d bytes", value, size);
        return 0ull - value;
    default: OutOfSync("Integer-STC", cmd, value);
    }
}

unsigned long long CKelSocket::GetInteger(unsigned int size, bool isSigned) {
    try {
        CheckState(ST_Read, "ST_Read");
        return isSigned ? static_cast<unsigned long long>(ReadINT(size)) : ReadUINT(size);
    } catch (...) {
        StreamFailed();
    }
}

namespace {

// Appends a string's bytes as they arrive, so a bogus length costs no more memory than the
// bytes the peer really sent.
template <class Reader>
void ReadText(std::string& text, unsigned long long length, Reader&& readBlock) {
    text.clear();
    while (length != 0) {
        const size_t n = static_cast<size_t>(std::min<unsigned long long>(length, 0x10000));
        const size_t old = text.size();
        text.resize(old + n);
        readBlock(&text[old], n);
        length -= n;
    }
}

} // namespace

CKelSocket& CKelSocket::operator>>(std::string& text) {
    try {
        CheckState(ST_Read, "ST_Read");
        unsigned long long value = 0;
        const unsigned int cmd = ReadCmd(value);
        if (cmd == STC_EmptyString) {
            text.clear();
        } else if (cmd == STC_String) {
            ReadText(text, value, [this](void* p, size_t n) { ReadBlock(p, n); });
        } else {
            OutOfSync("STC_(Empty)String", cmd, value);
        }
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

CKelSocket& CKelSocket::operator>>(Strings::CStringVar& text) {
    std::string s;
    *this >> s;
    try {
        text = s;
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

CKelSocket& CKelSocket::operator>>(FILE* file) {
    try {
        CheckState(ST_Read, "ST_Read");
        unsigned long long value = 0;
        unsigned int cmd = ReadCmd(value);
        if (cmd != STC_File) OutOfSync("STC_File", cmd, value);
        if (!file) {
            errno = EINVAL;
            KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "No file to write to");
        }
        unsigned long long missing = value;
        unsigned char piece[FILE_PIECE];
        while (missing != 0) {
            cmd = ReadCmd(value);
            if (cmd != STC_BinBlockStart && cmd != STC_BinBlockCont) {
                // Put back, so that Skip still finds the end of the answer.
                PutBack(cmd, value);
                KEL_RAISE(0x2001002Fu, "%d Bytes missing", missing);
            }
            missing -= std::min(missing, value);
            while (value != 0) {
                const size_t n = static_cast<size_t>(std::min<unsigned long long>(value, FILE_PIECE));
                ReadBlock(piece, n);
                errno = 0;
                if (std::fwrite(piece, 1, n, file) != n)
                    KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "File write short (%d bytes)", n);
                value -= n;
            }
        }
    } catch (...) {
        StreamFailed();
    }
    return *this;
}

unsigned int CKelSocket::Read(void* buffer, size_t size, size_t& got) {
    got = 0;
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        try {
            unsigned char* out = static_cast<unsigned char*>(buffer);
            unsigned long long value = 0;
            if (m_state == ST_Read) {
                const unsigned int cmd = ReadCmd(value);
                if (cmd != STC_BinBlockStart) OutOfSync("STC_BinBlockStart", cmd, value);
                m_blockLeft = value;
                if (value == 0) return URET_Ok;
                SetState(ST_ReadBlock);
            } else if (m_state != ST_ReadBlock) {
                StateError("ST_Read/ST_ReadBlock");
            }
            for (;;) {
                if (m_blockLeft == 0) {
                    if (PeekCmd(value) != STC_BinBlockCont) {
                        SetState(ST_Read);
                        return URET_Ok;
                    }
                    ReadCmd(value);
                    m_blockLeft = value;
                    continue;
                }
                if (got == size) return URET_MoreData;
                const size_t n = static_cast<size_t>(std::min<unsigned long long>(m_blockLeft, size - got));
                ReadBlock(out + got, n);
                got += n;
                m_blockLeft -= n;
            }
        } catch (...) {
            SetState(m_state | ST_Error);
            throw;
        }
    });
}

} // namespace Sockets
} // namespace KEL
