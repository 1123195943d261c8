// SPDX-License-Identifier: Apache-2.0
// /proc/PID/stat and limits, read as text. Each figure is read by itself: one that cannot be had leaves the others as
// they are.
#include "process_figures.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

namespace ravo::web {

namespace {

std::string text_of(const std::string &path) {
    const std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();  // of a process that ends meanwhile: what was read until then
    return std::move(text).str();
}

// The fields of /proc/PID/stat from the third on; the second, the name, may have blanks and brackets in it.
std::vector<double> stat_fields(const std::string &text) {
    const std::size_t name_end = text.rfind(") ");
    std::vector<double> out;
    if (name_end == std::string::npos) return out;
    std::istringstream rest(text.substr(name_end + 4));  // behind the state, which is a letter
    for (double value = 0; rest >> value;) out.push_back(value);
    return out;
}

// Where the kernel's own word is out of reach, as in a sandbox: what the clocks say.
double boot_time_by_clock() {
    timespec now{};
    timespec up{};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &up);
    return static_cast<double>(now.tv_sec - up.tv_sec);
}

double boot_time(const std::string &root) {
    std::istringstream lines(text_of(root + "/stat"));
    for (std::string word; lines >> word;) {
        double value = 0;
        if (word == "btime" && lines >> value) return value;
    }
    return boot_time_by_clock();
}

std::optional<double> descriptor_limit(const std::string &text) {
    constexpr std::string_view title = "Max open files";
    const std::size_t at = text.find(title);
    if (at == std::string::npos) return std::nullopt;
    std::istringstream rest(text.substr(at + title.size()));
    double soft = 0;
    if (!(rest >> soft)) return std::nullopt;
    return soft;
}

std::optional<double> count_entries(const std::string &folder) {
    std::error_code fault;
    const std::filesystem::directory_iterator entries(folder, fault);
    if (fault) return std::nullopt;
    return static_cast<double>(std::distance(begin(entries), end(entries)));
}

}  // namespace

process_figures read_process(int pid, const std::string &root) {
    process_figures out;
    const std::string folder = root + "/" + std::to_string(pid);
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    // Places in the list, which begins with the fourth field: user and system time, threads, start, sizes.
    const std::vector<double> stat = stat_fields(text_of(folder + "/stat"));
    if (stat.size() > 20) {
        out.cpu_seconds = (stat[10] + stat[11]) / ticks;
        out.threads = stat[16];
        out.start_seconds = boot_time(root) + stat[18] / ticks;
        out.virtual_bytes = stat[19];
        out.resident_bytes = stat[20] * static_cast<double>(sysconf(_SC_PAGESIZE));
    }
    out.open_descriptors = count_entries(folder + "/fd");
    out.most_descriptors = descriptor_limit(text_of(folder + "/limits"));
    return out;
}

}  // namespace ravo::web
