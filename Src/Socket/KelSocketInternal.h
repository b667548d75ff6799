// kelbase - Src/Socket/KelSocketInternal.h
//
// The message channel's command classification, shared by the channel's sources and its
// tests: flags per group of eight command bytes below 0xC0 and the raw payload length of the
// single-byte commands.
#pragma once

#include <cstddef>

namespace KEL {
namespace Sockets {
class CSocket;
}
namespace Internals {
namespace Channel {

enum CMD_FLAGS : unsigned short {
    kNumber = 1,  ///< a number of (low bits + 1) bytes follows
    kSingle = 2,  ///< a single byte; raw payload from kSinglePayload; bits 8..15 mark invalid low bits
    kPayload = 4, ///< the number is the length of the raw payload that follows
    kInvalid = 8, ///< no command
};

/// Indexed by byte / 8 for the bytes 0x00..0xBF.
extern const unsigned short kCmdFlags[24];
/// Raw payload of a single-byte command, by its low three bits.
extern const unsigned char kSinglePayload[8];

/// One partial receive without waiting: 1 with got > 0, 131 when nothing is there, 134 when
/// the peer has closed (also for a socket that raises the close after reporting it once).
unsigned int ReadAvailable(Sockets::CSocket& socket, void* dest, size_t size, size_t& got);

} // namespace Channel
} // namespace Internals
} // namespace KEL
