// SPDX-License-Identifier: Apache-2.0
// Start-up: what the relay registers, installs and prints, and the crash report.
#include "ravo_main.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ravo_if_socket.h"
#include "ravo_nsm.h"
#include "relay_fixture.h"

// The daemon's main under another name, so that it can be called.
#define main ravo_daemon_main
#include "../../../user/src/main.cpp"
#undef main

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RavoMain : public UnstartedRelay {
  protected:
    void SetUp() override {
        UnstartedRelay::SetUp();
        sigaction(SIGSEGV, nullptr, &before_);
    }
    void TearDown() override {
        sigaction(SIGSEGV, &before_, nullptr);
        UnstartedRelay::TearDown();
    }

  private:
    struct sigaction before_ {};
};

using RavoMainDeathTest = RavoMain;

// ---- Registration ----

TEST_F(RavoMain, RegistrationFillsFiveWordsAndNoOther) {
    std::array<std::uintptr_t, VEX_INIT_WORDS> record;
    record.fill(0xabcd);
    ravo_register(record.data());

    std::array<std::uintptr_t, VEX_INIT_WORDS> expected;
    expected.fill(0xabcd);
    expected[0] = 13;
    expected[9] = 1;
    expected[10] = reinterpret_cast<std::uintptr_t>(&ravo_cli_install);
    expected[13] = reinterpret_cast<std::uintptr_t>(&ravo_nsm_init);
    expected[14] = reinterpret_cast<std::uintptr_t>(&ravo_sys_init);
    EXPECT_EQ(record, expected);
}

TEST_F(RavoMain, MainRunsTheFrameOnceWithTheRegisteredRecord) {
    EXPECT_EQ(ravo_daemon_main(0, nullptr), 0);
    ASSERT_EQ(fake::frame_runs.size(), 1u);
    std::array<std::uintptr_t, VEX_INIT_WORDS> expected{};
    ravo_register(expected.data());
    EXPECT_EQ(fake::frame_runs[0], expected);
}

TEST_F(RavoMain, MainReturnsZeroWhateverTheFrameFound) {
    for (const int result : {-1, 1, 5}) {
        fake::frame_result = result;
        EXPECT_EQ(ravo_daemon_main(0, nullptr), 0) << result;
    }
}

// ---- Commands ----

struct expected_command {
    const char *install;  // mode, privilege, flags and text
    cli_handler handler;
};

constexpr expected_command commands[] = {
    {"gen 5 2 0 interface IFNAME", ravo_cmd_interface},
    {"gen 5 2 0 interface vlan <1-4094>", ravo_cmd_interface},
    {"gen 34 2 0 ip dhcp relay address A.B.C.D", ravo_cmd_address},
    {"gen 34 2 0 no ip dhcp relay address [A.B.C.D]", ravo_cmd_no_address},
    {"gen 34 20 0 ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D", ravo_cmd_option60},
    {"gen 34 20 0 no ip dhcp relay option60 [string WORD] [exact-match|partial-match] [address A.B.C.D]",
     ravo_cmd_no_option60},
    {"gen 34 20 0 ip dhcp relay option61 hex WORD address A.B.C.D", ravo_cmd_option61},
    {"gen 34 20 0 no ip dhcp relay option61 [hex WORD] [address A.B.C.D]", ravo_cmd_no_option61},
    {"gen 4 20 0 show ip dhcp relay option [60|61]", ravo_cmd_show_option},
    {"gen 5 2 0 no ip dhcp relay", ravo_cmd_no_relay},
    {"gen 5 2 0 ip dhcp relay", ravo_cmd_relay},
    {"gen 5 2 0 ip dhcp relay information option", ravo_cmd_information_option},
    {"gen 5 2 0 ip dhcp relay hops <1-16>", ravo_cmd_hops},
    {"gen 5 2 0 no ip dhcp relay information option", ravo_cmd_no_information_option},
    {"gen 5 2 0 ip dhcp relay information policy {keep|drop|replace}", ravo_cmd_policy},
    {"gen 5 2 0 ip dhcp relay information check", ravo_cmd_check},
    {"gen 5 2 0 no ip dhcp relay information check", ravo_cmd_no_check},
    {"gen 34 2 0 ip dhcp relay information trusted", ravo_cmd_trusted},
    {"gen 5 2 0 ip dhcp relay information trust-all", ravo_cmd_trust_all},
    {"gen 5 2 0 no ip dhcp relay information trust-all", ravo_cmd_no_trust_all},
    {"gen 34 2 0 no ip dhcp relay information trusted", ravo_cmd_no_trusted},
    {"gen 4 2 0 show ip dhcp relay ", ravo_cmd_show_relay},
    {"gen 4 2 0 show ip dhcp relay information trusted-sources", ravo_cmd_show_trusted_sources},
    {"gen 4 20 0 show ip dhcp relay detail", ravo_cmd_show_detail},
    {"gen 4 20 0 clear ip dhcp relay detail counter", ravo_cmd_clear_counter},
    {"gen 5 20 0 debug ip dhcp relay <0-1>", ravo_cmd_debug},
    {"gen 4 31 0 dhcp rely get basic settings", ravo_cmd_get_basic},
    {"gen 4 31 0 dhcp rely get interface settings [IFNAME]", ravo_cmd_get_interface},
    {"gen 5 31 0 web set dhcp relay ifsettings IFNAME A.B.C.D STATE", ravo_cmd_web_set_server},
    {"gen 5 31 0 web set dhcp relay ifsettings IFNAME STATE", ravo_cmd_web_set},
    {"gen 5 31 0 web delete dhcp relay ifsettings IFNAME", ravo_cmd_web_delete},
    {"gen 5 20 0 show ip dhcp relay xid-port-mapping ", ravo_cmd_show_xid},
    {"gen 4 31 0 show ip dhcp relay addr_tbl <0-4094> A.B.C.D", ravo_cmd_show_addr_tbl},
    {"gen 4 31 0 show ip dhcp relay trust_tbl <0-4094>", ravo_cmd_show_trust_tbl},
};

