// SPDX-License-Identifier: Apache-2.0
// The files are in the program; each has an ETag of its content, so that a browser asks for it again and gets a 304.
#include "assets.h"

#include <algorithm>

namespace ravo::web {

namespace {

constexpr std::string_view start = "index.html";
constexpr std::string_view described = "openapi.json";

void respond_asset(exchange &x, const asset &a) {
    const std::vector<header> more = {{"ETag", std::string(a.etag)}, {"Cache-Control", "no-cache"}};
    if (header_of(x, "If-None-Match") == a.etag)
        respond(x, 304, std::string(a.type).c_str(), "", more);
    else
        respond(x, 200, std::string(a.type).c_str(), a.text, more);
}

}  // namespace

const asset *find_asset(std::string_view name) {
    const auto found =
        std::find_if(all_assets.begin(), all_assets.end(), [&](const asset &a) { return a.name == name; });
    return found == all_assets.end() ? nullptr : &*found;
}

bool serve_asset(exchange &x) {
    if (x.what.path.size() > 1) return false;
    const std::string_view name = x.what.path.empty() ? start : std::string_view(x.what.path[0]);
    const asset *found = name == described ? nullptr : find_asset(name);
    if (found != nullptr) respond_asset(x, *found);
    return found != nullptr;
}

void serve_openapi(const exchange_ptr &x) {
    if (const asset *found = find_asset(described); found != nullptr) respond_asset(*x, *found);
}

}  // namespace ravo::web
