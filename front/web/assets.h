// SPDX-License-Identifier: Apache-2.0
// The page's own files, which are part of the program.
#ifndef FRONT_WEB_ASSETS_H
#define FRONT_WEB_ASSETS_H

#include <span>
#include <string_view>

#include "exchange.h"

namespace ravo::web {

struct asset {
    std::string_view name;  // "style.css"
    std::string_view type;  // of the content
    std::string_view etag;  // of this content, in quotes
    std::string_view text;
};

// Made by the build from front/web/page/.
extern const std::span<const asset> all_assets;

// The file of this name, or null.
const asset *find_asset(std::string_view name);

// Serves "/" and the page's files. Returns false when the path is none of them.
bool serve_asset(exchange &x);

// GET /api/v1/openapi.json.
void serve_openapi(const exchange_ptr &x);

}  // namespace ravo::web

#endif
