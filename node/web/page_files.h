// The files of the page, which are part of the program: those of node/web/page/, made into an array
// by the build. No state; any thread may call these functions.
#pragma once

#include <string>
#include <string_view>

namespace qv::node::web {

struct PageFile {
    std::string_view name;  // Without folder.
    std::string_view bytes;
};

// Returns the file of that name, or null.
const PageFile* find_page_file(std::string_view name);

// The media type for the ending of a file's name.
std::string media_type(std::string_view name);

}  // namespace qv::node::web