TEST_F(RavoMain, InstallsEverythingInItsOrder) {
    EXPECT_EQ(ravo_cli_install(fake::cli_globals_of_platform()), 0);
    std::vector<std::string> expected = {"config 135", "reset", "range", "default 34"};
    for (const expected_command &command : commands) expected.emplace_back(command.install);
    EXPECT_EQ(expected.size(), 4u + 34u);
    EXPECT_EQ(fake::installs, expected);
    EXPECT_EQ(fake::installed_writer, &ravo_config_write);
}

TEST_F(RavoMain, EveryCommandHasItsHandler) {
    ravo_cli_install(fake::cli_globals_of_platform());
    ASSERT_EQ(fake::installed_elements.size(), std::size(commands));
    for (std::size_t i = 0; i < std::size(commands); ++i)
        EXPECT_EQ(fake::installed_elements[i]->handler, commands[i].handler) << commands[i].install;
}

// The words of a command: those of groups and choices count one by one.
std::size_t count_words(std::string text) {
    for (char &character : text)
        if (std::strchr("[]{}|", character) != nullptr) character = ' ';
    std::istringstream words(text);
    std::size_t count = 0;
    for (std::string word; words >> word;) ++count;
    return count;
}

std::vector<std::string> help_of(const std::string &text) {
    std::vector<std::string> help;
    for (const cli_element *element : fake::installed_elements)
        if (element->text == text)
            for (const char *const *word = element->help; *word != nullptr; ++word) help.emplace_back(*word);
    return help;
}

TEST_F(RavoMain, EveryWordHasOneHelpText) {
    ravo_cli_install(fake::cli_globals_of_platform());
    for (const cli_element *element : fake::installed_elements) {
        const std::vector<std::string> help = help_of(element->text);
        EXPECT_EQ(help.size(), count_words(element->text)) << element->text;
        for (const std::string &text : help) EXPECT_FALSE(text.empty()) << element->text;
        for (const std::uintptr_t word : element->reserved) EXPECT_EQ(word, 0u) << element->text;
    }
}

TEST_F(RavoMain, HelpTextsOfClearSayShow) {
    ravo_cli_install(fake::cli_globals_of_platform());
    EXPECT_THAT(help_of("clear ip dhcp relay detail counter"),
                ElementsAre("Show running system information", "Internet Protocol version 4 (IPv4)", "DHCP",
                            "Relay agent", "Information", "Counter"));
}

