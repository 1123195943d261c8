// SPDX-License-Identifier: Apache-2.0
// The daemon frame, the print service, memory, ordered trees, timers and the services that may do nothing.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "cli.h"
#include "if_utl.h"
#include "memmgr.h"
#include "minimal.h"
#include "nsm.h"
#include "osal.h"
#include "outcome.h"
#include "relay_access.h"
#include "sysinf_lib.h"
#include "uib.h"
#include "vex_init.h"

// ---- The daemon frame ----

uintptr_t *VEX_INIT_alloc() {
    static uintptr_t record[VEX_INIT_WORDS];
    return record;
}

int VEX_INIT_Sys_Init(uintptr_t *record) {
    cli_globals commands{};
    reinterpret_cast<vex_init_commands>(record[VEX_INIT_COMMANDS])(&commands);
    reinterpret_cast<vex_init_nsm>(record[VEX_INIT_NSM])(nullptr);
    reinterpret_cast<vex_init_start>(record[VEX_INIT_START])(nullptr, nullptr);
    minimal::interface_up();  // hooks wait until the start-up callback has created the databases
    minimal::exchange();      // where a real platform serves events until the daemon is to end
    return 0;
}

void relay_access_register(const struct relay_access *) {}

// ---- Printing ----

int vex_print_threshold = std::getenv("TRACE") != nullptr ? 101 : 104;

int vexprintf(int, int, int level, int, const char *format, ...) {
    if (!vex_prints(level) || level == 0) return 0;  // start-up lines are of no interest here
    va_list words;
    va_start(words, format);
    const int count = std::vprintf(format, words);
    va_end(words);
    return count;
}

// ---- Memory ----

void *mfh_calloc(size_t count, size_t size) {
    return std::calloc(count, size);
}

void memmgr_free(void *memory) {
    std::free(memory);
}

// ---- Ordered trees ----

namespace {

struct sorts_before {
    avl_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) < 0; }
};

}  // namespace

struct avl_tree {
    std::set<void *, sorts_before> records;
    size_t max_nodes;
};

avl_tree *avl_create(size_t max_nodes, avl_compare compare) {
    return new avl_tree{std::set<void *, sorts_before>(sorts_before{compare}), max_nodes};
}

int avl_insert(avl_tree *tree, void *record) {
    if (tree->max_nodes != 0 && tree->records.size() >= tree->max_nodes) return -1;
    return tree->records.insert(record).second ? 0 : -1;
}

void *avl_search(avl_tree *tree, const void *key) {
    const auto found = tree->records.find(const_cast<void *>(key));
    return found == tree->records.end() ? nullptr : *found;
}

int avl_remove(avl_tree *tree, const void *key) {
    return tree->records.erase(const_cast<void *>(key)) == 1 ? 0 : -1;
}

void *avl_first(avl_tree *tree) {
    return tree->records.empty() ? nullptr : *tree->records.begin();
}

void *avl_getnext(avl_tree *tree, const void *record) {
    const auto next = tree->records.upper_bound(const_cast<void *>(record));
    return next == tree->records.end() ? nullptr : *next;
}

void avl_destroy(avl_tree *tree) {
    delete tree;
}

// ---- Timers: the program ends long before one is due ----

int OSAL_ZEBOS_Create_Sec_Once_Timer(osal_timer *timer, const char *, osal_timer_callback, uint32_t, int, void *) {
    timer->armed = 1;
    return 0;
}

void OSAL_ZEBOS_Delete_Timer(osal_timer *timer) {
    timer->armed = 0;
}

// ---- What may do nothing ----

int SYSINF_LIB_Proto_Status_Set(uint32_t, uint32_t, const char *) {
    return 0;
}

void outcome_record(enum relay_outcome) {}
void outcome_server(uint32_t) {}

int UIB_WEB_Msg_Send(struct cli *, const void *, size_t) {
    return 0;
}

int UIB_OUT_TABLE_ENTRIES(struct cli *, struct uib_table *) {
    return 0;
}

int uib_snmp_key_send(struct cli *, const void *, size_t, ...) {
    return 0;
}
