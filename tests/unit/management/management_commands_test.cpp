// SPDX-License-Identifier: Apache-2.0
// "show users" and "clear session".
#include "management_client.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

std::string text_of(client &c, const std::string &line) {
    c.run(line);
    const std::vector<frame> got = c.answer();
    return got.size() == 2 ? got[0].payload : std::string("no text");
}

TEST_F(Management, ShowsWhoseItsSessionsAre) {
    open();
    client first(path), second(path);
    greet(first);
    greet(second);
    second.run("configure terminal");
    (void)second.answer();
    const std::string pid = std::to_string(getpid());
    const std::string text = text_of(first, "show users");
    EXPECT_THAT(text, StartsWith("Session  User            Process  Terminal  Privilege  Since                Idle\n"));
    const std::string second_row = text.substr(text.find('\n', text.find('\n') + 1) + 1);
    EXPECT_THAT(second_row, AllOf(StartsWith("      2  root"), HasSubstr(" " + pid + "  "), EndsWith("  0 s\n")));
}

TEST_F(Management, ShowsItsSessionsAsJson) {
    open();
    client c(path);
    greet(c);
    EXPECT_THAT(text_of(c, "show users | json"),
                AllOf(HasSubstr("\"session\": 1,\n      \"user\": \"root\",\n      \"uid\": 0,\n      \"process\": " +
                                std::to_string(getpid())),
                      HasSubstr("\"privilege\": 31,\n      \"since\": \"20"), HasSubstr("\"busy\": true")));
}

TEST_F(Management, EndsASessionThatSomebodyClears) {
    open();
    client first(path), second(path);
    greet(first);
    greet(second);
    first.run("clear session 2");
    EXPECT_EQ(status_of(first.answer()).result, 0);
    EXPECT_EQ(refusal_of(second.next()), "7 user root cleared it");
    second.expect_closed();
    EXPECT_EQ(text_of(first, "clear session 2"), "% There is no session 2; \"show users\" lists them\n");
    expect_served(first);
}

TEST_F(Management, WhoClearsHisOwnSessionIsGone) {
    open();
    client c(path);
    greet(c);
    c.run("clear session 1");
    EXPECT_EQ(refusal_of(c.next()), "7 user root cleared it");
    c.expect_closed();
}

}  // namespace
