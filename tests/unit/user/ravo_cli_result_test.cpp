// SPDX-License-Identifier: Apache-2.0
// The texts of result codes, and the gate of plain output.
#include "ravo_cli_result.h"

#include <limits>

#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoCliResult = Relay;

struct code_text {
    std::uint32_t code;
    const char *text;
};

constexpr code_text texts[] = {
    {2, "% No dhcp relay if existed \n"},
    {3, "% Can not set dhcp relay config of this interface \n% please set IP address on this interface first\n"},
    {5, "% DHCP relay server not found \n"},
    {6, "% DHCP relay server ip error \n"},
    {7, "% DHCP relay server exitsted already \n"},
    {8, "% DHCP relay server full \n"},
    {9, "% No DHCP relay server on this interface \n"},
    {10, "% Dhcp relay interface not dound \n"},
    {14, "% Memory not enough \n"},
    {15, "% Set the same configuration current configuration\n"},
    {16, "% Socket fail\n"},
    {1, "RAVO Err Unhandle errno 1 \n"},
    {4, "RAVO Err Unhandle errno 4 \n"},
    {11, "RAVO Err Unhandle errno 11 \n"},
    {12, "RAVO Err Unhandle errno 12 \n"},
    {13, "RAVO Err Unhandle errno 13 \n"},
    {17, "RAVO Err Unhandle errno 17 \n"},
    {302020, "RAVO Err Unhandle errno 302020 \n"},
};

TEST_F(RavoCliResult, EveryCodeHasItsText) {
    for (const code_text &entry : texts) {
        fake::session session;
        EXPECT_EQ(ravo_show_result(&session.context, entry.code), 1) << entry.code;
        EXPECT_THAT(session.outputs, ElementsAre(fake::output{fake::target::plain, {}, entry.text})) << entry.code;
    }
}

TEST_F(RavoCliResult, CodeZeroPrintsNothing) {
    fake::session session;
    EXPECT_EQ(ravo_show_result(&session.context, 0), 0);
    EXPECT_THAT(session.outputs, IsEmpty());
}

TEST_F(RavoCliResult, TheNamesOfTheCodes) {
    EXPECT_EQ(RAVO_OK, 0u);
    EXPECT_EQ(RAVO_ERR_NO_IF, 2u);
    EXPECT_EQ(RAVO_ERR_NO_IP, 3u);
    EXPECT_EQ(RAVO_ERR_SERVER_NOT_FOUND, 5u);
    EXPECT_EQ(RAVO_ERR_SERVER_IP, 6u);
    EXPECT_EQ(RAVO_ERR_SERVER_EXISTS, 7u);
    EXPECT_EQ(RAVO_ERR_SERVER_FULL, 8u);
    EXPECT_EQ(RAVO_ERR_NO_SERVER, 9u);
    EXPECT_EQ(RAVO_ERR_IF_NOT_FOUND, 10u);
    EXPECT_EQ(RAVO_ERR_NO_MEMORY, 14u);
    EXPECT_EQ(RAVO_ERR_SAME_CONFIG, 15u);
    EXPECT_EQ(RAVO_ERR_SOCKET, 16u);
}

TEST_F(RavoCliResult, TheGateIsClosedInTheSettingsViewUnlessShowAllIsOne) {
    for (std::uint32_t flags = 0; flags < 8; ++flags)
        for (const std::uint32_t show_all : {0u, 1u, 2u}) {
            fake::session session;
            session.context.view_flags = flags;
            session.context.show_all = show_all;
            const bool open = (flags & 2) == 0 || show_all == 1;
            EXPECT_EQ(ravo_cli_prints(&session.context), open) << flags << " " << show_all;
            EXPECT_EQ(ravo_show_result(&session.context, 15), 1);
            EXPECT_EQ(session.text(), open ? "% Set the same configuration current configuration\n" : "")
                << flags << " " << show_all;
            session.forget();
            EXPECT_EQ(ravo_show_result(&session.context, 4), 1);
            EXPECT_EQ(session.text(), open ? "RAVO Err Unhandle errno 4 \n" : "") << flags << " " << show_all;
        }
}

TEST_F(RavoCliResult, SettingHopsToItsValueShowsCodeFifteen) {
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_hops, {"4"}), 1);
    EXPECT_EQ(session.text(), "% Set the same configuration current configuration\n");
}

}  // namespace
