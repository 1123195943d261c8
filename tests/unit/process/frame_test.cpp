// SPDX-License-Identifier: Apache-2.0
// The frame's options, its capability check and the run of the event loop.
#include "process/frame.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>

#include <string>
#include <vector>

#include "base/loop.h"
#include "log/log.h"

namespace {

using ravo::platform::frame_missing_capability;
using ravo::platform::frame_options;
using ravo::platform::frame_parse_options;
using ravo::platform::frame_run;
using ravo::platform::frame_stop;
using ravo::platform::loop_base;
using testing::HasSubstr;

frame_options parsed(const std::vector<std::string> &words) {
    frame_options options;
    EXPECT_EQ(frame_parse_options(words, &options).text, "");
    return options;
}

std::string refused(const std::vector<std::string> &words) {
    frame_options options;
    options.management_socket = "untouched";
    const ravo::fault line = frame_parse_options(words, &options);
    EXPECT_EQ(options.management_socket, "untouched");
    EXPECT_FALSE(options.help || options.version || options.check);
    return line.text;
}

// ---- Options ----

TEST(FrameOptions, WithoutAnyAreTheDefaults) {
    const frame_options options = parsed({});
    EXPECT_EQ(options.switch_file, "/etc/ravo/switch.toml");
    EXPECT_FALSE(options.switch_file_given);
    EXPECT_EQ(options.startup_config, "/etc/ravo/startup-config");
    EXPECT_FALSE(options.startup_config_given);
    EXPECT_EQ(options.management_socket, "/run/ravo/ravod.sock");
    EXPECT_EQ(options.log_threshold, ravo::platform::log_level_warning);
    EXPECT_EQ(options.log_target, "stderr");
    EXPECT_EQ(options.memory_budget, 128U << 20);
    EXPECT_EQ(options.gate_socket, "/run/ravo-gate.sock");
    EXPECT_FALSE(options.check || options.lend_gate || options.version || options.help);
}

TEST(FrameOptions, TheGateIsLentAndAskedFor) {
    EXPECT_TRUE(parsed({"--lend-gate"}).lend_gate);
    EXPECT_EQ(parsed({"--gate", "/tmp/gate"}).gate_socket, "/tmp/gate");
    EXPECT_EQ(refused({"--gate="}), "option --gate: must not be empty; see ravod --help");
    EXPECT_EQ(refused({"--lend-gate=yes"}), "option --lend-gate takes no value; see ravod --help");
}

void expect_all_read(const frame_options &options) {
    EXPECT_EQ(options.switch_file, "sw=1.toml");
    EXPECT_TRUE(options.switch_file_given);
    EXPECT_EQ(options.startup_config, "start");
    EXPECT_TRUE(options.startup_config_given);
    EXPECT_EQ(options.management_socket, "/run/x.sock");
    EXPECT_EQ(options.log_threshold, ravo::platform::log_level_trace);
    EXPECT_EQ(options.log_target, "/var/log/ravo");
    EXPECT_EQ(options.memory_budget, 1000000U);
    EXPECT_TRUE(options.check);
}

TEST(FrameOptions, AreReadWithTheValueAsTheNextWord) {
    expect_all_read(
        parsed({"--switch", "sw=1.toml", "--startup-config", "start", "--management", "/run/x.sock", "--log-level",
                "trace", "--log-to", "/var/log/ravo", "--memory-budget", "1000000", "--check"}));
}

TEST(FrameOptions, AreReadWithTheValueBehindAnEqualsSign) {
    expect_all_read(parsed({"--switch=sw=1.toml", "--startup-config=start", "--management=/run/x.sock",
                            "--log-level=trace", "--log-to=/var/log/ravo", "--memory-budget=1000000", "--check"}));
}

TEST(FrameOptions, OfOneGivenTwiceTheLastCounts) {
    EXPECT_EQ(parsed({"--log-to", "syslog", "--log-to", "stderr"}).log_target, "stderr");
}

TEST(FrameOptions, QuestionsAreRead) {
    EXPECT_TRUE(parsed({"--help"}).help);
    EXPECT_TRUE(parsed({"-h"}).help);
    EXPECT_TRUE(parsed({"--version"}).version);
    EXPECT_TRUE(parsed({"--supervise"}).supervise);
    EXPECT_FALSE(parsed({}).supervise);
}

TEST(FrameOptions, WrongOnesAreNamed) {
    EXPECT_EQ(refused({"--loud"}), "unknown option \"--loud\"; see ravod --help");
    EXPECT_EQ(refused({"--loud=1"}), "unknown option \"--loud=1\"; see ravod --help");
    EXPECT_EQ(refused({"-x"}), "unknown option \"-x\"; see ravod --help");
    EXPECT_EQ(refused({"--check", "--"}), "unknown option \"--\"; see ravod --help");
    EXPECT_EQ(refused({"start"}), "unexpected argument \"start\"; see ravod --help");
    EXPECT_EQ(refused({""}), "unexpected argument \"\"; see ravod --help");
    EXPECT_EQ(refused({"--help", "--switch"}), "option --switch needs a value: FILE; see ravod --help");
    EXPECT_EQ(refused({"--log-level"}), "option --log-level needs a value: LEVEL; see ravod --help");
    EXPECT_EQ(refused({"--check=1"}), "option --check takes no value; see ravod --help");
}

TEST(FrameOptions, WrongValuesAreNamed) {
    EXPECT_EQ(refused({"--log-level", "loud"}),
              "option --log-level: \"loud\" is none of error, warning, trace; see ravod --help");
    EXPECT_EQ(refused({"--log-level="}), "option --log-level: \"\" is none of error, warning, trace; see ravod --help");
    EXPECT_EQ(refused({"--management="}), "option --management: must not be empty; see ravod --help");
    for (const std::string value : {"", "1k", "-1", "99999999999999999999999"})
        EXPECT_EQ(refused({"--memory-budget", value}),
                  "option --memory-budget: \"" + value + "\" is no number of bytes; see ravod --help");
}

TEST(FrameOptions, HelpNamesEachOption) {
    const std::string help = ravo::platform::frame_help();
    for (const char *option :
         {"--switch FILE", "--startup-config FILE", "--management SOCKET", "--log-level LEVEL", "--log-to TARGET",
          "--memory-budget BYTES", "--gate SOCKET", "--lend-gate", "--supervise", "--check", "--version", "--help"})
        EXPECT_THAT(help, HasSubstr(std::string("\n  ") + option + " "));
}

// ---- Capabilities ----

constexpr std::uint64_t bit(unsigned capability) {
    return std::uint64_t{1} << capability;
}

TEST(FrameCapability, FirstMissingOneIsNamedWithTheRemedy) {
    EXPECT_EQ(frame_missing_capability(0, 1024).text,
              "CAP_NET_RAW is missing, needed to open packet sockets; start ravod as root, or with "
              "AmbientCapabilities=CAP_NET_RAW in its systemd unit");
    EXPECT_EQ(frame_missing_capability(~bit(CAP_NET_RAW), 1024).text, frame_missing_capability(0, 1024).text);
    EXPECT_EQ(frame_missing_capability(bit(CAP_NET_RAW), 1024).text,
              "CAP_NET_BIND_SERVICE is missing, needed to use the DHCP ports 67 and 68; start ravod as root, or with "
              "AmbientCapabilities=CAP_NET_BIND_SERVICE in its systemd unit");
}

TEST(FrameCapability, TheTwoNeededOnesAreEnough) {
    EXPECT_EQ(frame_missing_capability(bit(CAP_NET_RAW) | bit(CAP_NET_BIND_SERVICE), 1024).text, "");
}

TEST(FrameCapability, PortsThatNeedNoPrivilegeNeedNoCapability) {
    EXPECT_EQ(frame_missing_capability(bit(CAP_NET_RAW), 67).text, "");
    EXPECT_NE(frame_missing_capability(bit(CAP_NET_RAW), 68).text, "");
}

// ---- The run of the loop ----

void stop_with(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    frame_stop(*static_cast<int *>(arg));
}

TEST(FrameRun, EndsWithTheStatusOfTheStop) {
    int status = 3;
    ASSERT_EQ(event_base_once(loop_base(), -1, EV_TIMEOUT, stop_with, &status, nullptr), 0);
    EXPECT_EQ(frame_run(), 3);
    ravo::platform::loop_free();
}

TEST(FrameRun, StopBeforeTheRunEndsItAtOnce) {
    frame_stop(0);
    EXPECT_EQ(frame_run(), 0);
    ravo::platform::loop_free();
}

}  // namespace
