// SPDX-License-Identifier: Apache-2.0
// The lines a person typed: kept in order, by several shells, in a file that is only theirs.
#include "history_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace ravo::client;
using testing::ElementsAre;
using testing::IsEmpty;

struct HistoryFile : testing::Test {
    std::string folder;
    std::string path;
    HistoryFile() {
        char name[] = "/tmp/ravo-history-XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/history";
    }
    ~HistoryFile() override { std::filesystem::remove_all(folder); }

    std::string text() const {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
};

TEST_F(HistoryFile, IsMadeForItsUserAlone) {
    umask(0);
    history_append(path, "show version");
    history_append(path, "end");
    EXPECT_EQ(text(), "show version\nend\n");
    struct stat found {};
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0600U);
    EXPECT_THAT(history_load(path), ElementsAre("show version", "end"));
}

TEST_F(HistoryFile, MissingOrStrangeOnesAreEmpty) {
    EXPECT_THAT(history_load(path), IsEmpty());
    EXPECT_THAT(history_load(""), IsEmpty());
    EXPECT_THAT(history_load(folder), IsEmpty());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(history_load(path), IsEmpty());  // nobody waits for its other end
    history_append(path, "line");
    history_append("", "line");
}

TEST_F(HistoryFile, LinksAreNotFollowed) {
    const std::string other = folder + "/other";
    std::ofstream(other) << "theirs\n";
    std::filesystem::create_symlink(other, path);
    history_append(path, "mine");
    std::ifstream file(other);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "theirs\n");
}

TEST_F(HistoryFile, EmptyLinesAreLeftOut) {
    std::ofstream(path) << "one\n\n\ntwo";
    EXPECT_THAT(history_load(path), ElementsAre("one", "two"));
}

TEST_F(HistoryFile, OnlyTheLastLinesCountAndALongFileIsCut) {
    const auto write = [this](std::size_t lines) {
        std::ofstream file(path, std::ios::trunc);
        for (std::size_t i = 1; i <= lines; ++i) file << "line " << i << '\n';
    };
    write(2 * history_kept);
    const std::vector<std::string> kept = history_load(path);
    ASSERT_EQ(kept.size(), history_kept);
    EXPECT_EQ(kept.front(), "line 1001");
    EXPECT_EQ(kept.back(), "line 2000");
    EXPECT_EQ(text().substr(0, 7), "line 1\n");  // not long enough to be cut
    write(2 * history_kept + 1);
    EXPECT_EQ(history_load(path).front(), "line 1002");
    EXPECT_EQ(text().substr(0, 10), "line 1002\n");
    EXPECT_EQ(history_load(path).size(), history_kept);
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST_F(HistoryFile, IsInTheHomeFolder) {
    setenv("HOME", "/srv/somebody", 1);
    EXPECT_EQ(history_path(), "/srv/somebody/.ravo_history");
    setenv("HOME", "relative", 1);
    EXPECT_NE(history_path(), "relative/.ravo_history");
    unsetenv("HOME");
    EXPECT_TRUE(history_path().empty() || history_path().front() == '/');
}

}  // namespace
