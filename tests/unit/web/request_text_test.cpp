// SPDX-License-Identifier: Apache-2.0
#include "request_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ravo::web;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(RequestText, TakesATargetApart) {
    const auto t = read_target("/api/v1/clients/02%3A00?search=a%20b&limit=5");
    ASSERT_TRUE(t);
    EXPECT_THAT(t->path, ElementsAre("api", "v1", "clients", "02:00"));
    EXPECT_EQ(query_value(t->query, "search"), "a b");
    EXPECT_EQ(query_number(t->query, "limit", 1, 10), 5u);
    EXPECT_THAT(read_target("/")->path, IsEmpty());
    EXPECT_EQ(read_target("/?x=1")->query, "x=1");
}

TEST(RequestText, RefusesTargetsThatLeadElsewhere) {
    for (const char *uri : {"", "x", "http://other/", "*", "/..", "/a/../b", "/%2e%2e", "/a%2Fb", "/a%5cb", "/%00",
                            "/a%0ab", "/%", "/%4", "/%zz", "/."})
        EXPECT_FALSE(read_target(uri)) << uri;
    EXPECT_TRUE(read_target("/" + std::string(longest_uri - 1, 'a')));
    EXPECT_FALSE(read_target("/" + std::string(longest_uri, 'a')));
    std::string deep;
    for (int i = 0; i < 17; ++i) deep += "/a";
    EXPECT_FALSE(read_target(deep));
    EXPECT_TRUE(read_target(deep.substr(2)));
}

TEST(RequestText, ReadsNumbersOfAQuery) {
    EXPECT_EQ(query_number("", "limit", 7, 10), 7u);
    EXPECT_EQ(query_number("limit=10", "limit", 7, 10), 10u);
    for (const char *query :
         {"limit=11", "limit=-1", "limit=", "limit=1x", "limit=99999999999999999999999", "limit=%zz"})
        if (std::string_view(query) != "limit=%zz") {
            EXPECT_FALSE(query_number(query, "limit", 7, 10)) << query;
        }
}

TEST(RequestText, FindsCookiesAndTokens) {
    EXPECT_EQ(cookie_value("a=1; ravo-session=xyz; b=2", "ravo-session"), "xyz");
    EXPECT_EQ(cookie_value("ravo-session=xyz", "ravo-session"), "xyz");
    EXPECT_EQ(cookie_value("not-ravo-session=xyz", "ravo-session"), "");
    EXPECT_EQ(cookie_value("", "ravo-session"), "");
    EXPECT_EQ(bearer_token("Bearer abc"), "abc");
    EXPECT_EQ(bearer_token(" bearer  abc "), "abc");
    EXPECT_EQ(bearer_token("Basic abc"), "");
    EXPECT_EQ(bearer_token("Bearer"), "");
}

TEST(RequestText, ComparesSecrets) {
    EXPECT_TRUE(same_secret("abc", "abc"));
    for (const char *other : {"", "ab", "abd", "abcabc", "bbc"}) EXPECT_FALSE(same_secret("abc", other)) << other;
    EXPECT_TRUE(same_secret("", ""));
    EXPECT_FALSE(same_secret("", "a"));
}

std::string read(std::string_view body, std::vector<body_member> *members) {
    return read_body(body, members).text;
}

TEST(RequestText, ReadsABodyOfExactlyTheseMembers) {
    std::vector<body_member> members = {{"address", 15}, {"trusted"}};
    EXPECT_EQ(read(R"({"address":"192.0.2.1","trusted":true})", &members), "");
    EXPECT_EQ(members[0].text, "192.0.2.1");
    EXPECT_TRUE(members[1].flag);
    EXPECT_EQ(read("", &members), "the body must be a JSON object");
    EXPECT_EQ(read("[1]", &members), "the body must be a JSON object");
    EXPECT_EQ(read(std::string(3000, '['), &members), "the body must be a JSON object");
    EXPECT_EQ(read(R"({"address":"a"})", &members), "\"trusted\" is missing");
    EXPECT_EQ(read(R"({"address":1,"trusted":true})", &members), "\"address\" must be a text");
    EXPECT_EQ(read(R"({"address":"a","trusted":1})", &members), "\"trusted\" must be true or false");
    EXPECT_EQ(read(R"({"address":"a","trusted":true,"x":1})", &members),
              "the body has a member that is not known here");
    EXPECT_EQ(read(R"({"address":"a\nb","trusted":true})", &members), "\"address\" must not have control characters");
    EXPECT_EQ(read(R"({"address":"0123456789abcdef","trusted":true})", &members),
              "\"address\" must not be longer than 15 bytes");
    EXPECT_EQ(read(std::string(longest_body + 1, ' '), &members), "the body must not be longer than 4096 bytes");
}

TEST(RequestText, KnowsWhatMayStandInACommandLine) {
    for (const char *word : {"vlan10", "eth0.10", "br-lan", "a_b", "x@if3"})
        EXPECT_TRUE(is_plain_word(word, 31)) << word;
    for (const char *word :
         {"", "-x", "a b", "a|b", "a\nb", "a\"", "a;b", "\xc3\xa4", "a?", "12345678901234567890123456789012"})
        EXPECT_FALSE(is_plain_word(word, 31)) << word;
}

TEST(RequestText, KnowsAddresses) {
    EXPECT_TRUE(is_ipv4("192.0.2.11"));
    for (const char *text : {"", "192.0.2", "192.0.2.256", "192.0.2.01", "192.0.2.1 ", "::1", "1.2.3.4.5"})
        EXPECT_FALSE(is_ipv4(text)) << text;
    EXPECT_EQ(read_mac("02-00-00-00-00-0A"), "02:00:00:00:00:0a");
    EXPECT_EQ(read_mac("0200.0000.000a"), "02:00:00:00:00:0a");
    for (const char *text : {"", "02:00:00:00:00", "02:00:00:00:00:0g", "02:00:00:00:00:00:00", "02 00 00 00 00 00"})
        EXPECT_FALSE(read_mac(text)) << text;
    EXPECT_EQ(host_of("localhost:8067"), "localhost");
    EXPECT_EQ(host_of("[::1]:8067"), "::1");
    EXPECT_EQ(host_of("[::1"), "");
    EXPECT_EQ(host_of("127.0.0.1"), "127.0.0.1");
}

}  // namespace
