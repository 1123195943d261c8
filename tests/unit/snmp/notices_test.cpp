// SPDX-License-Identifier: Apache-2.0
#include "notices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ravo::snmp;
using testing::ElementsAre;
using testing::IsEmpty;

struct Notices : testing::Test {
    notices known;
    std::vector<std::string> look(std::vector<server_row> servers) {
        picture p;
        p.servers = std::move(servers);
        std::vector<std::string> told;
        look_at_servers(&known, p, [&](const server_row &row, bool silent) {
            told.push_back(std::to_string(row.address) + (silent ? " silent" : " back"));
        });
        return told;
    }
    static server_row server(std::uint32_t address, std::uint32_t silent) {
        return {1034, address, 9, 9, 0, 0, silent};
    }
};

TEST_F(Notices, TellEachChangeOnce) {
    EXPECT_THAT(look({server(1, 0), server(2, 0)}), IsEmpty());
    EXPECT_THAT(look({server(1, 6), server(2, 0)}), ElementsAre("1 silent"));
    EXPECT_THAT(look({server(1, 11), server(2, 0)}), IsEmpty());
    EXPECT_THAT(look({server(1, 0), server(2, 5)}), ElementsAre("1 back", "2 silent"));
}

TEST_F(Notices, AServerSilentFromTheStartIsTold) {
    EXPECT_THAT(look({server(1, 60)}), ElementsAre("1 silent"));
    EXPECT_THAT(look({}), IsEmpty()) << "one that is removed is not back";
    EXPECT_THAT(look({server(1, 0)}), IsEmpty());
}

}  // namespace
