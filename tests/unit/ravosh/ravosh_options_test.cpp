// SPDX-License-Identifier: Apache-2.0
// The command line of ravosh: every option in each of its forms, and the whole line for each fault.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "options.h"

namespace {

using ravo::client::parse_options;
using ravo::client::shell_options;
using testing::ElementsAre;
using words = std::vector<std::string>;

shell_options read(const words &given) {
    shell_options out;
    EXPECT_EQ(parse_options(given, &out).text, "");
    return out;
}

TEST(RavoshOptions, WithoutWordsItTalksToTheUsualDaemon) {
    const shell_options o = read({});
    EXPECT_EQ(o.socket, "/run/ravo/ravod.sock");
    EXPECT_TRUE(o.commands.empty());
    EXPECT_FALSE(o.has_file || o.stop_on_error || o.has_replace || o.dry_run || o.version || o.help);
    EXPECT_EQ(o.confirm, 0);
}

TEST(RavoshOptions, ValuesStandBehindASignOrAreTheNextWord) {
    EXPECT_EQ(read({"--management", "/tmp/a b"}).socket, "/tmp/a b");
    EXPECT_EQ(read({"--management=/tmp/s"}).socket, "/tmp/s");
    EXPECT_THAT(read({"-c", "show version", "-cshow users", "-c", "--help"}).commands,
                ElementsAre("show version", "show users", "--help"));
    EXPECT_EQ(read({"--replace=f", "--confirm=1440"}).confirm, 1440);
    EXPECT_EQ(read({"--replace", "f", "--confirm", "1"}).replace, "f");
}

TEST(RavoshOptions, FileStandsAnywhere) {
    const shell_options o = read({"--stop-on-error", "file", "-c", "end"});
    EXPECT_TRUE(o.has_file && o.stop_on_error);
    EXPECT_EQ(o.file, "file");
    EXPECT_EQ(read({"-"}).file, "-");
    EXPECT_EQ(read({"--", "--help"}).file, "--help");
}

TEST(RavoshOptions, HelpAndVersion) {
    EXPECT_TRUE(read({"--help"}).help);
    EXPECT_TRUE(read({"-h"}).help);
    EXPECT_TRUE(read({"--version"}).version);
    EXPECT_EQ(std::string(ravo::client::help_text()).substr(0, 15), "Usage: ravosh [");
}

TEST(RavoshOptions, EachFaultIsNamed) {
    const std::string minutes = "option --confirm needs minutes from 1 to 1440, not ";
    const std::vector<std::pair<words, std::string>> rows = {
        {{"-c"}, "option -c needs a command"},
        {{"--management"}, "option --management needs the path of a socket"},
        {{"--management="}, "option --management needs the path of a socket"},
        {{"--replace"}, "option --replace needs a file"},
        {{"--replace="}, "option --replace needs a file"},
        {{"--replace", "a", "--replace", "b"}, "more than one file to replace by"},
        {{"--confirm"}, "option --confirm needs minutes"},
        {{"--replace", "a", "--confirm", "0"}, minutes + "\"0\""},
        {{"--replace", "a", "--confirm", "1441"}, minutes + "\"1441\""},
        {{"--replace", "a", "--confirm", "5m"}, minutes + "\"5m\""},
        {{"--replace", "a", "--confirm="}, minutes + "\"\""},
        {{"--replace", "a", "--confirm", "99999999999"}, minutes + "\"99999999999\""},
        {{"--dry-run"}, "--dry-run and --confirm belong to --replace"},
        {{"--confirm", "5"}, "--dry-run and --confirm belong to --replace"},
        {{"--replace", "a", "-c", "end"}, "--replace goes without commands and without another file"},
        {{"--replace", "a", "b"}, "--replace goes without commands and without another file"},
        {{"a", "b"}, "more than one file: \"a\" and \"b\""},
        {{"--", "a", "--help"}, "more than one file: \"a\" and \"--help\""},
        {{"--wrong"}, "unknown option \"--wrong\""},
        {{"--managementx"}, "unknown option \"--managementx\""},
    };
    for (const auto &[given, fault] : rows) {
        shell_options out;
        EXPECT_EQ(parse_options(given, &out).text, fault) << testing::PrintToString(given);
    }
}

}  // namespace
