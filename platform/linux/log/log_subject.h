// SPDX-License-Identifier: Apache-2.0
// What a line of the log is about, as far as it is known when it is written: the message in hand, and the user whose
// command runs.
#ifndef PLATFORM_LINUX_LOG_LOG_SUBJECT_H
#define PLATFORM_LINUX_LOG_LOG_SUBJECT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ravo::platform {

struct log_subject {
    std::uint16_t vlan = 0;          // VLAN id, 0: not known
    std::uint32_t port_ifindex = 0;  // number of a port, 0: not known
    std::array<std::uint8_t, 6> client{};
    bool has_client = false;
};

// What these functions, which each message calls, keep.
struct log_hand {
    log_subject about;
    bool is_one = false;
    std::size_t waiting_bytes = 0;  // of lines about it
};
extern log_hand log_in_hand;

// Sends the lines that wait for an outcome, with it.
void log_send_waiting(std::string_view outcome);

// Whether lines about the message wait for its outcome.
inline bool log_subject_waits() {
    return log_in_hand.waiting_bytes != 0;
}
// Lines from here on are about this message, until log_subject_end.
inline void log_subject_begin(const log_subject &subject) {
    if (log_subject_waits()) log_send_waiting({});
    log_in_hand.about = subject;
    log_in_hand.is_one = true;
}
// The message is done with. outcome: the word for what became of it, empty when there is none.
inline void log_subject_end(std::string_view outcome) {
    if (log_subject_waits()) log_send_waiting(outcome);
    log_in_hand.about = {};
    log_in_hand.is_one = false;
}
// The message in hand; without one a subject that nothing is known of.
inline const log_subject &log_subject_now() {
    return log_in_hand.about;
}

// Sets who is asked before a warning of the relay about the message in hand is written. Where the answer is that the
// message is an ordinary one, the line is a trace.
void log_set_ordinary(bool (*is_ordinary)());
bool log_is_ordinary();

// While this lives, lines are those of a user's command. name: must outlive it.
class log_user {
  public:
    explicit log_user(std::string_view name);
    log_user(const log_user &) = delete;
    log_user &operator=(const log_user &) = delete;
    ~log_user();

  private:
    std::string_view before_;
};
std::string_view log_user_now();

// What is known as fields for the journal: "RAVO_VLAN=10" and so on, each with its line end.
std::string log_fields(const log_subject &subject, std::string_view outcome, std::string_view user);

// Sends a line, with what it is about, to a target that takes fields. Lines about a message wait until it is done with,
// so that all of them bear its outcome. From a signal handler only lines of level 0 may come.
void log_send_with_fields(int level, std::string_view line);

}  // namespace ravo::platform

#endif
