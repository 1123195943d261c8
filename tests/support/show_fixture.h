// SPDX-License-Identifier: Apache-2.0
// The tests of show commands: the output of a handler in every combination of views.
#ifndef SHOW_FIXTURE_H
#define SHOW_FIXTURE_H

#include "relay_fixture.h"
#include "view_lines.h"

class ShowTest : public Relay {
  protected:
    static void store(const iface &record) { ASSERT_EQ(ravo_db_if_add(&record), 1); }

    static void store_trusted(int vlan) {
        iface record = vlan_record(vlan);
        record.trusted = 1;
        store(record);
    }

    // Compares the whole output of a handler with its lines, in every combination of views.
    static void expect_lines(cli_handler handler, const std::vector<view_line> &lines) {
        for (std::uint32_t flags = 0; flags < 8; ++flags) {
            fake::session session = fake::session::with_view(flags);
            EXPECT_EQ(session.run(handler), 0) << flags;
            EXPECT_EQ(joined(session.outputs), in_view(lines, flags)) << "view flags " << flags;
        }
    }

    // Runs a handler on a plain session.
    static std::string plain(cli_handler handler, const std::vector<std::string> &words = {}) {
        fake::session session;
        EXPECT_EQ(session.run(handler, words), 0);
        EXPECT_EQ(session.text(), session.text(fake::target::plain));
        return session.text();
    }

    // A plain handler prints when the settings view is not asked for, or when everything is.
    static void expect_gated(cli_handler handler, const std::vector<std::string> &words, const std::string &text) {
        for (std::uint32_t flags = 0; flags < 8; ++flags)
            for (const std::uint32_t show_all : {0u, 1u, 2u}) {
                fake::session session = fake::session::with_view(flags);
                session.context.show_all = show_all;
                EXPECT_EQ(session.run(handler, words), 0);
                EXPECT_EQ(session.text(), (flags & 2) == 0 || show_all == 1 ? text : "") << flags << " " << show_all;
                EXPECT_EQ(session.text(), session.text(fake::target::plain));
            }
    }
};

#endif
