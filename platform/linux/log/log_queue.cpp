// SPDX-License-Identifier: Apache-2.0
// Positions count all bytes that ever went through, so that full and empty differ; where a byte lies is its position
// modulo the room. An entry is there for the other side when the count behind it is stored, and not before.
#include "log/log_queue.h"

#include <algorithm>
#include <cstring>

namespace ravo::platform {

namespace {

void copy_in(log_queue &queue, std::size_t position, const void *from, std::size_t length) {
    if (length == 0) return;  // an empty text may be anywhere, NULL too
    const std::size_t at = position % log_queue::room;
    const std::size_t first = std::min(length, log_queue::room - at);
    std::memcpy(queue.bytes.data() + at, from, first);
    std::memcpy(queue.bytes.data(), static_cast<const char *>(from) + first, length - first);
}

void copy_out(const log_queue &queue, std::size_t position, void *to, std::size_t length) {
    if (length == 0) return;
    const std::size_t at = position % log_queue::room;
    const std::size_t first = std::min(length, log_queue::room - at);
    std::memcpy(to, queue.bytes.data() + at, first);
    std::memcpy(static_cast<char *>(to) + first, queue.bytes.data(), length - first);
}

}  // namespace

bool log_queue_put(log_queue &queue, queue_entry entry, std::string_view text, bool urgent) {
    text = text.substr(0, queue_text_room);
    entry.length = static_cast<std::uint32_t>(text.size());
    const std::size_t at = queue.put_bytes.load(std::memory_order_relaxed);
    const std::size_t used = at - queue.taken_bytes.load(std::memory_order_acquire);
    const std::size_t kept_free = urgent ? 0 : log_queue::reserve;
    if (used + sizeof entry + text.size() + kept_free > log_queue::room) return false;
    copy_in(queue, at, &entry, sizeof entry);
    copy_in(queue, at + sizeof entry, text.data(), text.size());
    queue.put_bytes.store(at + sizeof entry + text.size(), std::memory_order_seq_cst);
    return true;
}

bool log_queue_take(log_queue &queue, queue_entry *entry, char *text) {
    const std::size_t at = queue.taken_bytes.load(std::memory_order_relaxed);
    if (at == queue.put_bytes.load(std::memory_order_seq_cst)) return false;
    copy_out(queue, at, entry, sizeof *entry);
    copy_out(queue, at + sizeof *entry, text, entry->length);
    queue.taken_bytes.store(at + sizeof *entry + entry->length, std::memory_order_seq_cst);
    return true;
}

std::size_t log_queue_used(const log_queue &queue) {
    return queue.put_bytes.load(std::memory_order_relaxed) - queue.taken_bytes.load(std::memory_order_acquire);
}

bool log_queue_empty(const log_queue &queue) {
    return queue.put_bytes.load(std::memory_order_seq_cst) == queue.taken_bytes.load(std::memory_order_seq_cst);
}

}  // namespace ravo::platform
