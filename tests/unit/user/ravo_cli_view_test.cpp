// SPDX-License-Identifier: Apache-2.0
// The views: which lines a session gets, where they go, and with which key; and the check of a VLAN id.
#include "ravo_cli_view.h"

#include <string>
#include <vector>

#include "relay_fixture.h"

namespace {

using fake::bytes;
using fake::output;
using fake::target;

class Views : public Relay {
  protected:
    // What a session with these view flags gets of four lines, one a mask, each with its own column.
    static std::vector<output> lines_for(std::uint32_t view_flags) {
        fake::session session = fake::session::with_view(view_flags);
        session.run([](struct cli *cli, int, char **) {
            ravo_view view{cli, 0};
            ravo_view_line(&view, VIEW_TERMINAL, VIEW_NO_COLUMN, "terminal %d\n", 1);
            ravo_view_line(&view, VIEW_DISPLAY, VIEW_NO_COLUMN, "display\n");
            ravo_view_line(&view, VIEW_ALL, 2, "all\n");
            ravo_view_line(&view, VIEW_VALUE, 9, "value\n");
            return view.result;
        });
        return session.outputs;
    }

    // Two 32-bit words in host order: the column, and -100.
    static bytes key(std::int32_t column) {
        const std::int32_t words[] = {column, -100};
        return fake::copy_bytes(words, sizeof words);
    }
};

TEST_F(Views, SessionWithoutAViewGetsEveryLineAndNoKey) {
    EXPECT_EQ(lines_for(0), (std::vector<output>{{target::terminal, {}, "terminal 1\n"},
                                                 {target::terminal, {}, "display\n"},
                                                 {target::terminal, {}, "all\n"},
                                                 {target::terminal, {}, "value\n"}}));
}

TEST_F(Views, TerminalGetsEverythingButValues) {
    EXPECT_EQ(lines_for(1), (std::vector<output>{{target::terminal, {}, "terminal 1\n"},
                                                 {target::terminal, {}, "display\n"},
                                                 {target::terminal, {}, "all\n"}}));
}

TEST_F(Views, SettingsViewGetsDisplayLines) {
    EXPECT_EQ(lines_for(2),
              (std::vector<output>{{target::terminal, {}, "display\n"}, {target::terminal, {}, "all\n"}}));
}

TEST_F(Views, KeyedViewGetsValuesWithTheirKeys) {
    EXPECT_EQ(lines_for(4),
              (std::vector<output>{{target::buffer, key(2), "all\n"}, {target::buffer, key(9), "value\n"}}));
}

TEST_F(Views, EverySelectedLineGoesIntoTheBufferWhenTheKeyedViewIsOneOfSeveral) {
    EXPECT_EQ(lines_for(6), (std::vector<output>{{target::buffer, {}, "display\n"},
                                                 {target::buffer, key(2), "all\n"},
                                                 {target::buffer, key(9), "value\n"}}));
}

TEST_F(Views, NothingIsPrintedAfterTheBufferIsFull) {
    fake::session session = fake::session::with_view(CLI_VIEW_KEYED);
    session.keyed_room = 1;
    EXPECT_EQ(CLI_BUFFER_FULL, session.run([](struct cli *cli, int, char **) {
        ravo_view view{cli, 0};
        for (int i = 1; i <= 3; ++i) ravo_view_line(&view, VIEW_VALUE, i, "%d", i);
        cli->view_flags = CLI_VIEW_TERMINAL;
        ravo_view_line(&view, VIEW_TERMINAL, VIEW_NO_COLUMN, "more");
        return view.result;
    }));
    EXPECT_EQ(session.outputs, (std::vector<output>{{target::buffer, key(1), "1"}}));
}

TEST_F(Views, SessionThatCannotTakeViewsGetsNothing) {
    fake::session session;
    EXPECT_EQ(0, session.run([](struct cli *cli, int, char **) {
        ravo_view view{cli, 0};
        ravo_view_line(&view, VIEW_ALL, VIEW_NO_COLUMN, "all");
        return view.result;
    }));
    EXPECT_EQ(session.text(), "");
}

TEST_F(Views, VlanIdIsANumberFrom1To4094) {
    for (const char *text : {"1", "10", "4094"}) {
        fake::session session;
        EXPECT_EQ(0, ravo_check_vlan_id(&session.context, text)) << text;
        EXPECT_EQ(session.text(), "") << text;
    }
    for (const char *text : {"0", "4095", "-1", "", "x", "10x", "99999999999"}) {
        fake::session session;
        EXPECT_EQ(1, ravo_check_vlan_id(&session.context, text)) << text;
        EXPECT_EQ(session.text(), "% Invalid VLAN-ID value\n") << text;
    }
    fake::session settings;
    settings.context.view_flags = CLI_VIEW_SETTINGS;
    EXPECT_EQ(1, ravo_check_vlan_id(&settings.context, "0"));
    EXPECT_EQ(settings.text(), "");
}

}  // namespace
