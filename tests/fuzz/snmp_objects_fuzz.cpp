// SPDX-License-Identifier: Apache-2.0
// Surface: what ravo-snmp makes of the daemon's answers, and what managers then ask of it. The first byte says which
// part of the picture the answer is for, the next three numbers begin an identifier that is asked for; the rest is the
// answer: as text, and cut into keys.
//
// Contract: whatever the bytes, nothing outside them is read. A walk over what came of them meets every instance once,
// in order, and each is found by its name. From any identifier the next instance lies behind it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "objects.h"
#include "picture.h"

namespace {

using namespace ravo::snmp;

void require(bool condition) {
    if (!condition) std::abort();
}

bool always(void * /*context*/, part /*wanted*/) {
    return true;
}

// The same bytes as text, as row keys of both lengths, and as keyed values.
ravo::client::reply answer_of(const std::uint8_t *data, std::size_t size) {
    ravo::client::reply r;
    r.answered = true;
    r.text.assign(reinterpret_cast<const char *>(data), size);
    for (std::size_t at = 0; at + 8 <= size; at += 8) {
        r.row_keys.emplace_back(data + at, data + at + 8);
        r.row_keys.emplace_back(data + at, data + at + 4);
        r.values.push_back({{data + at, data + at + 8}, r.text.substr(at + 8, 12)});
    }
    return r;
}

void check_walk(const source &from) {
    instance last;
    instance next;
    for (std::size_t steps = 0; find_next(from, last.name, &next) == found::yes; ++steps) {
        require(last.name < next.name && steps < 100000);
        value v;
        if (steps < 200) {
            require(find_exact(from, next.name, &v) == found::yes);
            require(v.number == next.value.number && v.text == next.value.text);
        }
        last = next;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 4) return 0;
    picture p;
    (void)take_part(&p, static_cast<part>(data[0] % parts), answer_of(data + 4, size - 4));
    const source from{&p, always, nullptr};
    check_walk(from);
    oid_text asked = {data[1] % 3U, data[2] % 12U, data[3] % 12U};
    for (std::size_t i = 4; i < size && i < 16; ++i) asked.push_back(data[i]);
    instance next;
    if (find_next(from, asked, &next) == found::yes) require(asked < next.name);
    (void)find_target(asked);
    (void)find_exact(from, asked, &next.value);
    return 0;
}
