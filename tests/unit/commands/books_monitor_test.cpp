// SPDX-License-Identifier: Apache-2.0
// The monitor and the capture, which last as long as somebody looks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "books/pcapng.h"
#include "books_box.h"

namespace {

using namespace ravo::cli;
using namespace ravo::platform;
using namespace books_box;
using cli_box::shell;
using testing::ElementsAre;

// A session that can be in a command whose output goes on.
struct streaming_shell {
    std::string text;
    std::vector<int> ended;
    session_ptr session;
    bool gone = false;

    explicit streaming_shell(int privilege = 31) {
        session_output output;
        output.text = [this](std::string_view piece) {
            text += piece;
            return gone ? -1 : 0;
        };
        output.stream_end = [this](int result) { ended.push_back(result); };
        EXPECT_TRUE(cli_box::have_commands());
        session = session_open(std::move(output), privilege, "tester");
    }
};

std::vector<std::string> clients_in(const std::string &text) {
    std::vector<std::string> out;
    for (std::size_t at = text.find("02:00:00:00:00:"); at != std::string::npos;
         at = text.find("02:00:00:00:00:", at + 1))
        out.push_back(text.substr(at, 17));
    return out;
}

TEST_F(BooksCommands, MonitorShowsMessagesUntilInterrupted) {
    streaming_shell s;
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay"), 0);
    EXPECT_TRUE(session_streaming(*s.session));
    EXPECT_EQ(s.text, "");
    take({.servers = {"192.0.2.11"}});
    EXPECT_EQ(without_time(s.text),
              "DISCOVER 02:00:00:00:00:01 xid 2A000000 vlan 10 port 1/1: relayed to 192.0.2.11 (relayed to "
              "servers)\n");
    EXPECT_EQ(session_interrupt(*s.session), 0);
    EXPECT_FALSE(session_streaming(*s.session));
    s.text.clear();
    take({});
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(session_interrupt(*s.session), 0) << "nothing to interrupt";
    EXPECT_TRUE(s.ended.empty());
}

TEST_F(BooksCommands, MonitorShowsWhatWasAskedFor) {
    const std::vector<std::pair<const char *, std::vector<std::string>>> rows = {
        {"mac 0200.0000.0002", {"02:00:00:00:00:02"}},
        {"vlan 20", {"02:00:00:00:00:02", "02:00:00:00:00:03"}},
        {"port 2/0", {"02:00:00:00:00:03"}},
        {"mac 02-00-00-00-00-02 vlan 20 port 1/1", {"02:00:00:00:00:02"}},
        {"mac 02:00:00:00:00:02 vlan 10", {}},
    };
    for (const auto &[words, wanted] : rows) {
        streaming_shell s;
        EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay " + std::string(words)), 0);
        take({.client = 1});
        take({.client = 2, .vlan = 20});
        take({.client = 3, .vlan = 20, .port = port_2_0});
        EXPECT_EQ(clients_in(s.text), wanted) << words;
    }
}

TEST_F(BooksCommands, MonitorGoesThroughItsFilter) {
    streaming_shell s;
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay | count hop-limit"), 0);
    take({});
    take({.outcome = OUTCOME_HOP_LIMIT});
    take({.outcome = OUTCOME_HOP_LIMIT});
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(session_interrupt(*s.session), 0);
    EXPECT_EQ(s.text, "2\n");
    s.text.clear();
    EXPECT_EQ(session_run(*s.session, "show ip dhcp relay statistics vlan 20"), 0);
    EXPECT_EQ(s.text, std::string("VLAN interface vlan20:\n") + empty_block) << "the filter went with its command";
}

TEST_F(BooksCommands, MonitorsOfSeveralSessionsEndWithThem) {
    auto first = std::make_unique<streaming_shell>();
    streaming_shell second;
    EXPECT_EQ(session_run(*first->session, "monitor ip dhcp relay"), 0);
    EXPECT_EQ(session_run(*second.session, "monitor ip dhcp relay"), 0);
    first.reset();
    take({});
    EXPECT_EQ(clients_in(second.text).size(), 1u);
    second.gone = true;
    take({});
    take({});
    EXPECT_EQ(clients_in(second.text).size(), 2u) << "nothing more is sent to a session that is gone";
}

TEST_F(BooksCommands, MonitorNeedsASessionThatCanStayInIt) {
    shell s;
    EXPECT_EQ(s.run("monitor ip dhcp relay"), 1);
    EXPECT_EQ(s.text, "% This session cannot show messages as they come\n");
}

TEST_F(BooksCommands, CaptureEndsByItselfWhenItCannotBeWritten) {
    char folder[] = "/tmp/books_commands_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/a.pcapng";
    ravo::platform::pcapng_set_folders({folder});
    streaming_shell s, viewer(14);
    EXPECT_EQ(session_run(*viewer.session, "monitor ip dhcp relay pcap " + path), 1) << "not for those who only look";
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay vlan 10 pcap " + path + " size 7"), 0);
    take({});
    take({.vlan = 20});
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{10, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    take({});
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(s.text, "% cannot write " + path + ": File too large\n1 messages in " + path + "\n");
    EXPECT_THAT(s.ended, ElementsAre(1));
    EXPECT_FALSE(session_streaming(*s.session));
    take({});
    std::filesystem::remove_all(folder);
}

TEST_F(BooksCommands, CaptureTellsHowMuchItHolds) {
    char folder[] = "/tmp/books_commands_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/a.pcapng";
    ravo::platform::pcapng_set_folders({folder});
    streaming_shell s;
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay mac 02:00:00:00:00:01 pcap " + path), 0);
    take({});
    take({});
    take({.client = 2});
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(session_interrupt(*s.session), 0);
    EXPECT_EQ(s.text, "2 messages in " + path + "\n");
    std::filesystem::remove_all(folder);
}

}  // namespace
