// SPDX-License-Identifier: Apache-2.0
// Show commands have two links: one in privileged execution mode, and one in configuration mode for the command that
// shows transactions. A change has a link of its own, so that its modes and its lines stay together, and the daemon's
// log has one session for it.
#include "daemon.h"

#include <event2/event.h>
#include <malloc.h>
#include <poll.h>

#include <algorithm>
#include <list>
#include <map>
#include <utility>

#include "event_owner.h"

namespace ravo::web {

namespace {

using clock = std::chrono::steady_clock;

constexpr int share = 20;  // of the time that a document took: it is good for this many times as long
constexpr std::chrono::seconds longest_share{30};
constexpr std::size_t most_documents = 64;
constexpr std::size_t most_changes = 16;
constexpr std::chrono::seconds forgotten{10};

// A link on the event loop.
struct wired_link {
    struct event_base *base = nullptr;
    client::link_ptr link;
    event_ptr ready;  // the descriptor
    event_ptr late;   // the deadline
    int watched = -1;
    short wanted = 0;
    std::function<void()> after = {};  // called when something was handled
};

void rewire(wired_link &w);

void on_ready(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *w = static_cast<wired_link *>(arg);
    client::link_attend(*w->link);
    rewire(*w);
    if (w->after) w->after();
}

// Watches what the link waits for now.
void rewire(wired_link &w) {
    const int fd = client::link_descriptor(*w.link);
    const short wants = client::link_wants(*w.link);
    // A connection may have ended and another begun under the same number: the event is made anew each time.
    w.ready.reset();
    w.watched = fd;
    w.wanted = wants;
    if (fd >= 0) {
        const int what = ((wants & POLLIN) != 0 ? EV_READ : 0) | ((wants & POLLOUT) != 0 ? EV_WRITE : 0);
        w.ready.reset(event_new(w.base, fd, static_cast<short>(what | EV_PERSIST), on_ready, &w));
        event_add(w.ready.get(), nullptr);
    }
    if (!w.late) w.late.reset(evtimer_new(w.base, on_ready, &w));
    evtimer_del(w.late.get());
    const auto limit = client::link_deadline(*w.link);
    if (limit == clock::time_point::max()) return;
    const auto left = std::max(std::chrono::microseconds(1000),
                               std::chrono::duration_cast<std::chrono::microseconds>(limit - clock::now()));
    const timeval time{static_cast<time_t>(left.count() / 1000000), static_cast<suseconds_t>(left.count() % 1000000)};
    evtimer_add(w.late.get(), &time);
}

std::unique_ptr<wired_link> wire(struct event_base *base, const std::string &socket, int mode,
                                 const std::string &behalf = {}) {
    auto w = std::make_unique<wired_link>();
    w->base = base;
    client::link_options options;
    options.socket = socket;
    options.mode = mode;
    options.behalf = behalf;
    options.patience = std::chrono::milliseconds(3000);
    w->link = client::link_make(options);
    return w;
}

struct entry {
    document_ptr known;
    clock::duration took{};
    clock::time_point asked{};  // by whoever asked last
    clock::time_point sent{};
    std::vector<on_document> waiting;
};

struct change {
    std::unique_ptr<wired_link> wired;
    std::vector<std::string> lines;
    std::vector<client::reply> answers;
    std::function<void(const std::vector<client::reply> &)> done;
    bool over = false;
};

}  // namespace

struct daemon {
    struct event_base *base = nullptr;
    std::string socket;
    std::unique_ptr<wired_link> reader;
    std::unique_ptr<wired_link> configured;
    std::map<std::string, entry> documents;
    std::list<change> changes;
    unsigned generation = 0;  // counts the changes: an answer begun before one is not kept
};

void daemon_delete::operator()(daemon *d) const {
    delete d;
}

namespace {

wired_link &link_for(daemon &d, const std::string &command) {
    return command.starts_with("show ip dhcp relay xid") ? *d.configured : *d.reader;
}

document_ptr document_of(client::reply &answer) {
    auto doc = std::make_shared<document>();
    doc->answered = answer.answered;
    doc->result = answer.result;
    doc->there = answer.answered && answer.result == 0;
    doc->cut = answer.cut;
    doc->text = std::move(answer.text);
    doc->text.shrink_to_fit();
    doc->tail = std::move(answer.tail);
    doc->reason = std::move(answer.reason);
    doc->at = clock::now();
    return doc;
}

void take_document(daemon &d, const std::string &command, unsigned generation, client::reply &answer) {
    const document_ptr doc = document_of(answer);
    entry &e = d.documents[command];
    if (doc->answered) e.took = std::min<clock::duration>(doc->at - e.sent, longest_share / share);
    e.known = doc->answered && generation == d.generation ? doc : nullptr;
    // Whoever waits may ask again, and even end others' waiting.
    for (const on_document &use : std::exchange(e.waiting, {})) use(doc);
}

void end_of_change(daemon &d, change &c) {
    ++d.generation;
    for (auto &[command, e] : d.documents) e.known = nullptr;
    c.done(c.answers);
    c.over = true;  // not before: it must outlive its own callbacks
}

void next_line(daemon &d, change &c) {
    const bool failed = !c.answers.empty() && (!c.answers.back().answered || c.answers.back().result != 0);
    if (failed || c.answers.size() == c.lines.size()) {
        end_of_change(d, c);
        return;
    }
    client::link_ask(*c.wired->link, c.lines[c.answers.size()], [&d, &c](client::reply &answer) {
        c.answers.push_back(std::move(answer));
        next_line(d, c);
    });
}

}  // namespace

daemon_ptr daemon_make(struct event_base *base, const std::string &socket) {
    daemon_ptr d(new daemon);
    d->base = base;
    d->socket = socket;
    d->reader = wire(base, socket, 4);
    d->configured = wire(base, socket, 5);
    return d;
}

void daemon_document(daemon &d, const std::string &command, std::chrono::milliseconds age, on_document use) {
    entry &e = d.documents[command];
    e.asked = clock::now();
    const auto good_for = std::max<clock::duration>(age, e.took * share);
    if (e.known != nullptr && e.asked - e.known->at <= good_for) {
        use(document_ptr(e.known));
        return;
    }
    e.waiting.push_back(std::move(use));
    if (e.waiting.size() > 1) return;  // it is asked for already
    e.sent = e.asked;
    wired_link &w = link_for(d, command);
    client::link_ask(*w.link, command, [&d, command, generation = d.generation](client::reply &answer) {
        take_document(d, command, generation, answer);
    });
    rewire(w);
}

void daemon_change(daemon &d, const std::string &user, std::vector<std::string> lines,
                   std::function<void(const std::vector<client::reply> &answers)> done) {
    // What is over goes here, where none of its callbacks can be running.
    d.changes.remove_if([](const change &c) { return c.over; });
    if (d.changes.size() >= most_changes) {
        client::reply busy;
        busy.reason = "too many changes wait for ravod";
        done({busy});
        return;
    }
    change &c = d.changes.emplace_back();
    c.wired = wire(d.base, d.socket, 4, user);
    c.lines = std::move(lines);
    c.done = std::move(done);
    next_line(d, c);
    if (!c.over) rewire(*c.wired);
}

const client::link_state &daemon_state(const daemon &d) {
    return client::link_look(*d.reader->link);
}

void daemon_tidy(daemon &d) {
    d.changes.remove_if([](const change &c) { return c.over; });
    const auto now = clock::now();
    bool large = false;
    std::erase_if(d.documents, [&](const auto &row) {
        const entry &e = row.second;
        const bool old = e.waiting.empty() && now - e.asked > forgotten;
        if (old && e.known != nullptr) large = large || e.known->text.size() > 65536;
        return old;
    });
    while (d.documents.size() > most_documents) {
        const auto idle = std::find_if(d.documents.begin(), d.documents.end(),
                                       [](const auto &row) { return row.second.waiting.empty(); });
        if (idle == d.documents.end()) break;
        d.documents.erase(idle);
    }
    if (large) malloc_trim(0);
}

}  // namespace ravo::web
