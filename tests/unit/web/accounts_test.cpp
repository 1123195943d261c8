// SPDX-License-Identifier: Apache-2.0
#include "accounts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using namespace ravo::web;

struct Accounts : testing::Test {
    std::filesystem::path folder;
    std::string path;
    std::vector<account> accounts;
    Accounts() {
        char name[] = "/tmp/ravo-accounts-XXXXXX";
        folder = mkdtemp(name);
        path = folder / "accounts";
    }
    ~Accounts() override { std::filesystem::remove_all(folder); }
    std::string read(const std::string &text, mode_t mode = 0640) {
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
        return read_accounts(path, &accounts).text;
    }
};

TEST_F(Accounts, AFileThatIsNotThereHasNone) {
    EXPECT_EQ(read_accounts(path, &accounts).text, "");
    EXPECT_TRUE(accounts.empty());
}

TEST_F(Accounts, FaultsNameFileLineAndReason) {
    EXPECT_EQ(read("# one\n\nalice:admin:$y$x\nbob:reader:$6$x\n"), "");
    EXPECT_EQ(accounts.size(), 2u);
    EXPECT_EQ(accounts[1].role, role::reader);
    EXPECT_EQ(read("alice\n"), path + ":1: an account is USER:ROLE:HASH");
    EXPECT_TRUE(accounts.empty());
    EXPECT_EQ(read("\nalice:king:$y$x\n"), path + ":2: the role must be admin or reader");
    EXPECT_EQ(read("alice:admin:secret\n"), path + ":1: the hash is none of crypt(3)'s");
    EXPECT_EQ(read("a b:admin:$y$x\n"), path + ":1: \"a b\" is no name of a user");
    EXPECT_EQ(read("a:admin:$y$x\na:reader:$y$x\n"), path + ":2: user a has an account already");
    EXPECT_EQ(read("", 0644), path + ": may be read by others or written by its group; chmod 640");
    EXPECT_EQ(read("", 0660), path + ": may be read by others or written by its group; chmod 640");
}

TEST_F(Accounts, AFolderIsRefused) {
    std::filesystem::create_directory(path);
    EXPECT_EQ(read_accounts(path, &accounts).text, path + ": is no file");
}

TEST_F(Accounts, PasswordsAreKeptAsHashes) {
    EXPECT_EQ(set_password(&accounts, "alice", "a long password").text, "");
    EXPECT_EQ(accounts[0].hash.substr(0, 3), "$y$");
    EXPECT_TRUE(password_fits(&accounts[0], "a long password"));
    EXPECT_FALSE(password_fits(&accounts[0], "a long passwore"));
    EXPECT_FALSE(password_fits(&accounts[0], ""));
    EXPECT_FALSE(password_fits(nullptr, "a long password"));
    const std::string before = accounts[0].hash;
    EXPECT_EQ(set_password(&accounts, "alice", "another password").text, "");
    EXPECT_NE(accounts[0].hash, before);
    EXPECT_EQ(accounts.size(), 1u);
    EXPECT_NE(set_password(&accounts, "bob", "short").text, "");
    EXPECT_NE(set_password(&accounts, "b:b", "a long password").text, "");
    EXPECT_NE(set_password(&accounts, "bob", std::string(257, 'x')).text, "");
}

TEST_F(Accounts, AreWrittenWholeForTheirOwnerAndGroup) {
    ASSERT_EQ(set_password(&accounts, "alice", "a long password").text, "");
    EXPECT_EQ(set_role(&accounts, "alice=reader").text, "");
    EXPECT_EQ(set_role(&accounts, "bob=reader").text,
              "there is no account of user bob; make it with --set-password bob");
    EXPECT_EQ(set_role(&accounts, "alice=king").text, "\"alice=king\" is not USER=admin or USER=reader");
    ASSERT_EQ(write_accounts(path, accounts).text, "");
    struct stat about {};
    ASSERT_EQ(stat(path.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 0777, 0640u);
    std::vector<account> again;
    EXPECT_EQ(read_accounts(path, &again).text, "");
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].hash, accounts[0].hash);
    EXPECT_EQ(again[0].role, role::reader);
    EXPECT_EQ(write_accounts(folder / "none" / "accounts", accounts).text.substr(0, path.size() - 8),
              (folder / "").string());
}

}  // namespace
