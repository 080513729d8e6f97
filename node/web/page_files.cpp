#include "node/web/page_files.h"

#include <algorithm>
#include <iterator>
#include <map>

namespace qv::node::web {

namespace {

#include "generated/web_page_files.inc"

}  // namespace

const PageFile* find_page_file(std::string_view name) {
    const auto* const found =
        std::find_if(std::begin(PAGE_FILES), std::end(PAGE_FILES),
                     [name](const PageFile& file) { return file.name == name; });
    return found == std::end(PAGE_FILES) ? nullptr : found;
}

std::string media_type(std::string_view name) {
    static const std::map<std::string_view, std::string> types = {
        {"css", "text/css; charset=utf-8"},
        {"flac", "audio/flac"},
        {"html", "text/html; charset=utf-8"},
        {"js", "text/javascript; charset=utf-8"},
        {"json", "application/json"},
        {"opus", "audio/ogg"},
        {"svg", "image/svg+xml"},
        {"wav", "audio/wav"}};
    const std::size_t dot = name.rfind('.');
    const auto found = types.find(dot == std::string_view::npos ? name : name.substr(dot + 1));
    return found == types.end() ? "application/octet-stream" : found->second;
}

}  // namespace qv::node::web
