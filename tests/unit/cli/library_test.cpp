// SPDX-License-Identifier: Apache-2.0
// What is judged when a command is installed: each fault of a row is found, named in the log, and keeps that row out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/command_line.h"
#include "cli/tree.h"
#include "log/log.h"

namespace {

using ravo::cli::audience;
using ravo::cli::command_effect;
using ravo::cli::command_row;
using ravo::cli::command_traits;
using ravo::cli::json_writer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

int run(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/) {
    return 0;
}

int write_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer & /*out*/) {
    return 0;
}

bool always_held(const ravo::cli::asked_setting & /*asked*/) {
    return true;
}

constexpr command_row good = {.mode = CLI_MODE_EXEC,
                              .privilege = 2,
                              .text = "look here",
                              .help = {"Look", "Here"},
                              .handler = run,
                              .traits = {.effect = command_effect::looks, .who = audience::viewers}};

class Rows : public testing::Test {
  protected:
    void TearDown() override { ravo::platform::log_close(); }

    // What the log says of a row; empty when it was installed.
    static std::string fault_of(const command_row &row) {
        cli_tree tree;
        ravo::cli::install_rows(&tree, {&row, 1});
        const std::vector<std::string> log = ravo::platform::log_recent();
        ravo::platform::log_close();
        EXPECT_EQ(tree.commands.size() + log.size(), 1u);
        return log.empty() ? "" : log.front();
    }
    static std::string fault_of(command_traits traits, int privilege = 2) {
        command_row row = good;
        row.traits = traits;
        row.privilege = privilege;
        return fault_of(row);
    }
};

TEST_F(Rows, AGoodOneIsInstalled) {
    EXPECT_EQ(fault_of(good), "");
    EXPECT_EQ(fault_of({.effect = command_effect::looks, .json = write_json, .schema = "look"}), "");
    EXPECT_EQ(fault_of({.effect = command_effect::setting, .held = always_held}, 31), "");
}

TEST_F(Rows, NeedTextHandlerModeAndPrivilege) {
    command_row row = good;
    row.text = nullptr;
    EXPECT_THAT(fault_of(row), HasSubstr("commands: \"\" cannot be installed: no words"));
    row = good;
    row.text = "look [here";
    EXPECT_THAT(fault_of(row), HasSubstr("commands: \"look [here\" cannot be installed: a \"[\" that is not closed"));
    row = good;
    row.handler = nullptr;
    EXPECT_THAT(fault_of(row), HasSubstr("it has no handler"));
    row = good;
    row.mode = 7;
    EXPECT_THAT(fault_of(row), HasSubstr("there is no mode 7"));
    row = good;
    row.privilege = 0;
    EXPECT_THAT(fault_of(row), HasSubstr("there is no privilege 0"));
    row.privilege = 32;
    EXPECT_THAT(fault_of(row), HasSubstr("there is no privilege 32"));
}

TEST_F(Rows, ExplainEachWord) {
    command_row row = good;
    row.help = {"Look"};
    EXPECT_THAT(fault_of(row), HasSubstr("it has 2 words and help for 1"));
    row.help = {"Look", "Here", "There"};
    EXPECT_THAT(fault_of(row), HasSubstr("it has 2 words and help for 3"));
    row.help = {"Look", ""};
    EXPECT_THAT(fault_of(row), HasSubstr("it has 2 words and help for 2"));
    row.help = {};
    EXPECT_THAT(fault_of(row), HasSubstr("it has 2 words and help for 0"));
}

TEST_F(Rows, HaveTraitsThatFitTogether) {
    EXPECT_THAT(fault_of({.effect = command_effect::setting, .who = audience::viewers}), HasSubstr("for viewers"));
    EXPECT_THAT(fault_of({.effect = command_effect::daemon, .who = audience::viewers}), HasSubstr("for viewers"));
    EXPECT_THAT(fault_of({.effect = command_effect::files, .who = audience::viewers}), HasSubstr("for viewers"));
    EXPECT_THAT(fault_of({.effect = command_effect::looks, .who = audience::viewers}, 3), HasSubstr("for viewers"));
    EXPECT_EQ(fault_of({.effect = command_effect::session, .who = audience::viewers}), "");
    EXPECT_THAT(fault_of({.effect = command_effect::setting, .json = write_json}), HasSubstr("it has JSON"));
    EXPECT_THAT(fault_of({.effect = command_effect::looks, .json = write_json}), HasSubstr("its schema"));
    EXPECT_THAT(fault_of({.effect = command_effect::looks, .schema = "look"}), HasSubstr("its schema"));
    EXPECT_THAT(fault_of({.effect = command_effect::looks, .held = always_held}), HasSubstr("it is compared"));
}

TEST_F(Rows, AreInstalledOnceAMode) {
    cli_tree tree;
    const command_row rows[] = {good, good};
    ravo::cli::install_rows(&tree, rows);
    EXPECT_EQ(tree.commands.size(), 1u);
    EXPECT_THAT(ravo::platform::log_recent(), ElementsAre(HasSubstr("it is there already")));
    command_row elsewhere = good;
    elsewhere.mode = CLI_MODE_CONFIGURATION;
    ravo::cli::install_rows(&tree, {&elsewhere, 1});
    EXPECT_EQ(tree.commands.size(), 2u);
}

TEST_F(Rows, OneThatIsBadDoesNotKeepOutTheOthers) {
    cli_tree tree;
    command_row bad = good;
    bad.handler = nullptr;
    bad.text = "look there";
    const command_row rows[] = {bad, good};
    ravo::cli::install_rows(&tree, rows);
    EXPECT_EQ(tree.commands.size(), 1u);
}

TEST_F(Rows, OfTheDaemonGetWhatThePlatformKnowsOfThem) {
    static constexpr ravo::cli::known_command known[] = {
        {CLI_MODE_EXEC,
         "look",
         {.effect = command_effect::looks, .who = audience::viewers, .json = write_json, .schema = "look"}},
        {CLI_MODE_CONFIGURATION, "look", {.effect = command_effect::daemon}},
        {CLI_MODE_EXEC, "never comes", {}},
    };
    cli_tree *tree = ravo::cli::library_globals()->tree;
    ravo::cli::expect_commands(tree, known);
    EXPECT_THAT(ravo::cli::missing_commands(), ElementsAre("look", "look", "never comes"));
    static cli_element look = {"look ", run, nullptr, {}}, other = {"other", run, nullptr, {}};
    ASSERT_EQ(cli_install_gen(tree, CLI_MODE_EXEC, 2, 0, &look), 0);
    ASSERT_EQ(cli_install_gen(tree, CLI_MODE_CONFIGURATION, 2, 0, &look), 0);
    ASSERT_EQ(cli_install_gen(tree, CLI_MODE_EXEC, 2, 0, &other), 0);
    EXPECT_THAT(ravo::cli::missing_commands(), ElementsAre("never comes"));
    const auto &commands = ravo::cli::library_tree().commands;
    ASSERT_GE(commands.size(), 3u);
    const auto *last = &commands[commands.size() - 1];
    EXPECT_EQ(last[-2].traits.json, write_json);
    EXPECT_EQ(last[-2].traits.who, audience::viewers);
    EXPECT_EQ(last[-1].traits.effect, command_effect::daemon);
    EXPECT_EQ(last->traits.effect, command_effect::setting) << "what is not known is a setting for operators";
    EXPECT_EQ(last->traits.who, audience::operators);
    EXPECT_THAT(ravo::platform::log_recent(), IsEmpty());
}

}  // namespace
