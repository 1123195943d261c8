// SPDX-License-Identifier: Apache-2.0
// The checks a captured frame goes through, one by one, and the message layout that comes out. Every frame is decoded
// from a buffer of exactly its size, so that a byte read behind it is caught by the sanitizers.

#include "channel/channel_frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>

#include "channel_frames.h"

namespace ravo::platform {

static void PrintTo(frame_result result, std::ostream *out) {
    static constexpr const char *names[] = {
        "ok", "truncated", "fragment", "bad IP checksum", "bad UDP checksum", "unknown VLAN", "not ours"};
    *out << names[static_cast<int>(result)];
}

}  // namespace ravo::platform

namespace {

using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::frame_of;
using channel_frames::hex;
using channel_frames::message_of;
using channel_frames::octets;
using ravo::platform::channel_frame_aux;
using ravo::platform::channel_frame_copy;
using ravo::platform::channel_frame_decode;
using ravo::platform::dhcp_frame;
using ravo::platform::frame_aux;
using ravo::platform::frame_result;

struct outcome {
    frame_result result;
    octets delivery;
    bool tagged = false;
    unsigned vid = 0;
};

outcome decode(const octets &frame, const frame_aux &aux = {}) {
    const auto exact = std::make_unique<std::uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), exact.get());
    dhcp_frame parts;
    outcome seen{.result = channel_frame_decode({exact.get(), frame.size()}, aux, &parts), .delivery = {}};
    if (seen.result != frame_result::ok) return seen;
    seen.tagged = parts.tagged;
    seen.vid = parts.vid;
    seen.delivery.resize(parts.ip_part.size() + parts.udp.size());
    EXPECT_EQ(channel_frame_copy(parts, seen.delivery.data(), seen.delivery.size()), seen.delivery.size());
    return seen;
}

outcome decode(const frame_fields &fields, const frame_aux &aux = {}) {
    return decode(frame_of(fields), aux);
}

void expect_delivered(const frame_fields &fields, const frame_aux &aux = {}) {
    const outcome seen = decode(fields, aux);
    EXPECT_EQ(seen.result, frame_result::ok);
    EXPECT_EQ(hex(seen.delivery), hex(delivery_of(fields)));
}

TEST(ChannelFrame, DeliversIpPartUdpHeaderAndMessage) {
    const frame_fields fields{.source_ip = 0x0A000001, .destination_ip = 0xC0000201, .message = {0xAA, 0xBB}};
    const outcome seen = decode(fields);
    ASSERT_EQ(seen.result, frame_result::ok);
    EXPECT_EQ(hex(seen.delivery),
              "12 34 40 00 "  // identification, flags
              "40 11 5c 99 "  // time to live, protocol, checksum
              "0a 00 00 01 "  // source
              "c0 00 02 01 "  // destination
              "00 44 00 43 "  // ports
              "00 0a 88 95 "  // length, checksum
              "aa bb ");
    EXPECT_FALSE(seen.tagged);
}

TEST(ChannelFrame, DeliversMessagesOfEveryLength) {
    for (std::size_t length = 0; length <= 1472; ++length) {
        SCOPED_TRACE(length);
        expect_delivered({.message = message_of(length)});
    }
    expect_delivered({.message = message_of(65535 - 28)});
}

TEST(ChannelFrame, SkipsIpOptionsOfEveryLength) {
    for (std::size_t length = 0; length <= 40; length += 4) {
        SCOPED_TRACE(length);
        expect_delivered({.ip_options = octets(length, 0x01)});
    }
}

TEST(ChannelFrame, CutsEthernetPadding) {
    for (const std::size_t padding : {1U, 2U, 18U, 46U, 1000U}) {
        SCOPED_TRACE(padding);
        expect_delivered({.message = message_of(9), .padding = padding});
    }
}