TEST_F(RavoMain, HelpTextsOfTheFrontEndsCommands) {
    ravo_cli_install(fake::cli_globals_of_platform());
    EXPECT_THAT(help_of("show ip dhcp relay addr_tbl <0-4094> A.B.C.D"),
                ElementsAre("Show running system information", "Internet Protocol version 4 (IPv4)", "DHCP",
                            "DHCP relay", "Address table", "Interface name", "IP address"));
    EXPECT_THAT(help_of("show ip dhcp relay trust_tbl <0-4094>"),
                ElementsAre("Show running system information", "Internet Protocol version 4 (IPv4)", "DHCP",
                            "DHCP relay", "Trust interface table", "Interface name"));
    EXPECT_THAT(help_of("dhcp rely get basic settings"),
                ElementsAre("Dhcp information", "Relay", "Get", "Basic information", "Settings"));
    EXPECT_THAT(help_of("dhcp rely get interface settings [IFNAME]"),
                ElementsAre("Dhcp information", "Relay", "Get", "Interface", "Settings", "Interface name"));
    EXPECT_THAT(
        help_of("web set dhcp relay ifsettings IFNAME A.B.C.D STATE"),
        ElementsAre("Web", "Set", "DHCP", "Relay", "Ifsettings", "Interface name", "DHCP server ip address", "State"));
    EXPECT_THAT(help_of("web set dhcp relay ifsettings IFNAME STATE"),
                ElementsAre("Web", "Set", "DHCP", "Relay", "Ifsettings", "Interface name", "State"));
    EXPECT_THAT(help_of("web delete dhcp relay ifsettings IFNAME"),
                ElementsAre("Web", "Delete", "DHCP", "Relay", "Ifsettings", "Interface name"));
}

// ---- Start-up and reset ----

TEST_F(RavoMain, StartUpPutsEverythingToItsDefaults) {
    EXPECT_EQ(ravo_sys_init(nullptr, nullptr), 1);
    const ravo_agent agent = settings_now();
    EXPECT_EQ(agent.relay_enable, 0u);
    EXPECT_EQ(agent.option_state, 0u);
    EXPECT_EQ(agent.policy, RAVO_POLICY_REPLACE);
    EXPECT_EQ(agent.check, 1u);
    EXPECT_EQ(agent.hops, 4u);
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\""));
    EXPECT_EQ(fake::trees_used(), 2u);
    EXPECT_THAT(fake::socket_calls, IsEmpty());
    EXPECT_THAT(fake::printed, ElementsAre(fake::line{0, "RAVO: installSignalHandlers 114 sig=11\n"}));
}

TEST_F(RavoMain, OnlySegmentationFaultsAreHandled) {
    std::vector<struct sigaction> before(SIGRTMIN);
    for (int signal = 1; signal < SIGRTMIN; ++signal) sigaction(signal, nullptr, &before[signal]);
    EXPECT_EQ(installSignalHandlers(), 0);
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        struct sigaction now {};
        sigaction(signal, nullptr, &now);
        if (signal != SIGSEGV) {
            EXPECT_EQ(now.sa_sigaction, before[signal].sa_sigaction) << signal;
            continue;
        }
        EXPECT_EQ(now.sa_sigaction, &ravo_crash_handler);
        constexpr int restorer = 0x04000000;  // the C library's own
        EXPECT_EQ(now.sa_flags & ~restorer, SA_SIGINFO);
        for (int other = 1; other < SIGRTMIN; ++other) EXPECT_EQ(sigismember(&now.sa_mask, other), 0) << other;
    }
}

TEST_F(RavoMain, ResetBringsTheRelayBackToItsStart) {
    ravo_cli_install(fake::cli_globals_of_platform());
    ravo_db_init();
    set_setting(&ravo_agent::hops, 9);
    set_setting(&ravo_agent::relay_enable, 1);
    for (const int vlan : {10, 20}) {
        const iface record = vlan_record(vlan, {"10.0.0.1"});
        EXPECT_EQ(ravo_db_if_add(&record), 1);
    }
    ASSERT_EQ(RAVO_IF_Create_fd(), 0u);
    ASSERT_EQ(fake::sockets.size(), 3u);
    fake::forget();

    ASSERT_NE(fake::installed_reset, nullptr);
    EXPECT_EQ(fake::installed_reset(), 0);
    EXPECT_EQ(settings_now().hops, 4u);
    EXPECT_EQ(settings_now().relay_enable, 0u);
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_TRUE(fake::sockets.empty());
    EXPECT_TRUE(fake::readers.empty());
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\""));
    EXPECT_THAT(fake::traces(), ElementsAre(fake::line{101, "ravo_if_del_all_if (#)++\n"},
                                            fake::line{101, "ravo_if_del_all_if (#)--\n"},
                                            fake::line{101,
                                                       "ravo_if_close_all_fd (#): Close all socket "
                                                       "successfully \n"}));
}

// ---- The crash report ----

