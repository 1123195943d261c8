// SPDX-License-Identifier: Apache-2.0
// The checksums of the frames that the relay builds.
#include "checksum.h"

#include <gtest/gtest.h>

#include <random>

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

TEST(Checksum, FoldsUntilNothingIsLeftAbove16Bits) {
    // As the machine's words, in either byte order, these carry once more after all others.
    EXPECT_EQ(checksumAdd(hex("ff ff ff ff 10 00 f0 ff").data(), 8, 0), 0x0100);
    EXPECT_EQ(checksumAdd(hex("ff f0 00 10 ff ff ff ff").data(), 8, 0), 0x0001);
}

TEST(Checksum, TakesAnOddLastByteAsTheHighOne) {
    EXPECT_EQ(checksumAdd(hex("12").data(), 1, 0), 0x1200);
    EXPECT_EQ(checksumAdd(hex("12 34 56").data(), 3, 0), 0x1234 + 0x5600);
}

TEST(Checksum, FoldsAnInitialSumOf32Bits) {
    EXPECT_EQ(checksumAdd("", 0, 0x00012345), 0x2346);
    EXPECT_EQ(checksumAdd("", 0, 0xFFFFFFFF), 0xFFFF);
}

// The sum as it is defined: word by word, high byte first.
std::uint16_t word_by_word(const bytes &data, std::uint32_t initial) {
    std::uint64_t sum = initial;
    for (std::size_t at = 0; at < data.size(); ++at) sum += at % 2 == 0 ? data[at] * 256U : data[at];
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

TEST(Checksum, SumsAnyBytesAsTheirWordsOneByOne) {
    std::mt19937 random(1071);
    for (std::size_t size = 0; size <= 700; ++size) {
        for (const unsigned spread : {1U, 2U, 256U}) {  // zeros, zeros and ones, any byte
            bytes data(size);
            for (std::uint8_t &byte : data) byte = static_cast<std::uint8_t>(random() % spread);
            for (const std::uint32_t initial : {0U, 1U, 0xFFFFU, 0x10000U, 0xFFFFFFFFU})
                ASSERT_EQ(checksumAdd(data.data(), size, initial), word_by_word(data, initial)) << size;
        }
        const bytes ones(size, 0xFF);
        ASSERT_EQ(checksumAdd(ones.data(), size, 0), word_by_word(ones, 0)) << size;
    }
}

TEST(Checksum, SumsFromAnyAddress) {
    bytes data(64 + 8);
    for (std::size_t at = 0; at < data.size(); ++at) data[at] = static_cast<std::uint8_t>(at * 37 + 11);
    for (std::size_t from = 0; from < 8; ++from)
        EXPECT_EQ(checksumAdd(data.data() + from, 61, 0), word_by_word(packet::part_of(data, from, 61), 0)) << from;
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
