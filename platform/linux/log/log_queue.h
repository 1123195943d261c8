// SPDX-License-Identifier: Apache-2.0
// The way of the log's text from the event loop to its writer: a ring of bytes with one side that puts and one that
// takes, which never wait for each other.
#ifndef PLATFORM_LINUX_LOG_LOG_QUEUE_H
#define PLATFORM_LINUX_LOG_LOG_QUEUE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ravo::platform {

// What lies in the queue: bytes for a stream, or a line as a record of its own; or that the stream goes on elsewhere.
enum class queued : std::uint8_t { text, record, new_stream };

struct queue_entry {
    queued what = queued::text;
    std::uint8_t severity = 0;      // of a record, as in syslog
    std::uint16_t text_length = 0;  // of a record: its first bytes are the line, behind it are fields
    std::int32_t fd = -1;           // of the new stream
    std::uint32_t length = 0;       // bytes that belong to it
};

// Longest text of an entry: a line of the print service, and fields behind it.
inline constexpr std::size_t queue_text_room = 4096 + 512;

struct log_queue {
    static constexpr std::size_t room = std::size_t{1} << 20;
    // Only what must not be lost gets at the last bytes.
    static constexpr std::size_t reserve = std::size_t{16} << 10;

    std::array<char, room> bytes;
    std::atomic<std::size_t> put_bytes{0};    // counted since the beginning, by the side that puts
    std::atomic<std::size_t> taken_bytes{0};  // likewise, by the side that takes
};

// Puts an entry. urgent: it may use the reserve. Returns false when there is no room. May be called from a signal
// handler that interrupted it: what was being put then is lost, and nothing else.
[[nodiscard]] bool log_queue_put(log_queue &queue, queue_entry entry, std::string_view text, bool urgent);

// Takes the oldest entry. text: room for queue_text_room bytes. Returns false when there is none.
[[nodiscard]] bool log_queue_take(log_queue &queue, queue_entry *entry, char *text);

[[nodiscard]] bool log_queue_empty(const log_queue &queue);
// Bytes in the queue.
[[nodiscard]] std::size_t log_queue_used(const log_queue &queue);

}  // namespace ravo::platform

#endif
