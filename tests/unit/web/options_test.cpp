// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <gtest/gtest.h>

namespace {

using namespace ravo::web;

std::string fault_of(const std::vector<std::string> &words) {
    web_options o;
    return parse_options(words, &o).text;
}

TEST(WebOptions, HaveDefaults) {
    web_options o;
    ASSERT_EQ(parse_options({}, &o).text, "");
    EXPECT_EQ(o.address, "127.0.0.1");
    EXPECT_EQ(o.port, 8067);
    EXPECT_EQ(o.management, "/run/ravo/ravod.sock");
    EXPECT_EQ(o.accounts, "/etc/ravo/web-accounts");
}

TEST(WebOptions, TakeBothWaysOfAValue) {
    web_options o;
    ASSERT_EQ(parse_options({"--listen=[::1]:80", "--management", "/x", "--allow-plain"}, &o).text, "");
    EXPECT_EQ(o.address, "::1");
    EXPECT_EQ(o.port, 80);
    EXPECT_EQ(o.management, "/x");
    EXPECT_TRUE(o.allow_plain);
}

TEST(WebOptions, NameWhatIsWrong) {
    EXPECT_EQ(fault_of({"--listen"}), "option --listen needs ADDRESS:PORT");
    EXPECT_EQ(fault_of({"--listen="}), "option --listen needs ADDRESS:PORT");
    EXPECT_EQ(fault_of({"--nothing"}), "unknown option \"--nothing\"");
    EXPECT_EQ(fault_of({"x"}), "unknown option \"x\"");
    EXPECT_EQ(fault_of({"--allow-plain=1"}), "option --allow-plain has no value");
    for (const char *bad : {"8067", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:x", "::1:80", "[127.0.0.1]:80",
                            "host:80", ":80", "127.0.0.1:-1"})
        EXPECT_EQ(fault_of({"--listen", bad}),
                  "--listen " + std::string(bad) + " is no ADDRESS:PORT, such as 127.0.0.1:8067 or [::1]:8067");
    EXPECT_EQ(fault_of({"--tls-key", "/k"}), "--tls-certificate and --tls-key go together");
}

TEST(WebOptions, PasswordsDoNotCrossANetworkInTheClearUnlessSomebodyInsists) {
    EXPECT_NE(fault_of({"--listen", "0.0.0.0:80"}), "");
    EXPECT_NE(fault_of({"--listen", "[::]:80"}), "");
    EXPECT_EQ(fault_of({"--listen", "0.0.0.0:80", "--allow-plain"}), "");
    EXPECT_EQ(fault_of({"--listen", "0.0.0.0:80", "--tls-certificate", "/c", "--tls-key", "/k"}), "");
    EXPECT_EQ(fault_of({"--listen", "127.8.0.1:80"}), "");
}

}  // namespace