TEST(ChannelFrame, CutsWhatStandsBehindTheDatagramInsideThePacket) {
    frame_fields fields{.message = message_of(20)};
    const octets expected = delivery_of(fields);
    fields.total_length = 20 + 8 + 20 + 5;
    fields.padding = 5;
    const outcome seen = decode(fields);
    EXPECT_EQ(seen.result, frame_result::ok);
    const octets datagram(seen.delivery.begin() + 16, seen.delivery.end());
    EXPECT_EQ(hex(datagram), hex(octets(expected.begin() + 16, expected.end())));
}

// Whatever is missing at the end, and wherever the cut falls, the frame is dropped and no byte behind it is read.
TEST(ChannelFrame, TruncatedAtEveryLengthIsDropped) {
    for (const frame_fields &fields : {frame_fields{}, frame_fields{.tags = {0x81000064}},
                                       frame_fields{.ip_options = octets(12, 0x01), .message = message_of(61)}}) {
        const octets whole = frame_of(fields);
        for (std::size_t length = 0; length < whole.size(); ++length) {
            SCOPED_TRACE(length);
            EXPECT_EQ(decode(octets(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length))).result,
                      frame_result::truncated);
        }
        EXPECT_EQ(decode(whole).result, frame_result::ok);
    }
}

TEST(ChannelFrame, ClaimsOfEveryTotalLength) {
    const frame_fields good{.message = message_of(100)};
    for (unsigned claimed = 0; claimed <= 65535; ++claimed) {
        frame_fields fields = good;
        fields.total_length = claimed;
        const frame_result expected = claimed == 128 ? frame_result::ok : frame_result::truncated;
        ASSERT_EQ(decode(fields).result, expected) << claimed;
    }
}

TEST(ChannelFrame, ClaimsOfEveryUdpLength) {
    // Without a checksum a shorter datagram is as good as the whole one.
    const frame_fields good{.udp_checksum = 0, .message = message_of(100)};
    for (unsigned claimed = 0; claimed <= 65535; ++claimed) {
        frame_fields fields = good;
        fields.udp_length = claimed;
        const outcome seen = decode(fields);
        const bool fits = claimed >= 8 && claimed <= 108;
        ASSERT_EQ(seen.result, fits ? frame_result::ok : frame_result::truncated) << claimed;
        if (fits) {
            ASSERT_EQ(seen.delivery.size(), 16 + claimed);
        }
    }
}

TEST(ChannelFrame, ClaimsOfEveryHeaderLength) {
    for (unsigned words = 0; words <= 15; ++words) {
        frame_fields fields{.message = message_of(0)};
        fields.ihl = words;
        // Up to 4 words are no header; 8 bytes of UDP header are too few to serve as options and header at once.
        const frame_result expected = words == 5 ? frame_result::ok : frame_result::truncated;
        const frame_result result = decode(fields).result;
        if (words == 6 || words == 7) {
            // The checksum is then taken over bytes that are none of the header.
            EXPECT_EQ(result, frame_result::bad_ip_checksum) << words;
        } else {
            EXPECT_EQ(result, expected) << words;
        }
    }
}

TEST(ChannelFrame, OtherIpVersionsAreDropped) {
    for (const unsigned version : {0U, 3U, 5U, 6U, 15U}) {
        EXPECT_EQ(decode(frame_fields{.version = version}).result, frame_result::truncated) << version;
    }
}

TEST(ChannelFrame, FragmentsAreDropped) {
    for (const unsigned fragment : {0x2000U, 0x0001U, 0x1FFFU, 0x2001U, 0x6000U, 0x4001U}) {
        EXPECT_EQ(decode(frame_fields{.fragment = fragment}).result, frame_result::fragment) << fragment;
    }
    expect_delivered({.fragment = 0x0000});
    expect_delivered({.fragment = 0x8000});  // the reserved bit makes no fragment
}

