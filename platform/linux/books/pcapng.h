// SPDX-License-Identifier: Apache-2.0
// Captures of frames as pcapng, with a comment on each: a file that wireshark and tshark read.
#ifndef PLATFORM_LINUX_BOOKS_PCAPNG_H
#define PLATFORM_LINUX_BOOKS_PCAPNG_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::platform {

// Appends the head of a capture: one section with one interface, Ethernet, times in microseconds.
void pcapng_begin(std::vector<std::uint8_t> &out);

// Appends one frame. time_us: microseconds since 1970; comment: UTF-8, cut at 65535 bytes; tag: a VLAN tag that was
// taken out of the frame, 4 bytes or none, and is put back behind its addresses.
void pcapng_frame(std::vector<std::uint8_t> &out, std::int64_t time_us, std::span<const std::uint8_t> frame,
                  std::string_view comment, std::span<const std::uint8_t> tag = {});

// Sets the folders in and below which captures may be written: whole paths. Without one there are no captures.
void pcapng_set_folders(std::vector<std::string> folders);

// A capture file that is being written, by one writer at a time.
class pcapng_file {
  public:
    pcapng_file() = default;
    pcapng_file(const pcapng_file &) = delete;
    pcapng_file &operator=(const pcapng_file &) = delete;
    ~pcapng_file();

    // Makes the file and writes the head. path: absolute, ending in ".pcapng" or ".pcap", in or below a folder for
    // captures, whatever links its folders are. A new file gets mode 0600;
    // one that is there is replaced when it is a capture or empty, and refused when it is anything else. The
    // fault, if any: the reason in one line.
    fault open(const std::string &path);

    // Writes one frame, as pcapng_frame makes it. The fault, if any: the reason in one line; the file then
    // ends behind its last whole frame.
    fault write(std::int64_t time_us, std::span<const std::uint8_t> frame, std::string_view comment,
                std::span<const std::uint8_t> tag = {});

    // Bytes written.
    std::uint64_t size() const { return size_; }

  private:
    fault put(const std::vector<std::uint8_t> &bytes);

    std::string path_;
    int fd_ = -1;
    std::uint64_t size_ = 0;
    std::vector<std::uint8_t> room_;
};

}  // namespace ravo::platform

#endif
