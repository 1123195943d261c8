// Every command that the relay and its platform install, walked: it is explained word by word, and it stands in a mode
// that the command reference has.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/grammar.h"
#include "log/log.h"
#include "ravo_cli.h"
#include "ravo_main.h"

namespace {

using ravo::cli::installed_command;
using testing::AnyOf;
using testing::IsEmpty;
using testing::SizeIs;

// Installs the relay's commands once for all tests; a definition that cannot be installed leaves a line in the log.
const std::vector<installed_command> &commands() {
    static const std::vector<installed_command> all = [] {
        (void)ravo_cli_install(ravo::cli::library_globals());
        return ravo::cli::installed_commands();
    }();
    return all;
}

std::vector<std::string> words(const std::string &text) {
    ravo::cli::grammar form;
    EXPECT_EQ(ravo::cli::compile(text.c_str(), nullptr, &form), "") << text;
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

}  // namespace