// The lines of a report: splits standard error of a dead process.
std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// Tells whether text is exactly a report of this address: five messages, the last after two empty lines, and as many
// frames as it says, of which there are least to 20.
bool is_report(const std::string &text, const std::string &address, int least) {
    const std::vector<std::string> lines = lines_of(text);
    if (lines.size() < 7) return false;
    int count = -1;
    char rest = 0;
    if (std::sscanf(lines[6].c_str(), " RAVO Obtained %d stack frames%c", &count, &rest) != 2 || rest != '.')
        return false;
    bool good = lines[0] == "RAVO Segmentation Fault!" && lines[1] == "RAVO info.si_signo = 11" &&
                lines[2] == "RAVO info.si_errno = 0" && lines[3] == "RAVO info.si_addr  = " + address &&
                lines[4].empty() && lines[5].empty() &&
                lines[6] == " RAVO Obtained " + std::to_string(count) + " stack frames." && count >= least &&
                count <= 20 && lines.size() == 7 + static_cast<std::size_t>(count);
    for (std::size_t i = 7; i < lines.size(); ++i)
        good = good && lines[i].rfind("RAVO: ", 0) == 0 && lines[i].size() > 6;
    return good;
}

void no_core_file() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// A page that must not be touched.
volatile char *forbidden_page() {
    return static_cast<volatile char *>(
        mmap(reinterpret_cast<void *>(0x500000000000), 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

// Touches a page below a number of frames.
__attribute__((noinline)) int touch_below(int frames, volatile char *page) {
    if (frames == 0) {
        *page = 1;
        return 0;
    }
    const int below = touch_below(frames - 1, page);
    asm volatile("" ::: "memory");  // keeps the call from becoming a jump
    return below + 1;
}

// Prints "RAVO: installSignalHandlers ..." to nobody, so that standard error holds the report alone.
void install_quietly() {
    const int standard_error = dup(STDERR_FILENO);
    std::fflush(stderr);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) std::_Exit(98);
    installSignalHandlers();
    std::fflush(stderr);
    dup2(standard_error, STDERR_FILENO);
    std::setvbuf(stderr, nullptr, _IONBF, 0);  // as it was: a quick exit writes nothing that waits
}

TEST_F(RavoMainDeathTest, AFaultPrintsFiveMessagesAndItsFrames) {
    volatile char *const page = forbidden_page();
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void *>(const_cast<char *>(page)));
    EXPECT_EXIT(
        {
            install_quietly();
            touch_below(3, page);
        },
        testing::ExitedWithCode(1),
        testing::Truly([&address](const std::string &text) { return is_report(text, address, /*least=*/4); }));
    munmap(const_cast<char *>(page), 4096);
}

TEST_F(RavoMainDeathTest, AReportHasAtMostTwentyFrames) {
    volatile char *const page = forbidden_page();
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void *>(const_cast<char *>(page)));
    EXPECT_EXIT(
        {
            install_quietly();
            touch_below(40, page);
        },
        testing::ExitedWithCode(1),
        testing::Truly([&address](const std::string &text) { return is_report(text, address, /*least=*/20); }));
    munmap(const_cast<char *>(page), 4096);
}

TEST_F(RavoMainDeathTest, TheReportShowsTheArgumentAndNotTheSignalOfTheInformation) {
    siginfo_t info{};
    info.si_signo = 5;
    info.si_errno = 7;
    info.si_addr = reinterpret_cast<void *>(0x1234);
    EXPECT_EXIT(ravo_crash_handler(11, &info, nullptr), testing::ExitedWithCode(1),
                testing::StartsWith("RAVO Segmentation Fault!\nRAVO info.si_signo = 11\nRAVO info.si_errno = 7\n"
                                    "RAVO info.si_addr  = 0x1234\n\n\n RAVO Obtained "));
}

// Gives a signal its default action, installs the relay's handler and raises the signal.
[[noreturn]] void raise_by_default(int signal) {
    no_core_file();
    std::signal(signal, SIG_DFL);
    install_quietly();
    raise(signal);
    std::_Exit(0);
}

TEST_F(RavoMainDeathTest, OtherSignalsEndTheProcessWithoutAReport) {
    EXPECT_EXIT(raise_by_default(SIGBUS), testing::KilledBySignal(SIGBUS), testing::StrEq(""));
    EXPECT_EXIT(raise_by_default(SIGABRT), testing::KilledBySignal(SIGABRT), testing::StrEq(""));
}

// Makes the system refuse every further sigaction of this process with EPERM.
bool refuse_sigaction() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigaction, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(RavoMainDeathTest, StartUpEndsWhenTheHandlerCannotBeInstalled) {
    EXPECT_EXIT(
        {
            // Tells whether the databases were created before the process ended.
            std::atexit([] { std::fprintf(stderr, "trees=%zu\n", fake::trees_used()); });
            if (!refuse_sigaction()) std::_Exit(99);
            ravo_sys_init(nullptr, nullptr);
        },
        testing::ExitedWithCode(1),
        testing::StrEq("RAVO: installSignalHandlers 114 sig=11\n"
                       "RAVO sigaction failed, line 117, 1/Operation not permitted\ntrees=0\n"));
}

}  // namespace
