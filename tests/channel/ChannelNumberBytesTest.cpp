// kelbase - tests/channel/ChannelNumberBytesTest.cpp
//
// Numbers at every byte-count boundary, on both sides of it, unsigned, positive and negative:
// the exact bytes each one takes on the wire, and that the bytes a longer number leaves in the
// buffer beyond its own are overwritten by the next value.
#include "ChannelTestUtil.h"

#include <climits>
#include <string>

using namespace kel_channel_test;
using KEL::Sockets::CKelSocket;

TEST_F(RawServerTest, UnsignedNumbersTakeOneMoreByteExactlyPastEachBoundary) {
    const Bytes wire = Request(
        7, {0x90, 0x00, 0x02},
        [](CKelSocket& c) {
            c << 0xFFull << 0x100ull << 0xFFFFull << 0x10000ull << 0xFFFFFFull << 0x1000000ull << 0xFFFFFFFFull
              << 0x100000000ull << 0xFFFFFFFFFFull << (1ull << 40) << 0x0102030405060708ull << ULLONG_MAX;
        },
        2 + 2 + 3 + 3 + 4 + 4 + 5 + 5 + 6 + 6 + 7 + 9 + 9);
    const Bytes expected = {0x88, 0x07,                                           // request 7
                            0xB0, 0xFF,                                           // 0xFF
                            0xB1, 0x01, 0x00,                                     // 0x100
                            0xB1, 0xFF, 0xFF,                                     // 0xFFFF
                            0xB2, 0x01, 0x00, 0x00,                               // 0x10000
                            0xB2, 0xFF, 0xFF, 0xFF,                               // 0xFFFFFF
                            0xB3, 0x01, 0x00, 0x00, 0x00,                         // 0x1000000
                            0xB3, 0xFF, 0xFF, 0xFF, 0xFF,                         // 0xFFFFFFFF
                            0xB4, 0x01, 0x00, 0x00, 0x00, 0x00,                   // 2^32
                            0xB4, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,                   // 2^40 - 1
                            0xB5, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00,             // 2^40
                            0xB7, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, // eight bytes
                            0xB7, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(wire, expected);
    EXPECT_EQ(m_Pair.Recv(1), Bytes{0x01});
}

TEST_F(RawServerTest, NegativeNumbersCarryTheirMagnitudeInTheSameForms) {
    const Bytes wire = Request(
        7, {0x90, 0x00, 0x02},
        [](CKelSocket& c) {
            c << -255LL << -256LL << -65536LL << -70000LL << -0xFFFFFFLL << -0x1000000LL << -0x100000000LL
              << -5000000000LL << LLONG_MIN + 1;
        },
        2 + 2 + 3 + 4 + 4 + 4 + 5 + 6 + 6 + 9);
    const Bytes expected = {0x88, 0x07,                               // request 7
                            0xB8, 0xFF,                               // -255
                            0xB9, 0x01, 0x00,                         // -256
                            0xBA, 0x01, 0x00, 0x00,                   // -65536
                            0xBA, 0x01, 0x11, 0x70,                   // -70000
                            0xBA, 0xFF, 0xFF, 0xFF,                   // -(2^24 - 1)
                            0xBB, 0x01, 0x00, 0x00, 0x00,             // -2^24
                            0xBC, 0x01, 0x00, 0x00, 0x00, 0x00,       // -2^32
                            0xBC, 0x01, 0x2A, 0x05, 0xF2, 0x00,       // -5000000000
                            0xBF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(wire, expected);
    EXPECT_EQ(m_Pair.Recv(1), Bytes{0x01});
}

TEST_F(RawServerTest, StringLengthsPastOneByteTakeTheLongerHeader) {
    const std::string text(300, 'q');
    const Bytes wire = Request(
        7, {0x90, 0x00, 0x02}, [&](CKelSocket& c) { c << text << "z"; }, 2 + 3 + 300 + 3);
    Bytes expected = {0x88, 0x07, 0x99, 0x01, 0x2C};
    expected.insert(expected.end(), text.begin(), text.end());
    expected.insert(expected.end(), {0x98, 0x01, 'z'});
    EXPECT_EQ(wire, expected);
    EXPECT_EQ(m_Pair.Recv(1), Bytes{0x01});
}
