// kelbase - Src/Socket/KelSocketClient.cpp
//
// The requesting end of the message channel: the handshake that offers the application
// identifier and version, the request cycle, event notices and the goodbye on Close.
#define KEL_SOURCE_FILE "Src/Socket"
#include <kel/Exceptions.h>
#include <kel/Sockets.h>

#include "Socket/KelSocketInternal.h"

namespace KEL {
namespace Sockets {

// A failed operation leaves the client flagged at exactly ST_Idle | ST_Error.
template <class F>
unsigned int CKelSocketClient::Op(Exceptions::SOURCE_INFO& site, F&& body) {
    return Exceptions::Guarded(site, [&]() -> unsigned int {
        try {
            return body();
        } catch (...) {
            SetState(ST_Idle | ST_Error);
            throw;
        }
    });
}

// The answer to what was just sent cannot be there yet: wait for the socket first instead of
// trying a receive that would block (the wait ends at once when it is there after all).
void CKelSocketClient::AwaitAnswer() {
    if (!InputBuffered() && !m_socket->IsClosedByPeer()) m_socket->Wait();
}

unsigned int CKelSocketClient::Attach(CSocket& socket, unsigned int applicationId) {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_socket) {
            if (&socket != m_socket) socket.Abort();
            KEL_RAISE(0x2001002Bu, "Socket already attached");
        }
        try {
            BeginAttach(socket);
            const unsigned char id[4] = {
                static_cast<unsigned char>(applicationId >> 24), static_cast<unsigned char>(applicationId >> 16),
                static_cast<unsigned char>(applicationId >> 8), static_cast<unsigned char>(applicationId)};
            WriteBlock(id, sizeof id);
            WriteCmd(STC_Version, PROTOCOL_VERSION);
            Flush();
            unsigned long long value = 0;
            const unsigned int cmd = ReadCmd(value);
            if (cmd != STC_Version) KEL_RAISE(0x2001002Cu, "Protocol error: Cmd=x%02X where STC_Version was expected", cmd);
            if (value & 0x00FF0000u) KEL_RAISE(0x2001002Eu, "Connection refused (version word x%X)", value);
            m_peerVersion = static_cast<unsigned int>(value >> 8) & 0xFFu;
            m_eventsPending = 0;
            return URET_Ok;
        } catch (...) {
            FailAttach(socket);
            throw;
        }
    });
}

unsigned int CKelSocketClient::StartRequest(unsigned int requestCode) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        PrepareBufferForSend();
        WriteCmd(STC_Request, requestCode);
        SetState(ST_Send);
        return URET_Ok;
    });
}

unsigned int CKelSocketClient::WaitForAck(unsigned int& ackCode) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Send, "ST_Send");
        WriteByte(STC_WaitAck);
        Flush();
        SetState(ST_Read);
        AwaitAnswer();
        unsigned long long value = 0;
        const unsigned int cmd = ReadCmd(value);
        if (cmd != STC_Ack) KEL_RAISE(0x2001002Cu, "Protocol error: Cmd=x%02X where STC_Ack was expected", cmd);
        ackCode = static_cast<unsigned int>(value);
        return URET_Ok;
    });
}

unsigned int CKelSocketClient::EndRequest() {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Read, "ST_Read");
        unsigned long long value = 0;
        const unsigned int cmd = ReadCmd(value);
        if (cmd != STC_EndAck) OutOfSync("STC_EndAck", cmd, value);
        SetState(ST_Idle);
        return URET_Ok;
    });
}

unsigned int CKelSocketClient::Skip() {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        SetState(m_state & ~static_cast<unsigned int>(ST_Error));
        if (m_state != ST_Read && m_state != ST_ReadBlock) StateError("ST_Read/ST_ReadBlock");
        CKelSocket::Skip(STC_EndAck);
        SetState(ST_Read);
        return URET_Ok;
    });
}

unsigned int CKelSocketClient::CanRead() {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        return m_eventsPending || InputBuffered() ? URET_Ok : URET_WouldBlock;
    });
}

unsigned int CKelSocketClient::Wait(unsigned int timeoutMs) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        if (m_eventsPending || InputBuffered()) return URET_Ok;
        return m_socket->Wait(timeoutMs);
    });
}

unsigned int CKelSocketClient::GetEvents(unsigned long long& events) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        events = 0;
        // Take in whatever has arrived without blocking: notices and keep-alives only.
        PrepareBufferForSend();
        for (;;) {
            size_t got = 0;
            if (Internals::Channel::ReadAvailable(*m_socket, m_buffer, BUFFER_SIZE, got) != URET_Ok) break;
            m_count = got;
            m_cursor = m_buffer;
            PrepareBufferForSend();
        }
        if (!m_eventsPending) return URET_Ok;
        WriteByte(STC_GetEvents);
        Flush();
        AwaitAnswer();
        unsigned long long value = 0;
        const unsigned int cmd = ReadCmd(value);
        if (cmd != STC_Events) KEL_RAISE(0x2001002Cu, "Protocol error: Cmd=x%02X where STC_Events was expected", cmd);
        events = value;
        m_eventsPending = 0;
        return URET_Ok;
    });
}

unsigned int CKelSocketClient::Close() {
    if (!m_socket) {
        SetState(ST_Detached);
        return URET_Ok;
    }
    try {
        // An unfinished request is dropped, not half sent.
        if ((m_state & ~static_cast<unsigned int>(ST_Error)) == ST_Send) {
            m_count = 0;
            m_cursor = m_buffer;
        }
        PrepareBufferForSend();
        WriteByte(STC_Close);
        Flush();
    } catch (...) {
        m_count = 0;
        m_cursor = m_buffer;
    }
    try {
        m_socket->Shutdown(SM_Send);
    } catch (...) {
    }
    try {
        // The server answers the goodbye by closing; wait for that (whatever else comes).
        m_peekCmd = NO_PEEK;
        unsigned long long value = 0;
        ReadCmd(value);
    } catch (...) {
    }
    try {
        m_socket->Close();
    } catch (...) {
    }
    Detach();
    return URET_Ok;
}

} // namespace Sockets
} // namespace KEL
