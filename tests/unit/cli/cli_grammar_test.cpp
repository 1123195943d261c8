// SPDX-License-Identifier: Apache-2.0
// Words, command texts taken apart, and words held against tokens.
#include "cli/grammar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/vlan_list.h"
#include "cli_box.h"

namespace {

using ravo::cli::argument_of;
using ravo::cli::compile;
using ravo::cli::display_columns;
using ravo::cli::fit;
using ravo::cli::fits;
using ravo::cli::grammar;
using ravo::cli::item;
using ravo::cli::next_steps;
using ravo::cli::quote_word;
using ravo::cli::read_vlan_list;
using ravo::cli::split;
using ravo::cli::split_line;
using ravo::cli::step;
using ravo::cli::token;
using ravo::cli::token_kind;
using ravo::cli::word;
using testing::ElementsAre;

// ---- Words ----

std::vector<std::string> texts(std::string_view line) {
    std::vector<std::string> out;
    for (const word &each : split(line).words) out.push_back(each.text);
    return out;
}

TEST(Words, AreSplitAtBlanksAndTabs) {
    EXPECT_THAT(texts("  show\tip   dhcp "), ElementsAre("show", "ip", "dhcp"));
    EXPECT_TRUE(texts(" \t ").empty());
}

TEST(Words, KnowTheirPlaces) {
    const split_line line = split("  no  \"a b\"c");
    ASSERT_EQ(line.words.size(), 2u);
    EXPECT_EQ(line.words[0].column, 2u);
    EXPECT_EQ(line.words[0].end, 4u);
    EXPECT_EQ(line.words[1].column, 6u);
    EXPECT_EQ(line.words[1].end, 12u);
    EXPECT_EQ(line.words[1].text, "a bc");
    EXPECT_FALSE(line.words[0].quoted);
    EXPECT_TRUE(line.words[1].quoted);
}

TEST(Words, QuotesAndBackslashesKeepCharacters) {
    EXPECT_THAT(texts("\"a b\" a\\ b \"a\\\"b\" a\\\\b \"!\" \\? \"\" x\"y z\"w"),
                ElementsAre("a b", "a b", "a\"b", "a\\b", "!", "?", "", "xy zw"));
}

TEST(Words, WithoutAnEndAreMalformed) {
    EXPECT_TRUE(split("a \"b c").words.back().malformed);
    EXPECT_TRUE(split("a \"b c").words.back().open_quote);
    EXPECT_TRUE(split("a b\\").words.back().malformed);
    EXPECT_FALSE(split("a b\\\\").words.back().malformed);
}

TEST(Words, WithControlCharactersAreMalformed) {
    for (int c = 0; c < 0x20; ++c) {
        if (c == '\t') continue;
        EXPECT_TRUE(split(std::string("a") + static_cast<char>(c) + "b").words.front().malformed) << c;
    }
    EXPECT_TRUE(split("a\x7f").words.front().malformed);
    EXPECT_FALSE(split("\xc3\xa4").words.front().malformed);
}

TEST(Words, EndAtAPipeThatBeginsAWord) {
    const split_line line = split("show version | include a|b");
    EXPECT_EQ(line.words.size(), 2u);
    EXPECT_EQ(line.pipe, 13u);
    EXPECT_THAT(texts("a|b \"|\" c"), ElementsAre("a|b", "|", "c"));
}

TEST(Words, QuotedTextIsReadBackUnchanged) {
    for (const std::string text : {"plain", "", "two words", "\"", "\\", "!", "?", "|", "a\tb", "\\\"", "\xc3\xa4 b",
                                   "ends\\", "tab\\ \" mixed !?|"}) {
        const split_line line = split("x " + quote_word(text) + " y");
        ASSERT_EQ(line.words.size(), 3u) << text;
        EXPECT_EQ(line.words[1].text, text);
        EXPECT_FALSE(line.words[1].malformed) << text;
    }
    EXPECT_EQ(quote_word("plain"), "plain");
    EXPECT_EQ(quote_word("two words"), "\"two words\"");
}

TEST(Words, CharactersOfSeveralBytesTakeOneColumn) {
    EXPECT_EQ(display_columns("a\xc3\xa4 b", 4), 3u);
    EXPECT_EQ(display_columns("ab", 9), 2u);
}

// ---- Command texts ----

// A grammar as text: optional items in brackets, choices in braces, argument tokens starred.
std::string shape(const grammar &form) {
    std::string out;
    for (const item &part : form.items) {
        std::string tokens;
        for (const token &each : part.tokens)
            tokens += (tokens.empty() ? "" : part.choice ? "|" : " ") + each.text + (each.argument ? "*" : "");
        if (part.choice) tokens = "{" + tokens + "}";
        out += (out.empty() ? "" : " ") + (part.optional ? "[" + tokens + "]" : tokens);
    }
    return out;
}

std::string shape_of(const char *text) {
    grammar form;
    const ravo::fault wrong = compile(text, nullptr, &form);
    return wrong ? "fault: " + wrong.text : shape(form);
}

TEST(Grammar, TakesEveryCommandOfTheRelay) {
    for (const cli_box::relay_command &row : cli_box::relay_commands()) {
        grammar form;
        EXPECT_EQ(compile(row.text, nullptr, &form).text, "") << row.text;
    }
}

TEST(Grammar, KnowsEachForm) {
    EXPECT_EQ(shape_of("show ip dhcp relay "), "show ip dhcp relay");
    EXPECT_EQ(shape_of("ip dhcp relay hops <1-16>"), "ip dhcp relay hops <1-16>*");
    EXPECT_EQ(shape_of("show ip dhcp relay option [60|61]"), "show ip dhcp relay option [{60*|61*}]");
    EXPECT_EQ(shape_of("no ip dhcp relay option60 [string WORD] [exact-match|partial-match] [address A.B.C.D]"),
              "no ip dhcp relay option60 [string* WORD*] [{exact-match*|partial-match*}] [address* A.B.C.D*]");
    EXPECT_EQ(shape_of("policy {keep|drop|replace}"), "policy {keep*|drop*|replace*}");
    EXPECT_EQ(shape_of("web set IFNAME A.B.C.D STATE"), "web set IFNAME* A.B.C.D* STATE*");
    EXPECT_EQ(shape_of("do LINE"), "do LINE*");
    EXPECT_EQ(shape_of("a[b]{c|d}e"), "a [b*] {c*|d*} e");
}

TEST(Grammar, SaysWhatIsWrong) {
    EXPECT_EQ(shape_of(nullptr), "fault: no words");
    EXPECT_EQ(shape_of("  "), "fault: no words");
    EXPECT_EQ(shape_of("a [b"), "fault: a \"[\" that is not closed");
    EXPECT_EQ(shape_of("a {b|c"), "fault: a \"{\" that is not closed");
    EXPECT_EQ(shape_of("a []"), "fault: an empty group");
    EXPECT_EQ(shape_of("a {b|}"), "fault: \"\" is no word of a command");
    EXPECT_EQ(shape_of("[a] b"), "fault: it begins with an optional group");
    EXPECT_EQ(shape_of("a <1-"), "fault: \"<1-\" is no word of a command");
    EXPECT_EQ(shape_of("a <5-1>"), "fault: \"<5-1>\" is no word of a command");
    EXPECT_EQ(shape_of("a <1-99999999999>"), "fault: \"<1-99999999999>\" is no word of a command");
    EXPECT_EQ(shape_of("a Mixed"), "fault: \"Mixed\" is no word of a command");
    EXPECT_EQ(shape_of("a {b|WORD}"), "fault: \"WORD\" cannot be chosen: only keywords can");
}

TEST(Grammar, EachWordHasItsHelp) {
    const char *const help[] = {"h-no", "h-string", "h-word", "h-exact", "h-partial", nullptr};
    grammar form;
    ASSERT_EQ(compile("no [string WORD] [exact|partial] more", help, &form).text, "");
    EXPECT_EQ(form.items[0].tokens[0].help, "h-no");
    EXPECT_EQ(form.items[1].tokens[1].help, "h-word");
    EXPECT_EQ(form.items[2].tokens[1].help, "h-partial");
    EXPECT_EQ(form.items[3].tokens[0].help, "");
}

// ---- What may come next ----

std::vector<std::string> next_texts(const grammar &form, ravo::cli::position at, bool *ends) {
    std::vector<step> steps;
    *ends = next_steps(form, at, &steps);
    std::vector<std::string> out;
    for (const step &each : steps) out.push_back(each.what->text);
    return out;
}

TEST(Grammar, OptionalPartsMayBeSkipped) {
    grammar form;
    ASSERT_EQ(compile("no [string WORD] [exact|partial] [address A.B.C.D]", nullptr, &form).text, "");
    bool ends = false;
    EXPECT_THAT(next_texts(form, {0, 0}, &ends), ElementsAre("no"));
    EXPECT_FALSE(ends);
    EXPECT_THAT(next_texts(form, {1, 0}, &ends), ElementsAre("string", "exact", "partial", "address"));
    EXPECT_TRUE(ends);
    EXPECT_THAT(next_texts(form, {1, 1}, &ends), ElementsAre("WORD"));
    EXPECT_FALSE(ends);
    EXPECT_THAT(next_texts(form, {3, 0}, &ends), ElementsAre("address"));
    EXPECT_TRUE(ends);
    EXPECT_TRUE(next_texts(form, {4, 0}, &ends).empty());
    EXPECT_TRUE(ends);
}

// ---- Words against tokens ----

token token_of(const char *text) {
    grammar form;
    EXPECT_EQ(compile((std::string("x ") + text).c_str(), nullptr, &form).text, "");
    return form.items.at(1).tokens.at(0);
}

fit fit_of(const char *text, std::string_view typed) {
    const split_line line = split(typed);
    EXPECT_EQ(line.words.size(), 1u) << typed;
    return fits(token_of(text), line.words.front());
}

TEST(Fit, Keywords) {
    EXPECT_EQ(fit_of("information", "information"), fit::exact);
    EXPECT_EQ(fit_of("information", "i"), fit::abbreviated);
    EXPECT_EQ(fit_of("information", "informations"), fit::none);
    EXPECT_EQ(fit_of("information", "INFORMATION"), fit::exact);
    EXPECT_EQ(fit_of("information", "Inf"), fit::abbreviated);
    EXPECT_EQ(fit_of("information", "\"information\""), fit::none);
    EXPECT_EQ(fit_of("information", "\"\""), fit::none);
}

TEST(Fit, Numbers) {
    for (const char *good : {"1", "4094", "010", "0000000000000000000000000010"})
        EXPECT_EQ(fit_of("<1-4094>", good), fit::value) << good;
    for (const char *bad : {"0", "4095", "-1", "+1", "1x", "0x1", "1.0", "4294967297", "18446744073709551617",
                            "99999999999999999999999999", "\"10\""})
        EXPECT_EQ(fit_of("<1-4094>", bad), fit::none) << bad;
    EXPECT_EQ(fit_of("<0-4294967295>", "4294967295"), fit::value);
    EXPECT_EQ(fit_of("<0-4294967295>", "4294967296"), fit::none);
}

TEST(Fit, Addresses) {
    for (const char *good : {"0.0.0.0", "10.0.0.1", "255.255.255.255"})
        EXPECT_EQ(fit_of("A.B.C.D", good), fit::value) << good;
    for (const char *bad : {"10.0.0", "10.0.0.1.2", "10.0.0.256", "10.0.0.", "1", "0x0a000001", "10.0.0.01",
                            "10.0.0.-1", "a.b.c.d", "10.0.0.1/24", "::1", "10..0.1", "\"10.0.0.1\""})
        EXPECT_EQ(fit_of("A.B.C.D", bad), fit::none) << bad;
}

TEST(Fit, InterfaceNames) {
    for (const char *good : {"vlan10", "vlan010", "10", "010", "vlan4094", "VLAN10", "Vlan010"})
        EXPECT_EQ(fit_of("IFNAME", good), fit::value) << good;
    for (const char *bad : {"vlan", "vlan0", "vlan4095", "0", "4095", "eth-none", "VLAN", "VLAN0", "vlan10x", "vlan-1",
                            "vlan0000000000000000000010"})
        EXPECT_EQ(fit_of("IFNAME", bad), fit::none) << bad;
}

TEST(Fit, AnyWord) {
    for (const char *typed : {"a", "-", "\"a b\"", "\"\"", "\\!", "\xc3\xa4", "0x12"}) {
        EXPECT_EQ(fit_of("WORD", typed), fit::any) << typed;
        EXPECT_EQ(fit_of("STATE", typed), fit::any) << typed;
    }
    EXPECT_EQ(fit_of("WORD", "a\x01"), fit::none);
    EXPECT_EQ(fit_of("WORD", "\"a"), fit::none);
}

std::string argument(const char *text, std::string_view typed) {
    return argument_of(token_of(text), split(typed).words.front());
}

TEST(Argument, IsWhatTheUserMeant) {
    EXPECT_EQ(argument("{keep|drop}", "k"), "keep");
    EXPECT_EQ(argument("IFNAME", "vlan010"), "vlan10");
    EXPECT_EQ(argument("IFNAME", "10"), "vlan10");
    EXPECT_EQ(argument("<1-4094>", "010"), "010");
    EXPECT_EQ(argument("<1-4094>", "00000000000000000000000010"), "10");
    EXPECT_EQ(argument("<0-4094>", "000000000000000000000"), "0");
    EXPECT_EQ(argument("WORD", "\"a b\""), "a b");
}

// ---- Lists of VLANs ----

std::string list_fault(std::string_view text) {
    std::vector<std::uint16_t> out = {99};
    const ravo::fault wrong = read_vlan_list(text, &out);
    EXPECT_EQ(out, std::vector<std::uint16_t>{99}) << text;
    return wrong.text;
}

TEST(VlanList, IsReadInItsOrder) {
    std::vector<std::uint16_t> out;
    EXPECT_EQ(read_vlan_list("30,10-12,11,4094", &out).text, "");
    EXPECT_THAT(out, ElementsAre(30, 10, 11, 12, 4094));
    EXPECT_EQ(read_vlan_list("1-4094", &out).text, "");
    EXPECT_EQ(out.size(), 4094u);
}

TEST(VlanList, NamesTheItemThatIsWrong) {
    const std::string neither = " is neither a VLAN id from 1 to 4094 nor a range of them such as 20-30";
    for (const std::string bad : {"0", "4095", "x", "-5", "5-", "1-2-3", "99999999999999999999"})
        EXPECT_EQ(list_fault("10," + bad), "\"" + bad + "\"" + neither);
    EXPECT_EQ(list_fault(""), "\"\"" + neither);
    EXPECT_EQ(list_fault("10,,20"), "\"\"" + neither);
    EXPECT_EQ(list_fault("10,"), "\"\"" + neither);
    EXPECT_EQ(list_fault("30-20"), "\"30-20\" is a range whose end is below its beginning");
}

}  // namespace
