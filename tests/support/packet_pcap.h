// SPDX-License-Identifier: Apache-2.0
// What a test sent, as a capture file beside the build: pcap/SUITE.TEST.pcap in the folder of the test's program. It is
// there to be opened when a test fails. Datagrams are given the headers that the system would have put before them.
#ifndef PACKET_PCAP_H
#define PACKET_PCAP_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "fake_socket.h"
#include "packet_frame.h"

namespace packet {

inline void write_word(std::ofstream &file, std::uint32_t value) {
    file.write(reinterpret_cast<const char *>(&value), sizeof value);
}

inline void write_capture(std::ofstream &file, const bytes &frame) {
    write_word(file, 0);  // seconds
    write_word(file, 0);  // microseconds
    write_word(file, static_cast<std::uint32_t>(frame.size()));
    write_word(file, static_cast<std::uint32_t>(frame.size()));
    file.write(reinterpret_cast<const char *>(frame.data()), static_cast<std::streamsize>(frame.size()));
}

// Writes what the fake platform recorded since it last forgot; nothing when nothing was sent.
inline void leave_pcap() {
    if (fake::frames.empty() && fake::datagrams.empty()) return;
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path folder = program.parent_path() / "pcap";
    std::filesystem::create_directories(folder, error);
    if (error) return;  // a build that cannot be written to has no captures
    std::ofstream file(folder / (std::string(test->test_suite_name()) + "." + test->name() + ".pcap"),
                       std::ios::binary);
    write_word(file, 0xA1B2C3D4);
    write_word(file, 2 | 4 << 16);  // version 2.4
    write_word(file, 0);
    write_word(file, 0);
    write_word(file, 65535);
    write_word(file, 1);  // Ethernet
    for (const fake::datagram &sent : fake::datagrams)
        write_capture(file, encode(frame_of{.to_mac = bytes(6, 0),
                                            .from_mac = bytes(6, 0),
                                            .from_ip = "0.0.0.0",
                                            .to_ip = sent.to.substr(0, sent.to.find(':')),
                                            .from_port = 68,
                                            .to_port = 67,
                                            .payload = sent.payload}));
    for (const fake::frame &sent : fake::frames) write_capture(file, sent.payload);
}

}  // namespace packet

#endif
