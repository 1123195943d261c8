// SPDX-License-Identifier: Apache-2.0
// The frames of the management socket: what is written is read back, and nothing shorter or longer is taken.
#include "management_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using ravo::protocol::bytes;
using testing::ElementsAre;

namespace protocol = ravo::protocol;

std::span<const std::uint8_t> payload_of(const bytes &frame) {
    return std::span(frame).subspan(protocol::head_size);
}

// A reader of a message, asked only whether it takes the payload.
using taker = bool (*)(std::span<const std::uint8_t>);

struct message_case {
    std::string name;
    bytes frame;
    taker takes;
    std::size_t fixed;  // bytes of the payload that must be there; what follows is text to the payload's end
    bool open_end;      // the payload ends in such text
};

std::vector<message_case> all_messages() {
    return {
        {"hello", protocol::hello_frame({1, 31, 4}), [](auto p) { return protocol::read_hello(p).has_value(); }, 8,
         false},
        {"run", protocol::run_frame({7, 2, 1, 1, "show"}), [](auto p) { return protocol::read_run(p).has_value(); }, 7,
         true},
        {"ask", protocol::ask_frame(protocol::frame_type::help, {7, "sho"}),
         [](auto p) { return protocol::read_ask(p).has_value(); }, 4, true},
        {"welcome", protocol::welcome_frame({1, 31, 1, 4, "#", "0.1"}),
         [](auto p) { return protocol::read_welcome(p).has_value(); }, 17, false},
        {"refused", protocol::refused_frame({protocol::refusal::too_many, "full"}),
         [](auto p) { return protocol::read_refused(p).has_value(); }, 1, true},
        {"value", protocol::value_frame(protocol::as_bytes("key"), "text"),
         [](auto p) { return protocol::read_value(p).has_value(); }, 5, true},
        {"help row", protocol::help_frame({"show", "Look"}), [](auto p) { return protocol::read_help(p).has_value(); },
         12, false},
        {"status", protocol::status_frame({7, -1, 2, 5, 24, "(config)#", "Sure?"}),
         [](auto p) { return protocol::read_status(p).has_value(); }, 32, false},
    };
}

TEST(ManagementProtocol, BehalfIsAPrintableName) {
    EXPECT_THAT(protocol::behalf_frame("bo"), ElementsAre(6, 0, 0, 0, 2, 'b', 'o'));
    const auto read = [](const std::string &name) { return protocol::read_behalf(protocol::as_bytes(name)); };
    EXPECT_EQ(read("alice@example.net"), "alice@example.net");
    EXPECT_EQ(read(std::string(64, 'a')), std::string(64, 'a'));
    for (const std::string &name :
         {""s, std::string(65, 'a'), "al ice"s, "al\nice"s, "alice\0"s, "al\x7F"s, "\xC3\xA9"s})
        EXPECT_EQ(read(name), std::nullopt) << name;
}

TEST(ManagementProtocol, HelloIsThisFrame) {
    EXPECT_THAT(protocol::hello_frame({1, 31, 4}), ElementsAre(1, 0, 0, 0, 8,       // hello, 8 bytes
                                                               'R', 'A', 'V', 'O',  // magic
                                                               0, 1,                // version
                                                               31, 4));             // privilege, mode
}

TEST(ManagementProtocol, RunIsThisFrame) {
    EXPECT_THAT(protocol::run_frame({0x01020304, 4, 1, 3, "exit"}), ElementsAre(2, 0, 0, 0, 11,  // run, 11 bytes
                                                                                1, 2, 3, 4,      // id
                                                                                4, 1, 3,         // view, all, flags
                                                                                'e', 'x', 'i', 't'));  // line
}

TEST(ManagementProtocol, StatusIsThisFrame) {
    EXPECT_THAT(protocol::status_frame({7, -1, 2, 5, -1, "#", "Q"}),
                ElementsAre(138, 0, 0, 0, 20,        // status, 20 bytes
                            0, 0, 0, 7,              // id
                            255, 255, 255, 255,      // result
                            2, 5,                    // flags, mode
                            255, 255, 255, 255,      // page
                            0, 1, '#', 0, 1, 'Q'));  // prompt, question
}