TEST(ChannelFrame, EveryFlippedBitOfTheIpHeaderIsSeen) {
    const octets good = frame_of({.ip_options = octets(8, 0x01)});
    for (std::size_t bit = 0; bit < 28 * 8; ++bit) {
        octets bad = good;
        bad[14 + bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        const frame_result result = decode(bad).result;
        EXPECT_TRUE(result == frame_result::bad_ip_checksum || result == frame_result::truncated) << bit;
    }
}

TEST(ChannelFrame, EveryFlippedBitOfTheDatagramIsSeen) {
    const octets good = frame_of({.message = message_of(33)});
    for (std::size_t bit = 0; bit < (8 + 33) * 8; ++bit) {
        octets bad = good;
        bad[34 + bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        const bool in_port = bit / 16 == 1;
        const bool in_length = bit / 16 == 2;
        const frame_result result = decode(bad).result;
        if (in_port) {
            EXPECT_EQ(result, frame_result::not_ours) << bit;
        } else if (in_length) {
            EXPECT_TRUE(result == frame_result::truncated || result == frame_result::bad_udp_checksum) << bit;
        } else {
            EXPECT_EQ(result, frame_result::bad_udp_checksum) << bit;
        }
    }
}

TEST(ChannelFrame, UdpChecksumZeroMeansNone) {
    expect_delivered({.udp_checksum = 0});
}

TEST(ChannelFrame, UdpChecksumThatIsNotReadyIsNotJudged) {
    expect_delivered({.udp_checksum = 0xBEEF}, {.checksum_not_ready = true});
}

TEST(ChannelFrame, UdpChecksumThatWasVerifiedIsNotJudgedAgain) {
    expect_delivered({.udp_checksum = 0xBEEF}, {.checksum_valid = true});
    EXPECT_EQ(decode(frame_fields{.udp_checksum = 0xBEEF}).result, frame_result::bad_udp_checksum);
}

TEST(ChannelFrame, UdpChecksumOfAllOnesHolds) {
    // The two message bytes bring the sum to zero, which is sent as all ones.
    frame_fields fields{.source_port = 0, .message = {0, 0}};
    const octets datagram = channel_frames::udp_datagram(fields);
    fields.message = {datagram[6], datagram[7]};
    const octets adjusted = channel_frames::udp_datagram(fields);
    ASSERT_EQ(adjusted[6] << 8 | adjusted[7], 0xFFFF);
    expect_delivered(fields);
}

TEST(ChannelFrame, IpChecksumIsJudgedEvenWhenUdpIsVerified) {
    EXPECT_EQ(decode(frame_fields{.ip_checksum = 0}, {.checksum_not_ready = true, .checksum_valid = true}).result,
              frame_result::bad_ip_checksum);
}

TEST(ChannelFrame, OnlyUdpToPort67OverIpv4IsOurs) {
    EXPECT_EQ(decode(frame_fields{.ethertype = 0x0806}).result, frame_result::not_ours);
    EXPECT_EQ(decode(frame_fields{.ethertype = 0x86DD}).result, frame_result::not_ours);
    EXPECT_EQ(decode(frame_fields{.protocol = 6}).result, frame_result::not_ours);
    EXPECT_EQ(decode(frame_fields{.destination_port = 68}).result, frame_result::not_ours);
}

TEST(ChannelFrame, TagBesideTheFrameGivesTheVlan) {
    const outcome seen = decode(frame_fields{}, {.tagged = true, .tci = 0xE064});
    EXPECT_EQ(seen.result, frame_result::ok);
    EXPECT_TRUE(seen.tagged);
    EXPECT_EQ(seen.vid, 100U);
}

TEST(ChannelFrame, TagInsideTheFrameGivesTheVlan) {
    const frame_fields fields{.tags = {0x8100E064}};
    const outcome seen = decode(fields);
    EXPECT_EQ(seen.result, frame_result::ok);
    EXPECT_TRUE(seen.tagged);
    EXPECT_EQ(seen.vid, 100U);
    EXPECT_EQ(hex(seen.delivery), hex(delivery_of(fields)));
}

TEST(ChannelFrame, PriorityTagHasVlanZero) {
    const outcome beside = decode(frame_fields{}, {.tagged = true, .tci = 0xE000});
    EXPECT_EQ(beside.result, frame_result::ok);
    EXPECT_EQ(beside.vid, 0U);
    const outcome inside = decode(frame_fields{.tags = {0x8100E000}});
    EXPECT_EQ(inside.result, frame_result::ok);
    EXPECT_EQ(inside.vid, 0U);
}

TEST(ChannelFrame, TagBehindAPriorityTagCounts) {
    const outcome seen = decode(frame_fields{.tags = {0x81000064}}, {.tagged = true, .tci = 0xE000});
    EXPECT_EQ(seen.result, frame_result::ok);
    EXPECT_EQ(seen.vid, 100U);
}

TEST(ChannelFrame, StackedAndProviderTagsAreNoVlanOfOurs) {
    EXPECT_EQ(decode(frame_fields{.tags = {0x81000064}}, {.tagged = true, .tci = 10}).result,
              frame_result::unknown_vlan);
    EXPECT_EQ(decode(frame_fields{.tags = {0x81000064, 0x8100000A}}).result, frame_result::unknown_vlan);
    EXPECT_EQ(decode(frame_fields{.tags = {0x88A80064}}).result, frame_result::unknown_vlan);
    EXPECT_EQ(decode(frame_fields{}, {.tagged = true, .tpid = 0x88A8, .tci = 100}).result, frame_result::unknown_vlan);
}

TEST(ChannelFrame, CopyIsCutToTheBufferAndReturnsTheWholeLength) {
    const frame_fields fields{.message = message_of(40)};
    const octets frame = frame_of(fields);
    const octets whole = delivery_of(fields);
    dhcp_frame parts;
    ASSERT_EQ(channel_frame_decode(frame, {}, &parts), frame_result::ok);
    for (std::size_t size = 0; size <= whole.size() + 3; ++size) {
        const auto exact = std::make_unique<std::uint8_t[]>(size);
        EXPECT_EQ(channel_frame_copy(parts, exact.get(), size), whole.size());
        const std::size_t filled = std::min(size, whole.size());
        EXPECT_EQ(hex(octets(exact.get(), exact.get() + filled)),
                  hex(octets(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(filled))));
    }
}

TEST(ChannelFrame, AuxiliaryDataIsTranslatedBitByBit) {
    tpacket_auxdata data{};
    data.tp_vlan_tci = 0x0064;
    data.tp_vlan_tpid = 0x88A8;
    EXPECT_FALSE(channel_frame_aux(data).tagged);
    EXPECT_EQ(channel_frame_aux(data).tci, 0);
    data.tp_status = TP_STATUS_VLAN_VALID;
    EXPECT_TRUE(channel_frame_aux(data).tagged);
    EXPECT_EQ(channel_frame_aux(data).tci, 0x0064);
    EXPECT_EQ(channel_frame_aux(data).tpid, 0x8100);
    data.tp_status |= TP_STATUS_VLAN_TPID_VALID;
    EXPECT_EQ(channel_frame_aux(data).tpid, 0x88A8);
    EXPECT_FALSE(channel_frame_aux(data).checksum_not_ready);
    EXPECT_FALSE(channel_frame_aux(data).checksum_valid);
    data.tp_status = TP_STATUS_CSUMNOTREADY;
    EXPECT_TRUE(channel_frame_aux(data).checksum_not_ready);
    EXPECT_FALSE(channel_frame_aux(data).checksum_valid);
    data.tp_status = TP_STATUS_CSUM_VALID;
    EXPECT_FALSE(channel_frame_aux(data).checksum_not_ready);
    EXPECT_TRUE(channel_frame_aux(data).checksum_valid);
}

}  // namespace
