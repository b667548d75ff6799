// kelbase - Src/Socket/KelSocketServer.cpp
//
// The serving end of the message channel: the handshake that accepts or refuses a client,
// the request cycle, keep-alives and the batched events notice.
#define KEL_SOURCE_FILE "Src/Socket"
#include <kel/Exceptions.h>
#include <kel/Sockets.h>

#include "Socket/KelSocketInternal.h"

namespace KEL {
namespace Sockets {

// A failed operation sets the error flag over the state it happened in.
template <class F>
unsigned int CKelSocketServer::Op(Exceptions::SOURCE_INFO& site, F&& body) {
    return Exceptions::Guarded(site, [&]() -> unsigned int {
        try {
            return body();
        } catch (...) {
            SetState(m_state | ST_Error);
            throw;
        }
    });
}

unsigned int CKelSocketServer::Attach(CSocket& socket, unsigned int applicationId) {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_socket) {
            if (&socket != m_socket) socket.Abort();
            KEL_RAISE(0x2001002Bu, "Socket already attached");
        }
        try {
            BeginAttach(socket);
            m_events = 0;
            unsigned char id[4];
            ReadBlock(id, sizeof id);
            const unsigned int peerId = static_cast<unsigned int>(id[0]) << 24 | static_cast<unsigned int>(id[1]) << 16 |
                                        static_cast<unsigned int>(id[2]) << 8 | id[3];
            unsigned long long value = 0;
            const unsigned int cmd = ReadCmd(value);
            if (cmd != STC_Version) KEL_RAISE(0x2001002Cu, "Protocol error: Cmd=x%02X where STC_Version was expected", cmd);
            // The client waits for the answer: nothing but notices may be left unread.
            PrepareBufferForSend();
            if ((value & 0xFFu) == 0 && peerId == applicationId) {
                m_peerVersion = static_cast<unsigned int>(value >> 8) & 0xFFu;
                WriteCmd(STC_Version, PROTOCOL_VERSION);
                Flush();
                return URET_Ok;
            }
            WriteCmd(STC_Version, 0x010100u);
            Flush();
            // Let the client read the refusal and hang up first.
            while (m_socket->IsConnected()) {
                try {
                    size_t got = 0;
                    const unsigned int r = m_socket->Read(m_buffer, BUFFER_SIZE, &got, RM_Normal);
                    if (r == URET_PeerClosed) break;
                    if (r == URET_WouldBlock && m_socket->Wait(m_socket->GetTimeout()) == URET_Timeout) break;
                } catch (const Exceptions::CKelException&) {
                    break;
                }
            }
            KEL_RAISE(0x2001002Du, "Connection rejected (application id x%08X, version word x%X)", peerId, value);
        } catch (...) {
            FailAttach(socket);
            throw;
        }
    });
}

unsigned int CKelSocketServer::TakeRequest(unsigned int& requestCode) {
    unsigned long long value = 0;
    const unsigned int cmd = ReadCmd(value);
    switch (cmd) {
    case STC_Close: SetState(ST_Closed); return URET_Closed;
    case STC_GetEvents:
        PrepareBufferForSend();
        WriteCmd(STC_Events, m_events);
        Flush();
        m_events = 0;
        return URET_Timeout;
    case STC_Request:
        requestCode = static_cast<unsigned int>(value);
        SetState(ST_Read);
        return URET_Ok;
    default: KEL_RAISE(0x2001002Cu, "Protocol error: Cmd=x%02X where a request was expected", cmd);
    }
}

unsigned int CKelSocketServer::WaitForRequest(unsigned int& requestCode) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        // An idle server has answered everything it read: the client's next request usually
        // is not there yet, so wait before the first receive rather than after a failed one.
        if (!InputBuffered() && !m_socket->IsClosedByPeer()) m_socket->Wait();
        return TakeRequest(requestCode);
    });
}

unsigned int CKelSocketServer::CheckRequest(unsigned int& requestCode) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        if (m_socket->IsSecure()) m_socket->CheckNegotiation();
        if (!InputBuffered()) {
            if (!m_socket->CanRead()) return URET_WouldBlock;
            // The ready bit may be older than the last read: look without blocking.
            size_t got = 0;
            const unsigned int r = Internals::Channel::ReadAvailable(*m_socket, m_buffer, BUFFER_SIZE, got);
            if (r == URET_WouldBlock) return URET_WouldBlock;
            m_cursor = m_buffer;
            if (r == URET_PeerClosed) {
                m_buffer[0] = STC_Close;
                m_count = 1;
            } else {
                m_count = got;
            }
        }
        return TakeRequest(requestCode);
    });
}

unsigned int CKelSocketServer::SendAck(unsigned int ackCode) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Read, "ST_Read");
        unsigned long long value = 0;
        const unsigned int cmd = ReadCmd(value);
        if (cmd != STC_WaitAck) OutOfSync("STC_WaitAck", cmd, value);
        PrepareBufferForSend();
        // Not flushed: the acknowledge leaves with the answer.
        WriteCmd(STC_Ack, ackCode);
        SetState(ST_Send);
        return URET_Ok;
    });
}

unsigned int CKelSocketServer::EndAck() {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Send, "ST_Send");
        WriteByte(STC_EndAck);
        Flush();
        SetState(ST_Idle);
        return URET_Ok;
    });
}

unsigned int CKelSocketServer::SendKeepAlive() {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        PrepareBufferForSend();
        WriteByte(STC_KeepAlive);
        Flush();
        return URET_Ok;
    });
}

unsigned int CKelSocketServer::SetEvents(unsigned long long events) {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        CheckState(ST_Idle, "ST_Idle");
        // One notice per batch: the client fetches the accumulated mask.
        if (m_events == 0) {
            PrepareBufferForSend();
            WriteByte(STC_EventsPending);
            Flush();
        }
        m_events |= events;
        return URET_Ok;
    });
}

unsigned int CKelSocketServer::Skip() {
    return Op(KEL_SITE(), [&]() -> unsigned int {
        SetState(m_state & ~static_cast<unsigned int>(ST_Error));
        if (m_state != ST_Read && m_state != ST_ReadBlock) StateError("ST_Read/ST_ReadBlock");
        CKelSocket::Skip(STC_WaitAck);
        SetState(ST_Read);
        return URET_Ok;
    });
}

unsigned int CKelSocketServer::Close() {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (!m_socket) KEL_RAISE(0x2001001Eu, "Socket is not connected");
        try {
            m_socket->Shutdown(SM_Send);
        } catch (const Exceptions::CKelException&) {
            // The client may have gone already; closing goes on.
        }
        m_socket->Close();
        Detach();
        return URET_Ok;
    });
}

} // namespace Sockets
} // namespace KEL
