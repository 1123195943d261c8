// SPDX-License-Identifier: Apache-2.0
// A pcapng file is a row of blocks, each with its type, its length in front and behind, and a body in units of 4 bytes;
// numbers are in the byte order of who writes. Here: a section header, an interface description, and an enhanced packet
// for each frame with the comment as its option.
//
// The daemon writes the file with its own rights for somebody who has fewer. So it writes only where captures belong,
// never follows a link in the last place of the path, never writes to what is no capture, and only under a name that
// nothing else gives a meaning to.
#include "books/pcapng.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/files.h"

namespace ravo::platform {

namespace {

constexpr std::uint32_t block_section = 0x0A0D0D0A;
constexpr std::uint32_t block_interface = 1;
constexpr std::uint32_t block_packet = 6;
constexpr std::uint32_t byte_order_magic = 0x1A2B3C4D;
constexpr std::uint16_t version_major = 1, version_minor = 0;
constexpr std::uint64_t section_length_unknown = ~std::uint64_t{0};
constexpr std::uint16_t link_ethernet = 1;
constexpr std::uint16_t option_end = 0, option_comment = 1;
constexpr std::size_t longest_comment = 0xFFFF;
constexpr std::array<std::string_view, 2> name_ends = {".pcapng", ".pcap"};
constexpr std::size_t addresses_size = 12;  // destination and source; a tag follows them

std::vector<std::string> folders;

template <typename number>
void put(std::vector<std::uint8_t> &out, number value) {
    std::array<std::uint8_t, sizeof value> bytes;
    std::memcpy(bytes.data(), &value, sizeof value);
    out.insert(out.end(), bytes.begin(), bytes.end());
}

void put_bytes(std::vector<std::uint8_t> &out, std::span<const std::uint8_t> bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

// Fills what was put up to a unit; blocks begin at one.
void pad(std::vector<std::uint8_t> &out, std::size_t size) {
    out.insert(out.end(), (4 - size % 4) % 4, 0);
}

// A block is begun without its length, which end_block puts in both its places.
std::size_t begin_block(std::vector<std::uint8_t> &out, std::uint32_t type) {
    const std::size_t at = out.size();
    put(out, type);
    put(out, std::uint32_t{0});
    return at;
}

void end_block(std::vector<std::uint8_t> &out, std::size_t at) {
    const auto length = static_cast<std::uint32_t>(out.size() - at + sizeof(std::uint32_t));
    put(out, length);
    std::memcpy(out.data() + at + sizeof(std::uint32_t), &length, sizeof length);
}

fault failure(const std::string &path, int reason) {
    return {"cannot write " + path + ": " + std::strerror(reason)};
}

// A whole path whose last part has a name before its ending.
bool is_capture_name(std::string_view path) {
    const auto fits = [path](std::string_view end) {
        return path.ends_with(end) && path.size() > end.size() && path[path.size() - end.size() - 1] != '/';
    };
    return path.starts_with('/') && std::any_of(name_ends.begin(), name_ends.end(), fits);
}

// Tells why nothing may be written into a folder, by its real path.
fault refuse_folder(const std::string &path, const std::string &real) {
    if (real.empty()) return failure(path, errno);
    std::string known;
    for (const std::string &folder : folders) {
        const std::string top = real_path(folder);
        if (!top.empty() && is_below(real, top)) return {};
        known += (known.empty() ? "" : ", ") + folder;
    }
    return {path + " stands in no folder for captures (" + known +
            "); name another file, or allow its folder: [capture] in the switch description"};
}

// Tells why the file that is open may not be written to.
fault refuse_file(int fd, const std::string &path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return failure(path, errno);
    if (!S_ISREG(status.st_mode)) return {path + " is no regular file; name another"};
    if (status.st_nlink != 1) return {path + " has other names too; name another file"};
    // Held as long as the file is open: two captures in one file would write over each other.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? fault{path + " is being captured to already; name another file"}
                                    : failure(path, errno);
    std::uint32_t first = 0;
    if (status.st_size == 0 || (pread(fd, &first, sizeof first, 0) == sizeof first && first == block_section))
        return {};
    return {path + " exists and is no capture; name another file"};
}

}  // namespace

void pcapng_set_folders(std::vector<std::string> wanted) {
    folders = std::move(wanted);
}

void pcapng_begin(std::vector<std::uint8_t> &out) {
    const std::size_t section = begin_block(out, block_section);
    put(out, byte_order_magic);
    put(out, version_major);
    put(out, version_minor);
    put(out, section_length_unknown);
    end_block(out, section);
    const std::size_t interface = begin_block(out, block_interface);
    put(out, link_ethernet);
    put(out, std::uint16_t{0});
    put(out, std::uint32_t{0});  // frames of any length
    end_block(out, interface);
}

void pcapng_frame(std::vector<std::uint8_t> &out, std::int64_t time_us, std::span<const std::uint8_t> frame,
                  std::string_view comment, std::span<const std::uint8_t> tag) {
    const auto time = static_cast<std::uint64_t>(time_us);
    if (frame.size() < addresses_size) tag = {};
    const auto length = static_cast<std::uint32_t>(frame.size() + tag.size());
    const std::size_t before_tag = tag.empty() ? 0 : addresses_size;
    const std::size_t block = begin_block(out, block_packet);
    put(out, std::uint32_t{0});  // the interface
    put(out, static_cast<std::uint32_t>(time >> 32));
    put(out, static_cast<std::uint32_t>(time));
    put(out, length);
    put(out, length);
    put_bytes(out, frame.first(before_tag));
    put_bytes(out, tag);
    put_bytes(out, frame.subspan(before_tag));
    pad(out, length);
    comment = comment.substr(0, longest_comment);
    put(out, option_comment);
    put(out, static_cast<std::uint16_t>(comment.size()));
    put_bytes(out, {reinterpret_cast<const std::uint8_t *>(comment.data()), comment.size()});
    pad(out, comment.size());
    put(out, option_end);
    put(out, std::uint16_t{0});
    end_block(out, block);
}

pcapng_file::~pcapng_file() {
    if (fd_ >= 0) close(fd_);
}

fault pcapng_file::open(const std::string &path) {
    if (!is_capture_name(path))
        return {"\"" + path + "\" is no file for a capture; give a whole path that ends in .pcapng or .pcap"};
    const std::string place = real_path(folder_of(path));
    const fault misplaced = refuse_folder(path, place);
    if (misplaced) return misplaced;
    const std::string file = place + path.substr(path.rfind('/'));
    // A pipe or a device in the file's place must not hold the daemon up.
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600);
    if (fd < 0 && errno == ELOOP) return {path + " is a symbolic link; name the file itself"};
    if (fd < 0 && (errno == EISDIR || errno == ENXIO)) return {path + " is no regular file; name another"};
    if (fd < 0) return failure(path, errno);
    fault wrong = refuse_file(fd, path);
    if (wrong || fchmod(fd, 0600) != 0 || ftruncate(fd, 0) != 0) {
        if (!wrong) wrong = failure(path, errno);
        close(fd);
        return wrong;
    }
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
    path_ = path;
    size_ = 0;
    room_.clear();
    pcapng_begin(room_);
    return put(room_);
}

fault pcapng_file::write(std::int64_t time_us, std::span<const std::uint8_t> frame, std::string_view comment,
                         std::span<const std::uint8_t> tag) {
    room_.clear();
    pcapng_frame(room_, time_us, frame, comment, tag);
    return put(room_);
}

fault pcapng_file::put(const std::vector<std::uint8_t> &bytes) {
    if (fd_ < 0) return failure(path_, EBADF);
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(size_ + done));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            const int reason = count < 0 ? errno : ENOSPC;
            (void)!ftruncate(fd_, static_cast<off_t>(size_));  // the reason is known already
            return failure(path_, reason);
        }
        done += static_cast<std::size_t>(count);
    }
    size_ += bytes.size();
    return {};
}

}  // namespace ravo::platform
