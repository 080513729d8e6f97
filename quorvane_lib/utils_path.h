// File-system paths: separators, the name in a path, lexical absolute paths, and
// directories made on demand.
//
// The functions keep no state but read the process's current directory; any thread
// may call them while no other thread changes it.
#pragma once

#include <cstdint>
#include <string>

namespace qv::utils::path {

struct LINUX_PATH_SEPARATOR {
    static constexpr char CHAR = '/';
    static constexpr const char* C_STR = "/";
    inline static const std::string STR = C_STR;
};

struct WINDOWS_PATH_SEPARATOR {
    static constexpr char CHAR = '\\';
    static constexpr const char* C_STR = "\\";
    // The Linux separator, unlike the two above: paths are built with STR, and only for Linux.
    // See docs/design.md, Odd on purpose: paths.
    inline static const std::string STR = LINUX_PATH_SEPARATOR::C_STR;
};

// Not used here; kept for its users.
struct FILE_EXTENSION_SEPARATOR {
    static constexpr char CHAR = '.';
};

struct CURRENT_DIR {
    static constexpr const char* C_STR = ".";
    inline static const std::string STR = C_STR;
};

struct PARENT_DIR {
    static constexpr const char* C_STR = "..";
    inline static const std::string STR = C_STR;
};

// How check_or_create_directory finds out what is missing.
enum class create_policy : std::int32_t {
    optimistic = 0,   // Look for the deepest existing ancestor, create downwards.
    pessimistic = 1,  // Not implemented.
};

// The current directory without a trailing '/', hence empty for the root directory.
std::string get_current_directory();

// Replaces every '\' by '/', in place or in a copy.
void normalize_path_separator(std::string& path);
std::string normalize_path_separator(const std::string& path);

// What follows the last separator; the whole path if there is none. Not used here; kept for its
// users.
std::string get_file_name(const std::string& path);

// The absolute form of `path`, without ".", "..", doubled or trailing separators. Does not
// resolve symbolic links; nothing of the path needs to exist. "/" for an empty path, an empty
// text for a path that leads above the root.
std::string get_absolute_path(const std::string& path);

// Makes sure that the directory `path` exists, or the directory that holds it if
// `path_is_file`; missing ones are created with `mode`. On false, errno has the reason
// (ENOTDIR when an ancestor is no directory), except for a path without a directory.
// Throws std::runtime_error for the pessimistic policy and std::invalid_argument for
// an unknown one.
bool check_or_create_directory(const std::string& path, bool path_is_file, unsigned int mode,
                               create_policy policy);

}  // namespace qv::utils::path