TEST(ManagementProtocol, EveryFieldComesBack) {
    const auto run = protocol::read_run(payload_of(protocol::run_frame({9, 7, 1, 2, "show | include \"a b\""})));
    ASSERT_TRUE(run);
    EXPECT_EQ(run->id, 9U);
    EXPECT_EQ(run->view, 7);
    EXPECT_EQ(run->show_all, 1);
    EXPECT_EQ(run->flags, 2);
    EXPECT_EQ(run->line, "show | include \"a b\"");
    const auto welcome = protocol::read_welcome(payload_of(protocol::welcome_frame({1, 2, 0, 4, "#", "0.1.0"})));
    ASSERT_TRUE(welcome);
    EXPECT_EQ(welcome->privilege, 2);
    EXPECT_EQ(welcome->may_change, 0);
    EXPECT_EQ(welcome->mode, 4);
    EXPECT_EQ(welcome->prompt, "#");
    EXPECT_EQ(welcome->daemon_version, "0.1.0");
    const auto status =
        protocol::read_status(payload_of(protocol::status_frame({3, -5, 1, 34, 0, "(config-if)#", ""})));
    ASSERT_TRUE(status);
    EXPECT_EQ(status->id, 3U);
    EXPECT_EQ(status->result, -5);
    EXPECT_EQ(status->flags, 1);
    EXPECT_EQ(status->mode, 34);
    EXPECT_EQ(status->page, 0);
    EXPECT_EQ(status->prompt, "(config-if)#");
    EXPECT_EQ(status->question, "");
    const auto value = protocol::read_value(payload_of(protocol::value_frame(protocol::as_bytes("\0\1"s), "v\n")));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->key, "\0\1"s);
    EXPECT_EQ(value->text, "v\n");
    const auto refused =
        protocol::read_refused(payload_of(protocol::refused_frame({protocol::refusal::too_slow, "t"})));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->reason, protocol::refusal::too_slow);
    EXPECT_EQ(refused->text, "t");
}

TEST(ManagementProtocol, TruncatedAtEveryLengthIsNotTaken) {
    for (const message_case &m : all_messages()) {
        SCOPED_TRACE(m.name);
        const auto payload = payload_of(m.frame);
        ASSERT_TRUE(m.takes(payload));
        for (std::size_t length = 0; length < payload.size(); ++length) {
            // In memory of exactly this size, so that a byte read behind it shows.
            const bytes exact(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_EQ(m.takes(exact), m.open_end && length >= m.fixed) << length << " bytes";
        }
    }
}

TEST(ManagementProtocol, AByteTooManyIsNotTakenBehindFieldsOfKnownLength) {
    for (const message_case &m : all_messages()) {
        SCOPED_TRACE(m.name);
        bytes longer(payload_of(m.frame).begin(), payload_of(m.frame).end());
        longer.push_back(0);
        EXPECT_EQ(m.takes(longer), m.open_end);
    }
}

TEST(ManagementProtocol, ATextThatClaimsEveryLengthIsTakenOnlyWithTheRightOne) {
    for (unsigned claimed = 0; claimed <= 0xFFFF; ++claimed) {
        bytes payload = {0,   1,  'w', static_cast<std::uint8_t>(claimed >> 8), static_cast<std::uint8_t>(claimed),
                         't', 'x'};
        EXPECT_EQ(protocol::read_help(payload).has_value(), claimed == 2) << claimed;
    }
}

TEST(ManagementProtocol, AHeadIsReadOnceAllOfItIsThere) {
    const bytes frame = protocol::make_frame(protocol::frame_type::output, "text");
    for (std::size_t length = 0; length < protocol::head_size; ++length)
        EXPECT_FALSE(protocol::read_head(std::span(frame).first(length)));
    const auto head = protocol::read_head(frame);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->type, 131);
    EXPECT_EQ(head->length, 4U);
}

TEST(ManagementProtocol, AHeadTellsEveryLengthAsItStands) {
    for (const std::uint32_t length : {0U, 1U, 255U, 256U, 65536U, 65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        protocol::byte_writer out;
        out.u8(2).u32(length);
        ASSERT_TRUE(protocol::read_head(out.out));
        EXPECT_EQ(protocol::read_head(out.out)->length, length);
    }
}

TEST(ManagementProtocol, AHelloOfAnotherKindIsNotTaken) {
    const bytes payload = {'R', 'A', 'V', 'O', 0, 1, 31, 4};
    EXPECT_TRUE(protocol::read_hello(payload));
    for (std::size_t i = 0; i < 4; ++i) {
        bytes other = payload;
        other[i] ^= 0x20;
        EXPECT_FALSE(protocol::read_hello(other));
    }
}

TEST(ManagementProtocol, ALongerHelloOfALaterVersionIsUnderstoodAsFarAsItsVersion) {
    bytes payload = {'R', 'A', 'V', 'O', 0, 2, 31, 4, 'n', 'e', 'w'};
    const auto hello = protocol::read_hello(payload);
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->version, 2);
    payload[5] = 1;
    EXPECT_FALSE(protocol::read_hello(payload));
}

TEST(ManagementProtocol, ARunWithUnknownBitsIsNotTaken) {
    EXPECT_TRUE(protocol::read_run(payload_of(protocol::run_frame({1, 7, 1, 7, ""}))));
    EXPECT_FALSE(protocol::read_run(payload_of(protocol::run_frame({1, 8, 0, 0, ""}))));
    EXPECT_FALSE(protocol::read_run(payload_of(protocol::run_frame({1, 0, 2, 0, ""}))));
    EXPECT_FALSE(protocol::read_run(payload_of(protocol::run_frame({1, 0, 0, 8, ""}))));
}

TEST(ManagementProtocol, ATextLongerThanItsLengthFieldIsCut) {
    const std::string longest(0xFFFF, 'x');
    const auto help = protocol::read_help(payload_of(protocol::help_frame({"w", longest + "y"})));
    ASSERT_TRUE(help);
    EXPECT_EQ(help->text, longest);
}

}  // namespace
