// SPDX-License-Identifier: Apache-2.0
// From typed lines to handlers: every command, every row of arguments, abbreviations, and each way a line can be wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <random>

#include "cli_box.h"

namespace {

using cli_box::call;
using cli_box::calls;
using cli_box::invalid_at;
using cli_box::relay_command;
using cli_box::relay_commands;
using cli_box::shell;
using testing::ElementsAre;

// The arguments of the one handler that a line calls; "none called" when it is not exactly one.
std::vector<std::string> arguments_of(shell &s, std::string_view line) {
    calls.clear();
    EXPECT_EQ(s.print(line), "") << line;
    return calls.size() == 1 ? calls.front().arguments : std::vector<std::string>{"none called"};
}

std::size_t command_called() {
    return calls.size() == 1 ? calls.front().command : relay_commands().size();
}

TEST(Parse, EveryCommandFromItsOwnText) {
    for (std::size_t i = 0; i < relay_commands().size(); ++i) {
        const relay_command &row = relay_commands()[i];
        shell s;
        s.enter(row.mode);
        EXPECT_EQ(arguments_of(s, row.typed), row.arguments) << row.typed;
        EXPECT_EQ(command_called(), i) << row.typed;
    }
}

TEST(Parse, BlanksTabsAndLineEndsCountForNothing) {
    shell s;
    EXPECT_EQ(arguments_of(s, " \t show  ip\tdhcp relay option   61 \t\r\n"), std::vector<std::string>{"61"});
    EXPECT_EQ(s.print(""), "");
    EXPECT_EQ(s.run(" \t \r\n"), 0);
    EXPECT_EQ(s.print("! any \"text"), "");
    EXPECT_EQ(s.run("  ! any"), 0);
}

TEST(Parse, EachRowOfOption60NegationArguments) {
    shell s;
    s.configure("vlan7");
    const std::string no = "no ip dhcp relay option60";
    EXPECT_TRUE(arguments_of(s, no).empty());
    EXPECT_THAT(arguments_of(s, no + " exact-match"), ElementsAre("exact-match"));
    EXPECT_THAT(arguments_of(s, no + " string ab"), ElementsAre("string", "ab"));
    EXPECT_THAT(arguments_of(s, no + " address 10.0.0.1"), ElementsAre("address", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, no + " string ab partial-match"), ElementsAre("string", "ab", "partial-match"));
    EXPECT_THAT(arguments_of(s, no + " exact-match address 10.0.0.1"),
                ElementsAre("exact-match", "address", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, no + " string ab address 10.0.0.1"),
                ElementsAre("string", "ab", "address", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, no + " string ab exact-match address 10.0.0.1"),
                ElementsAre("string", "ab", "exact-match", "address", "10.0.0.1"));
}

TEST(Parse, EachRowOfOption61NegationArguments) {
    shell s;
    s.configure("vlan7");
    const std::string no = "no ip dhcp relay option61";
    EXPECT_TRUE(arguments_of(s, no).empty());
    EXPECT_THAT(arguments_of(s, no + " hex 0x12"), ElementsAre("hex", "0x12"));
    EXPECT_THAT(arguments_of(s, no + " address 10.0.0.1"), ElementsAre("address", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, no + " hex 0x12 address 10.0.0.1"), ElementsAre("hex", "0x12", "address", "10.0.0.1"));
}

TEST(Parse, OptionalArgumentsMayBeMissing) {
    shell s;
    EXPECT_TRUE(arguments_of(s, "show ip dhcp relay option").empty());
    EXPECT_TRUE(arguments_of(s, "dhcp rely get interface settings").empty());
    s.configure("vlan7");
    EXPECT_TRUE(arguments_of(s, "no ip dhcp relay address").empty());
}

TEST(Parse, AWordThatLooksLikeAKeywordIsStillAWord) {
    shell s;
    s.configure("vlan7");
    EXPECT_THAT(arguments_of(s, "no ip dhcp relay option60 string exact-match exact-match"),
                ElementsAre("string", "exact-match", "exact-match"));
    EXPECT_THAT(arguments_of(s, "no ip dhcp relay option60 string address"), ElementsAre("string", "address"));
}

TEST(Parse, QuotedWordsReachTheHandlerWithoutTheirQuotes) {
    shell s;
    s.configure("vlan7");
    EXPECT_THAT(arguments_of(s, R"(ip dhcp relay option60 string "two \"words\" !?|" exact-match address 10.0.0.1)"),
                ElementsAre("two \"words\" !?|", "exact-match", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, R"(ip dhcp relay option61 hex "" address 10.0.0.1)"), ElementsAre("", "10.0.0.1"));
}

TEST(Parse, ChosenKeywordsArePassedInFull) {
    shell s;
    s.configure("vlan7");
    EXPECT_THAT(arguments_of(s, "ip dhcp relay option60 string ab e a 10.0.0.1"),
                ElementsAre("ab", "exact-match", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, "no ip dhcp relay option60 s ab p a 10.0.0.1"),
                ElementsAre("string", "ab", "partial-match", "address", "10.0.0.1"));
    EXPECT_THAT(arguments_of(s, "ip dhcp relay information policy r"), ElementsAre("replace"));
}

TEST(Parse, AllWaysToNameAnInterfaceSelectOneObject) {
    const struct interface *const vlan10 = ifg_get_by_name("vlan10");
    for (const char *line : {"interface vlan 10", "interface vlan10", "interface vlan 010", "interface vlan010",
                             "interface 10", "int v 10", "interface vlan 0000000000000000000000010"}) {
        shell s;
        s.configure();
        EXPECT_EQ(s.print(line), "") << line;
        ASSERT_EQ(s.mode(), CLI_MODE_INTERFACE) << line;
        EXPECT_EQ(arguments_of(s, "ip dhcp relay information trusted"), std::vector<std::string>{});
        EXPECT_EQ(calls.front().interface, vlan10->name) << line;
    }
    EXPECT_STREQ(vlan10->name, "vlan10");
}

TEST(Parse, ANamedInterfaceIsNotMadeByBeingNamed) {
    shell s;
    (void)arguments_of(s, "dhcp rely get interface settings vlan3999");
    (void)ravo::cli::session_help(*s.session, "dhcp rely get interface settings vlan3998");
    for (const struct interface *each = ifg_first(); each != nullptr; each = ifg_next(each)) {
        EXPECT_STRNE(each->name, "vlan3999");
        EXPECT_STRNE(each->name, "vlan3998");
    }
}

// ---- Abbreviations ----

TEST(Abbreviation, IsTakenWhenUnique) {
    shell s;
    EXPECT_EQ(arguments_of(s, "sh ip d r o 60"), std::vector<std::string>{"60"});
    EXPECT_TRUE(arguments_of(s, "cl i d r d c").empty());
    s.configure();
    EXPECT_TRUE(arguments_of(s, "n ip dhcp r").empty());
    EXPECT_EQ(relay_commands()[command_called()].text, std::string("no ip dhcp relay"));
}

TEST(Abbreviation, LettersOfEitherCaseAreTheSame) {
    shell s;
    EXPECT_EQ(arguments_of(s, "SHOW Ip dhcp Relay OPTION 61"), std::vector<std::string>{"61"});
    EXPECT_TRUE(arguments_of(s, "Cl I D R D C").empty());
    EXPECT_EQ(s.print("C"), "% Ambiguous command: \"C\"\n");
    EXPECT_EQ(s.print("SHOX"), invalid_at(0));
    s.configure();
    EXPECT_EQ(arguments_of(s, "IP DHCP RELAY INFORMATION POLICY KEEP"), std::vector<std::string>{"keep"});
    EXPECT_EQ(arguments_of(s, "Interface Vlan 10"), std::vector<std::string>{"10"});
    EXPECT_EQ(arguments_of(s, "interface VLAN010"), std::vector<std::string>{"vlan10"});
}

TEST(Abbreviation, AWholeWordWinsOverLongerOnes) {
    shell s;
    s.configure();
    // "relay" is also how "relay-something" would begin; "option" is how "option60" begins.
    EXPECT_TRUE(arguments_of(s, "ip dhcp relay information option").empty());
    s.configure("vlan7");
    EXPECT_EQ(s.print("no ip dhcp relay option"), "% Ambiguous command: \"no ip dhcp relay option\"\n");
    EXPECT_EQ(s.print("end"), "");
    EXPECT_TRUE(arguments_of(s, "show ip dhcp relay option").empty());
}

TEST(Abbreviation, IsAmbiguousAcrossCommands) {
    shell s;
    EXPECT_EQ(s.print("c"), "% Ambiguous command: \"c\"\n");
    EXPECT_EQ(s.run("c"), 1);
    EXPECT_EQ(s.print("  show   i "), "% Ambiguous command: \"show   i\"\n");
    EXPECT_EQ(s.print("show ip dhcp relay option 6"), "% Ambiguous command: \"show ip dhcp relay option 6\"\n");
    // Words that follow do not decide what an earlier one was.
    EXPECT_EQ(s.print("c terminal"), "% Ambiguous command: \"c\"\n");
    s.configure();
    EXPECT_EQ(s.print("e"), "% Ambiguous command: \"e\"\n");
    EXPECT_TRUE(calls.empty());
}

TEST(Abbreviation, CommandsThatTheSessionMayNotUseDoNotCount) {
    shell viewer(2);
    EXPECT_EQ(viewer.print("show ip dhcp relay t"), "% Not allowed at privilege level 2\n");
    EXPECT_TRUE(arguments_of(viewer, "s ip dhcp relay").empty());
    shell all(31);
    EXPECT_EQ(all.print("show ip dhcp relay t"), "% Incomplete command.\n");  // of "trust_tbl <0-4094>"
}

// ---- Faults ----

TEST(Fault, IncompleteLines) {
    shell s;
    for (const char *line : {"show", "show ip", "show ip dhcp", "clear ip dhcp relay detail", "configure", "copy"}) {
        EXPECT_EQ(s.print(line), "% Incomplete command.\n") << line;
        EXPECT_EQ(s.run(line), 1) << line;
    }
    s.configure();
    for (const char *line : {"ip", "ip dhcp relay hops", "interface", "interface vlan", "interface range vlan", "do",
                             "web set dhcp relay ifsettings vlan10"})
        EXPECT_EQ(s.print(line), "% Incomplete command.\n") << line;
    s.configure("vlan7");
    for (const char *line :
         {"ip dhcp relay address", "no ip dhcp relay option60 string", "no ip dhcp relay option60 exact-match address",
          "ip dhcp relay option60 string ab exact-match address"})
        EXPECT_EQ(s.print(line), "% Incomplete command.\n") << line;
    EXPECT_TRUE(calls.empty());
}

TEST(Fault, TheCaretStandsUnderTheWord) {
    shell s;
    EXPECT_EQ(s.print("frobnicate"), invalid_at(0));
    EXPECT_EQ(s.run("frobnicate"), 1);
    EXPECT_EQ(s.print("   frobnicate"), invalid_at(3));
    EXPECT_EQ(s.print("show ip dhcp relay frobnicate now"), invalid_at(19));
    EXPECT_EQ(s.print("show version now"), invalid_at(13));
    EXPECT_EQ(s.print("show ip dhcp relay option 62"), invalid_at(26));
    s.configure();
    EXPECT_EQ(s.print("ip dhcp relay hops 17"), invalid_at(19));
    EXPECT_EQ(s.print("ip dhcp relay hops 0"), invalid_at(19));
    EXPECT_EQ(s.print("interface vlan 4095"), invalid_at(15));
    EXPECT_EQ(s.print("interface vlan4095"), invalid_at(10));
    EXPECT_EQ(s.print("ip dhcp relay information policy keeps"), invalid_at(33));
    s.configure("vlan7");
    EXPECT_EQ(s.print("ip dhcp relay address 10.0.0.256"), invalid_at(22));
    EXPECT_EQ(s.print("no ip dhcp relay option60 address 10.0.0.1 string ab"), invalid_at(43));
    EXPECT_TRUE(calls.empty());
}

TEST(Fault, BytesThatNoWordMayHold) {
    shell s;
    EXPECT_EQ(s.print(std::string_view("show\0version", 12)), invalid_at(0));
    EXPECT_EQ(s.print("show \x1b[31mversion"), invalid_at(5));
    EXPECT_EQ(s.print("show \xff\xfe"), invalid_at(5));
    EXPECT_EQ(s.print("show \x7f"), invalid_at(5));
    EXPECT_EQ(s.print("show version \"open"), invalid_at(13));
    EXPECT_EQ(s.print("show version \\"), invalid_at(13));
    s.configure("vlan7");
    EXPECT_EQ(s.print("no ip dhcp relay option60 string \"a\nb\""), invalid_at(33));
    EXPECT_EQ(s.print("no ip dhcp relay option60 string \"a"), invalid_at(33));
    EXPECT_TRUE(calls.empty());
}

TEST(Fault, ACharacterOfSeveralBytesMovesTheCaretByOne) {
    shell s;
    s.configure("vlan7");
    EXPECT_EQ(s.print("no ip dhcp relay option60 string \xc3\xa4\xc3\xa4 wrong"), invalid_at(36));
}

TEST(Fault, LinesHaveALimit) {
    shell s;
    s.configure("vlan7");
    const std::string head = "no ip dhcp relay option60 string ";
    EXPECT_THAT(arguments_of(s, head + std::string(32768 - head.size(), 'x') + "\n"),
                ElementsAre("string", std::string(32768 - head.size(), 'x')));
    EXPECT_EQ(s.print(head + std::string(32769 - head.size(), 'x')), "% Line too long: 32769 bytes, at most 32768\n");
    EXPECT_EQ(s.run(std::string(1 << 20, 'x')), 1);
}

TEST(Fault, OfInterfaceModeNamesThePlaceThatWasUnderstoodFurthest) {
    shell s;
    s.configure("vlan7");
    EXPECT_EQ(s.print("ip dhcp relay hops 99"), invalid_at(19));
    EXPECT_EQ(s.print("ip dhcp relay address 1"), invalid_at(22));
    EXPECT_EQ(s.print("frobnicate"), invalid_at(0));
    EXPECT_EQ(s.mode(), CLI_MODE_INTERFACE);
}

TEST(Privilege, WhatASessionMayNotUseDoesNotExist) {
    for (const relay_command &row : relay_commands()) {
        shell s(row.privilege - 1);
        // Whatever the mode, that privilege below it says no; the way there takes privilege of its own.
        shell allowed(row.privilege);
        if (row.mode == CLI_MODE_EXEC) {
            EXPECT_EQ(s.run(row.typed), 1) << row.typed;
            EXPECT_TRUE(calls.empty()) << row.typed;
            EXPECT_EQ(allowed.run(row.typed), 0) << row.typed;
        } else if (row.privilege > 15) {
            s.enter(row.mode);
            EXPECT_EQ(s.run(row.typed), 1) << row.typed;
            EXPECT_TRUE(calls.empty()) << row.typed;
            allowed.enter(row.mode);
            EXPECT_EQ(allowed.run(row.typed), 0) << row.typed;
        }
    }
}

TEST(Privilege, AViewerOnlyLooks) {
    shell s(2);
    for (const char *line : {"configure terminal", "write memory", "write erase", "reset relay", "logging level trace",
                             "copy running-config startup-config", "clear ip dhcp relay detail counter",
                             "terminal monitor", "show running-config", "show ip dhcp relay detail"})
        EXPECT_EQ(s.run(line), 1) << line;
    for (const char *line : {"show version", "show ip dhcp relay", "show ip dhcp relay information trusted-sources",
                             "show privilege", "show service status"})
        EXPECT_EQ(s.run(line), 0) << line;
    EXPECT_EQ(s.mode(), CLI_MODE_EXEC);
}

// ---- Numbers from text ----

TEST(TextToNumber, TakesWholeDecimalNumbersOf32Bits) {
    int ok = 7;
    EXPECT_EQ(cmd_str2int("2147483647", &ok), INT_MAX);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(cmd_str2int("-2147483648", &ok), INT_MIN);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(cmd_str2int("+0012", &ok), 12);
    EXPECT_EQ(ok, 1);
    for (const char *bad :
         {"", "-", "+", "2147483648", "-2147483649", "1x", " 1", "1 ", "--1", "0x1", "99999999999999999999999999"}) {
        ok = 7;
        EXPECT_EQ(cmd_str2int(bad, &ok), 0) << bad;
        EXPECT_EQ(ok, 0) << bad;
    }
    EXPECT_EQ(cmd_str2int(nullptr, &ok), 0);
    EXPECT_EQ(ok, 0);
}

TEST(Install, RefusesATextThatIsNone) {
    shell s;  // so that the tree has its commands
    cli_element broken{};
    broken.text = "a [b";
    broken.handler = cli_box::note_call<5>;
    const std::size_t before = ravo::cli::installed_commands().size();
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 4, 2, 0, &broken), -1);
    cli_element without_handler{};
    without_handler.text = "a b";
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 4, 2, 0, &without_handler), -1);
    cli_element good{};
    good.text = "a b";
    good.handler = cli_box::note_call<5>;
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 6, 2, 0, &good), -1) << "there is no such mode";
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 4, 0, 0, &good), -1) << "nor such a privilege";
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 4, 32, 0, &good), -1);
    const char *const one_text[] = {"A", nullptr};
    good.help = one_text;
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 4, 2, 0, &good), -1) << "two words, one text";
    good.help = nullptr;
    good.text = "show version ";
    EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, 4, 2, 0, &good), -1) << "it is there";
    EXPECT_EQ(ravo::cli::installed_commands().size(), before);
}

