#include "quorvane_lib/utils_path.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include "quorvane_lib/utils_str.h"

namespace qv::utils::path {

namespace {

constexpr char SEPARATOR = LINUX_PATH_SEPARATOR::CHAR;

struct FreeDeleter {
    void operator()(char* text) const { std::free(text); }
};

// The path before the last separator of the absolute path `path`.
std::string parent(const std::string& path) {
    return path.substr(0, path.rfind(SEPARATOR));
}

// Creates `path` and every directory between it and its ancestor `existing`.
bool create_downwards(const std::string& existing, const std::string& path, mode_t mode) {
    std::size_t end = path.find(SEPARATOR, existing.size() + 1);
    while (end != std::string::npos) {
        if (::mkdir(path.substr(0, end).c_str(), mode) != 0 && errno != EEXIST) {
            return false;
        }
        end = path.find(SEPARATOR, end + 1);
    }
    return ::mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

bool create_directory_optimistic(const std::string& path, mode_t mode) {
    struct stat status {};
    std::string existing = path;
    while (!existing.empty() && ::stat(existing.c_str(), &status) != 0) {
        existing = parent(existing);
    }
    if (!existing.empty() && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return existing == path || create_downwards(existing, path, mode);
}

// Appends the components of a path as steps from the root; false if they lead above it.
bool walk(const std::vector<std::string>& components, std::vector<std::string>& kept) {
    for (const std::string& component : components) {
        if (component == PARENT_DIR::STR) {
            if (kept.empty()) {
                return false;
            }
            kept.pop_back();
        } else if (component != CURRENT_DIR::STR) {
            kept.push_back(component);
        }
    }
    return true;
}

}  // namespace

std::string get_current_directory() {
    const std::unique_ptr<char, FreeDeleter> buffer(::get_current_dir_name());
    std::string directory = buffer == nullptr ? "" : buffer.get();
    if (!directory.empty() && directory.back() == SEPARATOR) {
        directory.pop_back();
    }
    return directory;
}

void normalize_path_separator(std::string& path) {
    std::replace(path.begin(), path.end(), WINDOWS_PATH_SEPARATOR::CHAR, SEPARATOR);
}

std::string normalize_path_separator(const std::string& path) {
    std::string copy = path;
    normalize_path_separator(copy);
    return copy;
}

std::string get_file_name(const std::string& path) {
    const std::string normalized = normalize_path_separator(path);
    const std::size_t separator = normalized.rfind(SEPARATOR);
    return separator == std::string::npos ? normalized : normalized.substr(separator + 1);
}

std::string get_absolute_path(const std::string& path) {
    std::string full = str::trim_right(str::trim_left(path));
    normalize_path_separator(full);
    if (!full.empty() && full.front() != SEPARATOR) {
        full = get_current_directory() + SEPARATOR + full;
    }

    std::vector<std::string> components;
    str::split(full, SEPARATOR, components, false);
    std::vector<std::string> kept;
    if (!walk(components, kept)) {
        return {};
    }
    if (kept.empty()) {
        return LINUX_PATH_SEPARATOR::STR;
    }
    std::string absolute;
    for (const std::string& component : kept) {
        absolute += SEPARATOR + component;
    }
    return absolute;
}

bool check_or_create_directory(const std::string& path, bool path_is_file, unsigned int mode,
                               create_policy policy) {
    std::string directory = get_absolute_path(path);
    if (path_is_file && !directory.empty()) {
        directory = parent(directory);
    }
    if (directory.empty()) {
        return false;
    }
    switch (policy) {
        case create_policy::optimistic:
            return create_directory_optimistic(directory, mode);
        case create_policy::pessimistic:
            throw std::runtime_error("not implemented:create_directory_pessimistic");
    }
    throw std::invalid_argument("policy");
}

}  // namespace qv::utils::path
