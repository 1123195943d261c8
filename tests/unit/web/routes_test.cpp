// SPDX-License-Identifier: Apache-2.0
// The description of the interface, and what is served, are the same.
#include "routes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "assets.h"

namespace {

using namespace ravo::web;

// "/api/v1/interfaces/NAME" as the description writes it: "/interfaces/{NAME}".
std::string described(std::string_view path) {
    std::string out;
    path.remove_prefix(std::string_view("/api/v1").size());
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t end = std::min(path.find('/', at + 1), path.size());
        const std::string part(path.substr(at + 1, end - at - 1));
        const bool any = !part.empty() && part == [&] {
            std::string up = part;
            for (char &c : up) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            return up;
        }();
        out += any ? "/{" + part + "}" : "/" + part;
        at = end;
    }
    return out;
}

TEST(Routes, AreThoseOfTheDescription) {
    constexpr const char *words[] = {"get", "head", "post", "put", "delete"};
    std::set<std::string> served;
    for (const route_row &row : all_routes())
        if (row.path != "/metrics")
            served.insert(std::string(words[static_cast<int>(row.verb)]) + " " + described(row.path));
    std::set<std::string> told;
    const auto doc = nlohmann::json::parse(find_asset("openapi.json")->text);
    for (const auto &[path, operations] : doc["paths"].items())
        for (const auto &[verb, what] : operations.items()) told.insert(verb + " " + path);
    EXPECT_EQ(served, told);
}

TEST(Routes, ChangesAreForWritersAndReadsForThoseSignedIn) {
    for (const route_row &row : all_routes()) {
        const bool open = row.path == "/metrics" || row.path == "/api/v1/health" || row.path == "/api/v1/session" ||
                          row.path == "/api/v1/openapi.json";
        if (open) continue;
        EXPECT_EQ(row.who, row.verb == verb::get ? audience::reader : audience::writer) << row.path;
    }
}

TEST(Assets, NameNothingFromElsewhere) {
    ASSERT_NE(find_asset("index.html"), nullptr);
    for (const asset &a : all_assets) {
        if (a.name == "openapi.json") continue;
        std::string text(a.text);
        for (const char *own : {"http://www.w3.org/2000/svg"})
            for (std::size_t at; (at = text.find(own)) != std::string::npos;) text.erase(at, std::string(own).size());
        EXPECT_EQ(text.find("http:"), text.npos) << a.name;
        EXPECT_EQ(text.find("https:"), text.npos) << a.name;
        EXPECT_EQ(text.find("innerHTML"), text.npos) << a.name;
        EXPECT_EQ(text.find(" style=\""), text.npos) << a.name;
    }
}

}  // namespace