// ---- Anything at all ----

std::string random_line(std::mt19937 &random) {
    static const std::vector<std::string> pieces = {
        "show", "ip",   "dhcp",     "relay",    "no",  "option60", "string", "exact-match", "address", "interface",
        "vlan", "10",   "10.0.0.1", "\"a b",    "\"",  "\\",       "|",      "include",     "(",       "count",
        "do",   "exit", "end",      "range",    "1-9", "\x01",     "\xff",   "!",           "?",       "configure",
        "web",  "set",  "terminal", "99999999", "",    "e",        "s",      "information", "trusted", "conf"};
    std::string line;
    for (std::size_t i = random() % 9; i > 0; --i) line += pieces[random() % pieces.size()] + (random() % 5 ? " " : "");
    for (std::size_t i = random() % 3; i > 0 && !line.empty(); --i)
        line[random() % line.size()] = static_cast<char>(random());
    return line;
}

TEST(AnyLine, IsAnsweredAndLeavesTheSessionInAMode) {
    std::mt19937 random(20);
    shell s;
    for (int i = 0; i < 20000; ++i) {
        const std::string line = random_line(random);
        s.text.clear();
        const int result = s.run(line);
        const int mode = s.mode();
        ASSERT_TRUE(mode == CLI_MODE_EXEC || mode == CLI_MODE_CONFIGURATION || mode == CLI_MODE_INTERFACE) << line;
        // What is wrong is said, unless the line asks for other lines only.
        const bool filtered = line.find('|') != std::string::npos;
        ASSERT_TRUE(result == 0 || filtered || s.text.find("% ") != std::string::npos) << line;
        (void)ravo::cli::session_help(*s.session, line);
        (void)ravo::cli::session_complete(*s.session, line);
        if (random() % 4 == 0) s.enter(random() % 2 ? CLI_MODE_CONFIGURATION : CLI_MODE_INTERFACE);
    }
}

}  // namespace
