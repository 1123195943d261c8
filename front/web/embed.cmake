# SPDX-License-Identifier: Apache-2.0
# Makes a source of the page's files: cmake -DOUT=FILE -DFOLDER=front/web/page -P embed.cmake
file(GLOB files ${FOLDER}/*)
list(SORT files)
set(types_html "text/html; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
set(types_json "application/json")
set(types_svg "image/svg+xml")
set(rows "")
set(texts "")
set(number 0)
foreach(path ${files})
  get_filename_component(name ${path} NAME)
  get_filename_component(kind ${path} LAST_EXT)
  string(SUBSTRING "${kind}" 1 -1 kind)
  if(NOT DEFINED types_${kind})
    message(FATAL_ERROR "${path}: no content type is known for .${kind}")
  endif()
  file(SHA256 ${path} sum)
  string(SUBSTRING ${sum} 0 16 etag)
  file(READ ${path} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(APPEND texts "constexpr unsigned char text${number}[] = {${bytes}};\n")
  string(APPEND rows "    {\"${name}\", \"${types_${kind}}\", \"\\\"${etag}\\\"\", text_of(text${number})},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "// Made from the files in front/web/page.
#include \"assets.h\"

namespace ravo::web {
namespace {
${texts}
template <std::size_t size>
std::string_view text_of(const unsigned char (&bytes)[size]) {
    return {reinterpret_cast<const char *>(bytes), size};
}
const asset rows[] = {
${rows}};
}  // namespace
const std::span<const asset> all_assets = rows;
}  // namespace ravo::web
")
