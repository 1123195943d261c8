// SPDX-License-Identifier: Apache-2.0
// Open transactions that outlast the daemon: what is found again, and what is not believed.
#include "osal/kept_transactions.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/loop.h"
#include "books/books.h"
#include "memmgr.h"
#include "osal.h"
#include "osal/osal_events.h"
#include "osal/timer_queue.h"

namespace {

using namespace ravo::platform;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t header = 32, entry_size = 32;

struct KeptTransactions : testing::Test {
    std::string folder, path;
    std::uint64_t now = clock_coarse_ms();
    KeptTransactions() {
        char name[] = "/tmp/kept_transactions_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/table";
    }
    ~KeptTransactions() override {
        kept_transactions_close();
        std::filesystem::remove_all(folder);
    }
    std::vector<kept_transaction> open() const {
        std::vector<kept_transaction> found = {{}};
        EXPECT_EQ(kept_transactions_open(path, &found).text, "");
        return found;
    }
    std::string refused() const {
        std::vector<kept_transaction> found = {{}};
        const ravo::fault wrong = kept_transactions_open(path, &found);
        EXPECT_THAT(found, IsEmpty());
        return wrong.text;
    }
    // The ids of what is found.
    std::vector<std::uint32_t> ids() const {
        std::vector<std::uint32_t> all;
        for (const kept_transaction &each : open()) all.push_back(each.xid);
        return all;
    }
    // Turns every bit of the byte at `at`: whatever stood there, something else stands there now.
    void tear(std::size_t at) const {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekg(static_cast<std::streamoff>(at));
        const int byte = file.get();
        file.seekp(static_cast<std::streamoff>(at));
        file.put(static_cast<char>(~byte));
        ASSERT_TRUE(file.good());
    }
};

TEST_F(KeptTransactions, AreFoundOldestFirst) {
    EXPECT_THAT(open(), IsEmpty());
    kept_transactions_put(1, {.xid = 7, .port = 5123, .seconds = 300, .since = now - 1000});
    kept_transactions_put(2, {.xid = 8, .port = 0, .seconds = 300, .since = now - 299000});
    const std::vector<kept_transaction> found = open();
    ASSERT_THAT(found, SizeIs(2));
    EXPECT_EQ(found[0].xid, 8U);
    EXPECT_EQ(found[0].port, 0U);
    EXPECT_EQ(found[1].xid, 7U);
    EXPECT_EQ(found[1].port, 5123U);
    EXPECT_EQ(found[1].seconds, 300U);
    EXPECT_EQ(found[1].since, now - 1000);
    EXPECT_THAT(open(), IsEmpty()) << "who takes them has to put them down anew";
}

TEST_F(KeptTransactions, WhatHasEndedIsNotFound) {
    (void)open();
    kept_transactions_put(1, {.xid = 7, .port = 5123, .seconds = 300, .since = now});
    kept_transactions_put(2, {.xid = 8, .port = 5123, .seconds = 300, .since = now});
    kept_transactions_drop(1);
    kept_transactions_drop(3);
    EXPECT_THAT(ids(), ElementsAre(8));
}

TEST_F(KeptTransactions, WhatHasNoTimeLeftOrTheWrongTimeIsNotFound) {
    (void)open();
    kept_transactions_put(1, {.xid = 1, .port = 5123, .seconds = 300, .since = now - 300000});
    kept_transactions_put(2, {.xid = 2, .port = 5123, .seconds = 300, .since = now + 60000});
    kept_transactions_put(3, {.xid = 3, .port = 5123, .seconds = 0, .since = now});
    kept_transactions_put(4, {.xid = 4, .port = 5123, .seconds = 3601, .since = now});
    kept_transactions_put(5, {.xid = 5, .port = 1, .seconds = 300, .since = now});
    kept_transactions_put(6, {.xid = 6, .port = 0xFFFFFFFF, .seconds = 300, .since = now});
    kept_transactions_put(7, {.xid = 7, .port = 5121, .seconds = 300, .since = now});
    EXPECT_THAT(ids(), ElementsAre(7));
}

TEST_F(KeptTransactions, OfTwoInOnePlaceTheLastIsKept) {
    (void)open();
    kept_transactions_put(5, {.xid = 1, .port = 5123, .seconds = 300, .since = now});
    kept_transactions_put(5 + kept_transactions_places, {.xid = 2, .port = 5123, .seconds = 300, .since = now});
    kept_transactions_drop(5);
    EXPECT_THAT(ids(), ElementsAre(2));
}

TEST_F(KeptTransactions, ATornEntryIsMissingAlone) {
    for (std::size_t byte = 0; byte < entry_size; ++byte) {
        if (byte >= 20 && byte < 24) continue;  // nothing stands there
        (void)open();
        for (std::uint32_t number = 0; number < 3; ++number)
            kept_transactions_put(number, {.xid = 10 + number, .port = 5123, .seconds = 300, .since = now});
        kept_transactions_close();
        tear(header + entry_size + byte);
        EXPECT_THAT(ids(), ElementsAre(10, 12)) << byte;
    }
}

TEST_F(KeptTransactions, AFileOfAnotherVersionOrNonsenseBeginsAnew) {
    for (const std::size_t size : {std::size_t{8}, std::size_t{5000}, std::size_t{4000000}}) {
        std::ofstream(path, std::ios::binary) << std::string(size, '\xA5');
        ASSERT_EQ(chmod(path.c_str(), 0600), 0);
        EXPECT_EQ(refused(), path + ": is no table of transactions of this version; it begins anew");
        kept_transactions_put(1, {.xid = 7, .port = 5123, .seconds = 300, .since = now});
        EXPECT_THAT(ids(), ElementsAre(7));
    }
}

TEST_F(KeptTransactions, AFileThatOthersMayUseIsRefused) {
    (void)open();
    kept_transactions_put(1, {.xid = 7, .port = 5123, .seconds = 300, .since = now});
    kept_transactions_close();
    for (const mode_t mode : {0620U, 0602U, 0640U, 0604U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(refused(), path + ": open transactions do not outlast the daemon: others may use it; remove it");
        kept_transactions_put(1, {.xid = 9, .port = 5123, .seconds = 300, .since = now});
    }
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_THAT(ids(), ElementsAre(7)) << "nothing was written meanwhile";
    if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    EXPECT_THAT(refused(), EndsWith(": it belongs to another user; remove it"));
}

TEST_F(KeptTransactions, WhatIsNoFileIsRefused) {
    std::ofstream(folder + "/target") << "x";
    ASSERT_EQ(symlink("target", path.c_str()), 0);
    EXPECT_THAT(refused(), EndsWith(": Too many levels of symbolic links"));
    path = folder + "/none/table";
    EXPECT_THAT(refused(), EndsWith(": No such file or directory"));
    path = "/dev/null";
    EXPECT_THAT(refused(), EndsWith(": it is no file"));
}

TEST_F(KeptTransactions, AreHandedOverOneByOne) {
    std::vector<std::uint32_t> seen;
    const std::vector<kept_transaction> found = {{.xid = 1, .port = 5121, .seconds = 300, .since = now},
                                                 {.xid = 2, .port = 5122, .seconds = 300, .since = now}};
    EXPECT_EQ(kept_transactions_restore(found,
                                        [&](const kept_transaction &each) {
                                            EXPECT_EQ(kept_transaction_in_hand(), &each);
                                            seen.push_back(each.xid);
                                            return each.xid == 2;
                                        }),
              1U);
    EXPECT_THAT(seen, ElementsAre(1, 2));
    EXPECT_EQ(kept_transaction_in_hand(), nullptr);
}

// ---- Timers ----

struct record {
    std::uint32_t key;
    osal_timer timer;
};

bool fired = false;

record *arm_for(std::uint32_t seconds) {
    auto *made = static_cast<record *>(mfh_calloc(1, sizeof(record)));
    const osal_timer_callback callback = [](void *which) {
        fired = true;
        memmgr_free(which);
    };
    EXPECT_EQ(OSAL_ZEBOS_Create_Sec_Once_Timer(&made->timer, "test", callback, seconds, 1, made), 0);
    return made;
}

TEST_F(KeptTransactions, ATimerThatAMessageArmsStandsThereUntilItEnds) {
    std::vector<std::uint8_t> message(240);
    message[0] = 1;
    message[4] = 0x11;
    message[7] = 0x44;
    std::uint32_t as_it_stands = 0;
    std::memcpy(&as_it_stands, &message[4], sizeof as_it_stands);
    (void)open();
    books_open(10, 5123, {}, message);
    record *first = arm_for(300), *second = arm_for(300);
    books_close();
    record *other = arm_for(300);  // of no message
    OSAL_ZEBOS_Delete_Timer(&second->timer);
    const std::vector<kept_transaction> found = open();
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(found[0].xid, as_it_stands);
    EXPECT_EQ(found[0].port, 5123U);
    EXPECT_EQ(found[0].seconds, 300U);
    EXPECT_LE(found[0].since - now, 60000U);
    for (record *each : {first, second, other}) memmgr_free(each);
    timers_free();
}

TEST_F(KeptTransactions, OneThatIsHandedOverHasTheRestOfItsTime) {
    (void)open();
    fired = false;
    const std::vector<kept_transaction> found = {
        {.xid = 1, .port = 5122, .seconds = 300, .since = clock_coarse_ms() - 299900}};
    EXPECT_EQ(kept_transactions_restore(found, [](const kept_transaction &) { return arm_for(300) != nullptr; }), 1U);
    EXPECT_EQ(timer_queue_count(), 1U);
    const port_timers &of_port = timer_queue_port(timer_queue_ports() - 1);
    EXPECT_EQ(of_port.port, 5122U);
    EXPECT_EQ(of_port.armed, 1U);
    while (!fired) event_base_loop(loop_base(), EVLOOP_ONCE);
    EXPECT_GE(clock_coarse_ms() - found[0].since, 300000U);
    EXPECT_THAT(open(), IsEmpty()) << "it has ended";
}

TEST_F(KeptTransactions, WithoutATableNothingIsNoted) {
    kept_transactions_put(1, {.xid = 7, .port = 5123, .seconds = 300, .since = now});
    kept_transactions_drop(1);
    EXPECT_THAT(open(), IsEmpty());
}

}  // namespace
