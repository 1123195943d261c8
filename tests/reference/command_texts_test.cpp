// SPDX-License-Identifier: Apache-2.0
// Every command that the relay and its platform install, walked: it can be installed, it is explained word by word,
// what its row says of it fits its text, and the documents have it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "all_commands.h"
#include "books/outcome_words.h"
#include "cli/command_line.h"
#include "cli/grammar.h"
#include "cli/tree.h"
#include "cli/words.h"
#include "commands/relay_messages.h"
#include "log/log.h"
#include "ravo_cli.h"
#include "ravo_cli_result.h"
#include "ravo_main.h"

namespace {

using ravo::cli::command_effect;
using ravo::cli::installed_command;
using testing::AnyOf;
using testing::IsEmpty;
using testing::SizeIs;

// Installs the relay's commands once for all tests; a definition that cannot be installed leaves a line in the log.
const std::vector<installed_command> &commands() {
    static const std::vector<installed_command> all = [] {
        install_platform();
        (void)ravo_cli_install(ravo::cli::library_globals());
        return ravo::cli::installed_commands();
    }();
    return all;
}

std::vector<std::string> words(const std::string &text) {
    ravo::cli::grammar form;
    EXPECT_EQ(ravo::cli::compile(text.c_str(), nullptr, &form).text, "") << text;
    std::vector<std::string> out;
    for (const ravo::cli::item &item : form.items)
        for (const ravo::cli::token &token : item.tokens) out.push_back(token.text);
    return out;
}

TEST(CommandTexts, EveryDefinitionCanBeInstalled) {
    EXPECT_THAT(commands(), SizeIs(testing::Gt(RAVO_COMMANDS)));
    EXPECT_THAT(ravo::platform::log_recent(), IsEmpty());
}

TEST(CommandTexts, EveryCommandOfTheRelayIsThere) {
    std::vector<std::string> missing;
    for (const ravo_command &wanted : ravo_commands) {
        const bool found = std::any_of(commands().begin(), commands().end(), [&](const installed_command &each) {
            return each.text == wanted.element.text && each.mode == wanted.mode && each.privilege == wanted.privilege;
        });
        if (!found) missing.push_back(wanted.element.text);
    }
    EXPECT_THAT(missing, IsEmpty());
}

TEST(CommandTexts, EveryWordHasItsHelpText) {
    for (const installed_command &each : commands()) {
        EXPECT_THAT(each.help, SizeIs(words(each.text).size())) << each.text;
        EXPECT_THAT(each.help, testing::Each(testing::Not(IsEmpty()))) << each.text;
    }
}

TEST(CommandTexts, EveryCommandStandsInAModeOfTheReference) {
    for (const installed_command &each : commands())
        EXPECT_THAT(each.mode, AnyOf(CLI_MODE_EXEC, CLI_MODE_CONFIGURATION, CLI_MODE_INTERFACE)) << each.text;
}

bool begins(const installed_command &each, const char *word) {
    return each.text.starts_with(word);
}

TEST(CommandRows, ThePlatformKnowsEveryCommandOfTheRelay) {
    ASSERT_FALSE(commands().empty());
    EXPECT_THAT(ravo::cli::missing_commands(), IsEmpty()) << "the platform knows commands that the relay has not";
    std::set<std::pair<int, std::string>> known;
    for (const auto &rows : ravo::cli::library_tree().known)
        for (const ravo::cli::known_command &row : rows)
            EXPECT_TRUE(known.emplace(row.mode, row.text).second) << row.text << " is known twice";
    for (const ravo_command &each : ravo_commands)
        EXPECT_EQ(known.count({each.mode, std::string(ravo::cli::trim(each.element.text))}), 1u) << each.element.text;
}

TEST(CommandRows, SayWhatTheTextSays) {
    for (const installed_command &each : commands()) {
        const command_effect effect = each.traits.effect;
        if (begins(each, "show ")) {
            EXPECT_EQ(effect, command_effect::looks) << each.text;
        }
        if (begins(each, "clear ") || begins(each, "debug ") || begins(each, "reset ") || begins(each, "logging ")) {
            EXPECT_EQ(effect, command_effect::daemon) << each.text;
        }
        if (begins(each, "ip ") || begins(each, "no ") || begins(each, "web ")) {
            EXPECT_EQ(effect, command_effect::setting) << each.text;
        }
        if (begins(each, "interface ")) {
            EXPECT_EQ(effect, command_effect::session) << each.text;
        }
        if (begins(each, "copy ") || (begins(each, "write") && each.text != "write terminal")) {
            EXPECT_EQ(effect, command_effect::files) << each.text;
        }
        EXPECT_EQ(each.traits.has_line, each.text == "do LINE") << each.text;
        EXPECT_EQ(each.traits.judged, each.text != "ip dhcp relay") << each.text;
    }
}

TEST(CommandRows, WhatViewersMayGiveIsWhatTheyMaySee) {
    for (const installed_command &each : commands()) {
        const bool for_viewers = each.traits.who == ravo::cli::audience::viewers;
        if (for_viewers) {
            EXPECT_EQ(each.mode, CLI_MODE_EXEC) << each.text;
        }
        // Everything that shows something at their privilege is theirs.
        if (begins(each, "show ")) {
            EXPECT_EQ(for_viewers, each.privilege <= ravo::cli::viewer_privilege) << each.text;
        }
    }
}

TEST(CommandRows, EachDocumentIsDescribed) {
    std::ifstream file(RAVO_SOURCE_FOLDER "/docs/json.md");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(text.empty());
    std::size_t documents = 0;
    for (const installed_command &each : commands()) {
        if (each.traits.json == nullptr) continue;
        ++documents;
        std::string row = "| `" + std::string(ravo::cli::trim(each.text)) + "` |";
        for (const auto &[form, written] :
             {std::pair("60|61", "60\\|61"), {"<1-4094>", "N"}, {"port PORT", "port M/P"}})
            if (const std::size_t at = row.find(form); at != std::string::npos)
                row.replace(at, std::strlen(form), written);
        EXPECT_THAT(text, testing::HasSubstr(row));
    }
    EXPECT_GE(documents, 22u);
}

std::string text_of_schema(const std::string &name) {
    std::ifstream file(RAVO_SOURCE_FOLDER "/docs/schema/" + name + ".schema.json");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// tests/lab/test_schemas.py holds the documents against them.
TEST(CommandRows, EachDocumentHasASchemaOfItsOwn) {
    std::set<std::string> named = {"parts.schema.json"};
    for (const installed_command &each : commands()) {
        if (each.traits.json == nullptr) continue;
        ASSERT_NE(each.traits.schema, nullptr) << each.text;
        EXPECT_TRUE(named.insert(std::string(each.traits.schema) + ".schema.json").second) << each.text;
        // Options that a schema has no words about are left out of its title.
        const std::string title = "\"title\": \"" + each.text.substr(0, each.text.find(" [mac"));
        EXPECT_THAT(text_of_schema(each.traits.schema), testing::HasSubstr(std::string(ravo::cli::trim(title))));
    }
    std::set<std::string> there;
    for (const auto &file : std::filesystem::directory_iterator(RAVO_SOURCE_FOLDER "/docs/schema"))
        there.insert(file.path().filename());
    EXPECT_EQ(there, named);
}

TEST(CommandRows, SchemasKnowEveryOutcomeAndEveryAdvice) {
    const std::string parts = text_of_schema("parts");
    for (const ravo::platform::outcome_name &each : ravo::platform::outcome_words) {
        const std::string word = '"' + std::string(each.word) + '"';
        EXPECT_THAT(parts, testing::HasSubstr("\n        " + word)) << "as an outcome";
        EXPECT_THAT(parts, testing::HasSubstr(word + ": {\"$ref\": \"#/$defs/count\"}")) << "as a counter";
        EXPECT_THAT(text_of_schema("statistics"), testing::HasSubstr(word)) << "as a counter of the total";
    }
}

// The settings that the relay refuses to make twice: each can be told from what it has.
TEST(CommandRows, EachSettingThatIsRefusedTwiceIsCompared) {
    std::vector<std::string> compared;
    for (const installed_command &each : commands())
        if (each.traits.held != nullptr) compared.emplace_back(ravo::cli::trim(each.text));
    EXPECT_THAT(compared, testing::UnorderedElementsAre(
                              "ip dhcp relay address A.B.C.D",
                              "ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D",
                              "ip dhcp relay option61 hex WORD address A.B.C.D", "ip dhcp relay information option",
                              "no ip dhcp relay information option", "ip dhcp relay hops <1-16>",
                              "ip dhcp relay information policy {keep|drop|replace}", "ip dhcp relay information check",
                              "no ip dhcp relay information check"));
}

// The relay's definitions come after the platform's, but its words are its own.
TEST(CommandRows, TheRelayExplainsItsWords) {
    ASSERT_FALSE(commands().empty());
    const ravo::cli::session_ptr s = ravo::cli::session_open({}, 31, "tester");
    std::map<std::string, std::string> help;
    for (const ravo::cli::help_row &row : ravo::cli::session_help(*s, "cle")) help[row.word] = row.text;
    for (const ravo::cli::help_row &row : ravo::cli::session_help(*s, "clear ip dhcp ")) help[row.word] = row.text;
    EXPECT_EQ(help, (std::map<std::string, std::string>{{"clear", "Show running system information"},
                                                        {"relay", "Relay agent"}}));
}

std::string printed;

int note(void * /*handle*/, const char *format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    printed.append(text, static_cast<std::size_t>(length));
    return length;
}

// The first line of what the relay says of a result code, without what differs.
std::string words_of(std::uint32_t code) {
    printed.clear();
    struct cli context {};
    context.print = note;
    EXPECT_EQ(ravo_show_result(&context, code), 1);
    std::string line = printed.substr(0, printed.find('\n'));
    if (line.starts_with("% ")) line.erase(0, 2);
    line.erase(line.find_last_not_of(' ') + 1);
    return line.starts_with("RAVO Err Unhandle errno ") ? "RAVO Err Unhandle errno N" : line;
}

TEST(RelayMessages, EachIsExplained) {
    std::set<std::string> explained, shown;
    for (const ravo::cli::relay_message &each : ravo::cli::relay_messages) explained.insert(each.text);
    for (std::uint32_t code = 1; code <= 32; ++code) shown.insert(words_of(code));
    EXPECT_EQ(shown, explained);
}

}  // namespace
