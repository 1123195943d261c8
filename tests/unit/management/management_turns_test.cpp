// SPDX-License-Identifier: Apache-2.0
// Commands that take long: others are served meanwhile, and they can be ended.
#include "management/management_turns.h"

#include "management_client.h"

namespace {

using testing::HasSubstr;

bool enough = false;  // "show test enough" was given

// Prints until somebody else has had enough.
int print_until_enough(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    while (!enough)
        if (cli->print(cli->print_handle, "more\n") < 0) return 9;
    return 0;
}

int have_enough(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/) {
    enough = true;
    return 0;
}

int seen_between = 0;

// A change takes its time too, and nobody else has a turn before it is done.
int change_slowly(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const bool before = enough;
    for (int i = 0; i < 20000; ++i) cli->print(cli->print_handle, "changing\n");
    seen_between += enough == before ? 0 : 1;
    return 0;
}

const char *const texts[] = {"Test", "Test", "Test", nullptr};
cli_element turn_commands[] = {{"show test endless", print_until_enough, texts, {}},
                               {"show test enough", have_enough, texts, {}},
                               {"test slowly", change_slowly, nullptr, {}}};
constexpr ravo::cli::known_command shown_here[] = {{CLI_MODE_EXEC, "show test endless", shows},
                                                   {CLI_MODE_EXEC, "show test enough", shows}};

struct ManagementTurns : Management {
    ManagementTurns() {
        static bool done = false;
        enough = false;
        if (std::exchange(done, true)) return;
        ravo::cli::expect_commands(ravo::cli::library_globals()->tree, shown_here);
        for (cli_element &element : turn_commands)
            EXPECT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, CLI_MODE_EXEC, 2, 0, &element), 0);
    }
};

TEST_F(ManagementTurns, OthersAreServedWhileACommandRuns) {
    open();
    client slow(path), other(path);
    greet(slow);
    greet(other);
    slow.run("show test endless | count more");
    for (int i = 0; i < 10; ++i) expect_served(other);
    EXPECT_EQ(status_of((other.run("show test enough"), other.answer())).result, 0);
    EXPECT_EQ(status_of(slow.answer()).result, 0);
}

TEST_F(ManagementTurns, AllOfManyGoOn) {
    open();
    std::vector<std::unique_ptr<client>> slow;
    for (int i = 0; i < 20; ++i) {
        slow.push_back(std::make_unique<client>(path));
        greet(*slow.back());
        slow.back()->run("show test endless | exclude m|m*o+r.*e");
    }
    client other(path);
    greet(other);
    expect_served(other);
    other.run("show test enough");
    EXPECT_EQ(status_of(other.answer()).result, 0);
    for (const auto &each : slow) EXPECT_EQ(status_of(each->answer()).result, 0);
}

TEST_F(ManagementTurns, TheRequestsOfOneSessionWaitForEachOther) {
    open();
    client slow(path), other(path);
    greet(slow);
    greet(other);
    slow.run("show test endless | exclude .", 1);
    slow.run("show privilege", 2);
    expect_served(other);
    other.run("show test enough");
    (void)other.answer();
    EXPECT_EQ(status_of(slow.answer()).id, 1U);
    EXPECT_EQ(status_of(slow.answer()).id, 2U);
}

TEST_F(ManagementTurns, AChangeIsMadeInOnePiece) {
    open();
    client changer(path), other(path);
    greet(changer);
    greet(other);
    changer.run("test slowly");
    other.run("show test enough");
    EXPECT_EQ(status_of(changer.answer()).result, 0);
    EXPECT_EQ(status_of(other.answer()).result, 0);
    EXPECT_EQ(seen_between, 0);
    EXPECT_TRUE(enough);
}

TEST_F(ManagementTurns, AnInterruptEndsACommand) {
    open();
    client c(path);
    greet(c);
    c.run("show test endless", 5);
    EXPECT_EQ(c.next().type, frame_type::output);
    c.send_frame(protocol::make_frame(frame_type::interrupt, ""));
    const protocol::status_message status = status_of(c.answer());
    EXPECT_EQ(status.id, 5U);
    EXPECT_EQ(status.result, 1);
    expect_served(c);
}

TEST_F(ManagementTurns, WhoLeavesTakesHisCommandAlong) {
    open();
    client c(path), other(path);
    greet(c);
    greet(other);
    c.run("show test endless | count");
    expect_served(other);
    c.leave();
    EXPECT_TRUE(serve_until([] { return management_sessions() == 1; }));
    expect_served(other);
}

TEST_F(ManagementTurns, ClosingEndsWhatRuns) {
    open();
    client c(path);
    greet(c);
    c.run("show test endless");
    EXPECT_EQ(c.next().type, frame_type::output);
    platform::management_close();
    EXPECT_EQ(management_sessions(), 0U);
}

}  // namespace
