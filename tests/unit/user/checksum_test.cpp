// The checksums of the frames that the relay builds.
#include "checksum.h"

#include <gtest/gtest.h>

#include "packet_frame.h"

namespace {

using packet::bytes;
using packet::frame_of;
using packet::hex;
using packet::join;

TEST(Checksum, AddsBigEndianWords) {
    EXPECT_EQ(checksumAdd("", 0, 0), 0);
    EXPECT_EQ(checksumAdd("", 0, 0x1234), 0x1234);
    EXPECT_EQ(checksumAdd(hex("12 34").data(), 2, 0), 0x1234);
    EXPECT_EQ(checksumAdd(hex("12 34 00 01").data(), 4, 0x10), 0x1245);
    EXPECT_EQ(checksumAdd(hex("ff ff 00 01").data(), 4, 0), 0x0001) << "the carry comes back";
    EXPECT_EQ(checksumAdd(hex("ff ff ff ff").data(), 4, 0), 0xFFFF);
}

TEST(Checksum, TakesAnOddLastByteAsTheHighOne) {
    EXPECT_EQ(checksumAdd(hex("12").data(), 1, 0), 0x1200);
    EXPECT_EQ(checksumAdd(hex("12 34 56").data(), 3, 0), 0x1234 + 0x5600);
}

TEST(Checksum, FoldsAnInitialSumOf32Bits) {
    EXPECT_EQ(checksumAdd("", 0, 0x00012345), 0x2346);
    EXPECT_EQ(checksumAdd("", 0, 0xFFFFFFFF), 0xFFFF);
}

TEST(Checksum, IpChecksumCovers20BytesWhateverTheHeaderLength) {
    bytes header = hex("4f 00 01 2c 00 00 40 00 40 11 ab cd c0 00 02 01 c0 00 02 32 | ff ff");
    ipChecksum(header.data());
    bytes summed = hex("4f 00 01 2c 00 00 40 00 40 11 00 00 c0 00 02 01 c0 00 02 32");
    packet::store16(summed, 10, packet::internet_checksum(summed));
    EXPECT_BYTES(join({summed, hex("ff ff")}), header);
}

TEST(Checksum, UdpChecksumCoversPseudoHeaderHeaderAndPayload) {
    const bytes ip = hex("45 00 00 21 00 00 40 00 40 11 00 00 c0 00 02 01 c0 00 02 32");
    bytes udp = hex("00 43 00 44 00 0d ff ff");
    const bytes payload = hex("01 02 03 04 05");
    udpChecksum(udp.data(), ip.data(), payload.data());
    const bytes summed = join({hex("c0 00 02 01 c0 00 02 32 00 11 00 0d | 00 43 00 44 00 0d 00 00"), payload});
    bytes expected = hex("00 43 00 44 00 0d 00 00");
    packet::store16(expected, 6, packet::internet_checksum(summed));
    EXPECT_BYTES(expected, udp);
}

// deliberate: no substitution by 0xFFFF.
TEST(Checksum, UdpChecksumThatComputesToZeroIsSentAsZero) {
    const bytes ip = hex("45 00 00 1e 00 00 40 00 40 11 00 00 00 00 00 00 00 00 00 00");
    bytes udp = hex("00 43 00 44 00 0a 12 34");
    const unsigned rest = 0x0011 + 0x000A + 0x0043 + 0x0044 + 0x000A;
    bytes payload;
    packet::put16(payload, 0xFFFF - rest);
    udpChecksum(udp.data(), ip.data(), payload.data());
    EXPECT_BYTES(hex("00 43 00 44 00 0a 00 00"), udp);
}

}  // namespace
