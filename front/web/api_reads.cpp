// SPDX-License-Identifier: Apache-2.0
// Documents of the daemon go on as they are where they are short; long lists are cut to what was asked for, an element
// at a time.
#include "api_reads.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <queue>

#include "commands.h"
#include "difference.h"
#include "look.h"
#include "routes.h"
#include "server.h"

namespace ravo::web {

namespace {

using nlohmann::json;

constexpr std::size_t usual_limit = 100;
constexpr std::size_t largest_limit = 1000;
constexpr std::size_t largest_offset = 10000000;

// What part of a list is wanted.
struct window {
    std::string search;
    std::size_t limit = usual_limit;
    std::size_t offset = 0;
};

bool read_window(exchange &x, window *out) {
    const std::string_view query = x.what.query;
    const auto limit = query_number(query, "limit", usual_limit, largest_limit);
    const auto offset = query_number(query, "offset", 0, largest_offset);
    if (!limit || !offset) {
        respond_fault(x, 400, "limit is a number up to 1000, offset one up to 10000000");
        return false;
    }
    *out = {query_value(query, "search").value_or(""), *limit, *offset};
    return true;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Without what people put between the digits of a hardware address.
std::string digits_only(const std::string &text) {
    std::string out;
    for (const char c : lower(text))
        if (c != ':' && c != '-' && c != '.') out += c;
    return out;
}

// Hands the daemon's document on, or answers that it is not there.
void pass_on(const exchange_ptr &x, const std::string &command) {
    daemon_document(*x->owner->daemon, command, fresh_enough, [x](const document_ptr &doc) {
        if (doc->there && !doc->cut)
            respond_text(*x, doc->text);
        else
            respond_absent(*x, *doc);
    });
}

// Hands on the elements of a list that a test takes, as many as are wanted, with their number.
template <typename Test>
void pass_on_list(const exchange_ptr &x, const std::string &command, const std::string &list, Test test) {
    window part;
    if (!read_window(*x, &part)) return;
    daemon_document(*x->owner->daemon, command, fresh_enough, [x, list, part, test](const document_ptr &doc) {
        if (!doc->there) return respond_absent(*x, *doc);
        json kept = json::array();
        std::size_t matched = 0;
        json rest;
        const bool whole = each_element(
            doc->text, list,
            [&](json &element) {
                if (!test(element, part.search)) return;
                if (matched++ >= part.offset && kept.size() < part.limit) kept.push_back(std::move(element));
            },
            &rest);
        rest[list] = std::move(kept);
        rest["matched"] = matched;
        if (doc->cut) rest["total"] = last_count(doc->tail, "total");
        if (!rest.contains("total")) rest["total"] = matched;
        rest["complete"] = whole && !doc->cut;
        respond_json(*x, 200, rest);
    });
}

bool contains(const json &element, const char *member, const std::string &wanted) {
    return lower(text_member(element, member)).find(wanted) != wanted.npos;
}

bool is_interface_found(const json &element, const std::string &search) {
    const std::string wanted = lower(search);
    if (wanted.empty() || contains(element, "name", wanted) || contains(element, "address", wanted)) return true;
    if (!element.is_object()) return false;
    const auto servers = element.find("servers");
    return servers != element.end() && std::any_of(servers->begin(), servers->end(), [&](const json &server) {
               return server.is_string() && server.get<std::string>().find(wanted) != wanted.npos;
           });
}

bool is_client_found(const json &element, const std::string &search) {
    if (search.empty()) return true;
    const std::string digits = digits_only(search);
    if (!digits.empty() && digits_only(text_member(element, "client")).find(digits) != digits.npos) return true;
    const std::string wanted = lower(search);
    return contains(element, "address", wanted) || contains(element, "state", wanted) ||
           contains(element, "port", wanted);
}

bool is_any(const json & /*element*/, const std::string & /*search*/) {
    return true;
}

// Settings are all that the document has but its lists of interfaces.
void respond_settings(exchange &x, const document &doc) {
    json rest;
    (void)each_element(
        doc.text, "interfaces", [](json &) {}, &rest);
    rest.erase("interfaces");
    respond_json(x, 200, rest);
}

// The busiest elements of a list, most messages first.
json busiest(const std::string &text, const char *list, std::size_t top) {
    const auto less_busy = [](const json &a, const json &b) {
        return count_member(a, "received") > count_member(b, "received");
    };
    std::vector<json> kept;
    (void)each_element(text, list, [&](json &element) {
        kept.push_back(std::move(element));
        std::push_heap(kept.begin(), kept.end(), less_busy);
        if (kept.size() <= top) return;
        std::pop_heap(kept.begin(), kept.end(), less_busy);
        kept.pop_back();
    });
    std::sort(kept.begin(), kept.end(), less_busy);
    return kept;
}

void respond_busiest(exchange &x, const document &doc, std::size_t top) {
    json total = json::object();
    (void)each_element(
        doc.text, "vlans", [](json &) {}, &total);
    respond_json(x, 200,
                 {{"total", total.contains("total") ? total["total"] : json::object()},
                  {"vlans", busiest(doc.text, "vlans", top)},
                  {"ports", busiest(doc.text, "ports", top)}});
}

}  // namespace

void respond_absent(exchange &x, const document &doc) {
    if (!doc.answered) return respond_fault(x, 503, doc.reason);
    if (doc.there) return respond_fault(x, 507, "there is more than can be shown");
    const bool unknown =
        doc.text.find("Invalid input") != std::string::npos || doc.text.find("JSON") != std::string::npos;
    respond_fault(x, unknown ? 501 : 502, unknown ? "this ravod does not tell that" : doc.text);
}

void serve_health(const exchange_ptr &x) {
    daemon_document(*x->owner->daemon, version_command, fresh_enough, [x](const document_ptr &doc) {
        respond_json(*x, doc->answered ? 200 : 503, health_json(*x->owner, doc->answered, doc->reason));
    });
}

void serve_settings(const exchange_ptr &x) {
    daemon_document(*x->owner->daemon, settings_command, fresh_enough, [x](const document_ptr &doc) {
        if (doc->there)
            respond_settings(*x, *doc);
        else
            respond_absent(*x, *doc);
    });
}

void serve_interfaces(const exchange_ptr &x) {
    pass_on_list(x, detail_command, "interfaces", is_interface_found);
}

void serve_servers(const exchange_ptr &x) {
    pass_on(x, servers_command);
}

void serve_clients(const exchange_ptr &x) {
    pass_on_list(x, clients_command, "clients", is_client_found);
}

void serve_client(const exchange_ptr &x) {
    const auto mac = read_mac(segment(*x, 3));
    if (!mac) return respond_fault(*x, 400, "\"" + segment(*x, 3) + "\" is no hardware address");
    pass_on_list(x, client_command + *mac + " | json", "messages", is_any);
}

void serve_statistics(const exchange_ptr &x) {
    const auto top = query_number(x->what.query, "top", 0, largest_limit);
    if (!top) return respond_fault(*x, 400, "top is a number up to 1000");
    if (*top == 0) return pass_on(x, statistics_command);
    daemon_document(*x->owner->daemon, statistics_command, fresh_enough, [x, top](const document_ptr &doc) {
        if (doc->there)
            respond_busiest(*x, *doc, *top);
        else
            respond_absent(*x, *doc);
    });
}

void serve_transactions(const exchange_ptr &x) {
    pass_on_list(x, transactions_command, "transactions", is_any);
}

void serve_advice(const exchange_ptr &x) {
    pass_on(x, advice_command);
}

void serve_configuration(const exchange_ptr &x) {
    daemon_document(*x->owner->daemon, running_command, fresh_enough, [x](const document_ptr &running) {
        if (!running->there) return respond_absent(*x, *running);
        daemon_document(*x->owner->daemon, saved_command, fresh_enough, [x, running](const document_ptr &saved) {
            if (!saved->answered) return respond_absent(*x, *saved);
            const std::string kept = saved->there ? saved->text : "";  // nothing was saved yet
            json out = {{"running", running->text}, {"saved", kept}};
            out["difference"] = difference(kept, running->text);
            respond_json(*x, 200, out);
        });
    });
}

}  // namespace ravo::web
