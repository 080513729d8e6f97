// Fuzzes the text of a path.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "quorvane_lib/utils_path.h"

namespace {

namespace path = qv::utils::path;

std::string with_slashes(std::string text) {
    std::replace(text.begin(), text.end(), '\\', '/');
    return text;
}

std::vector<std::string> components_of(const std::string& text) {
    std::vector<std::string> components(1);
    for (const char c : text) {
        if (c == '/') {
            components.emplace_back();
        } else {
            components.back() += c;
        }
    }
    return components;
}

bool is_none(const std::string& component) {
    return component.empty() || component == ".";
}

bool climbs_above_root(const std::vector<std::string>& components) {
    int depth = 0;
    for (const std::string& component : components) {
        depth += is_none(component) ? 0 : component == ".." ? -1 : 1;
        if (depth < 0) {
            return true;
        }
    }
    return false;
}

// Goes from the last component to the first; each ".." drops an earlier component.
std::string absolute(const std::string& text) {
    const char* const blanks = " \t\n\r";
    const std::size_t first = text.find_first_not_of(blanks);
    std::string full =
        first == std::string::npos
            ? ""
            : with_slashes(text.substr(first, text.find_last_not_of(blanks) - first + 1));
    if (!full.empty() && full[0] != '/') {
        full = path::get_current_directory() + "/" + full;
    }
    const std::vector<std::string> components = components_of(full);
    if (climbs_above_root(components)) {
        return "";
    }
    std::string result;
    int swallowed = 0;
    for (auto component = components.rbegin(); component != components.rend(); ++component) {
        if (*component == "..") {
            ++swallowed;
        } else if (is_none(*component)) {
            continue;
        } else if (swallowed > 0) {
            --swallowed;
        } else {
            result = "/" + *component + result;
        }
    }
    return result.empty() ? "/" : result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = qv::fuzz::as_text(data, size);
    const std::string normalized = with_slashes(text);
    std::string in_place = text;
    path::normalize_path_separator(in_place);
    qv::fuzz::require_equal("normalized path", path::normalize_path_separator(text), normalized);
    qv::fuzz::require_equal("path normalized in place", in_place, normalized);
    qv::fuzz::require_equal("file name", path::get_file_name(text),
                            components_of(normalized).back());

    const std::string result = path::get_absolute_path(text);
    qv::fuzz::require_equal("absolute path", result, absolute(text));
    const bool ends_in_blank =
        !result.empty() && std::string(" \t\n\r").find(result.back()) != std::string::npos;
    if (!result.empty() && !ends_in_blank) {
        qv::fuzz::require_equal("absolute path again", path::get_absolute_path(result), result);
    }
    return 0;
}
