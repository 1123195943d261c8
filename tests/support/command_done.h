// SPDX-License-Identifier: Apache-2.0
// A command run in a session of its own: its result and what it printed.
#ifndef COMMAND_DONE_H
#define COMMAND_DONE_H

#include <ostream>
#include <string>
#include <vector>

#include "relay_fixture.h"

// What a command did: its result, then what it printed.
struct done {
    int result;
    std::string text;

    bool operator==(const done &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const done &value) {
    return out << value.result << " \"" << value.text << "\"";
}

inline const done silent{0, ""};
inline const done unhandled_one{1, "RAVO Err Unhandle errno 1 \n"};

inline done run(cli_handler handler, const std::vector<std::string> &words = {}) {
    fake::session session;
    const int result = session.run(handler, words);
    return {result, session.text()};
}

// An interface command's test: it runs on vlan10.
class RavoCliInterface : public Relay {
  protected:
    void SetUp() override {
        Relay::SetUp();
        // An interface whose object bears another number than its name.
        ifp = fake::add_interface({.name = "vlan10", .ifindex = 7777});
    }

    // Runs an interface command on vlan10.
    done on_interface(cli_handler handler, const std::vector<std::string> &words = {}) {
        fake::session session;
        session.context.mode = CLI_MODE_INTERFACE;
        session.context.ifp = ifp;
        const int result = session.run(handler, words);
        return {result, session.text()};
    }

    // What vlan10's record says, "none" when there is none.
    std::string record_text() const {
        const std::optional<iface> record = stored_record("vlan10");
        return record ? describe(*record) : "none";
    }

    void store(const iface &record) { ASSERT_EQ(ravo_db_if_add(&record), 1); }

    // The record that a command makes for vlan10.
    iface new_record(std::uint32_t ifindex = 1034) const {
        iface record = record_named("vlan10");
        record.in_use = 1;
        record.ifindex = ifindex;
        return record;
    }

    struct interface *ifp = nullptr;
};

#endif
