#include "node/audio/text_file.h"

#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace qv::node {

std::string write_text_file(const std::string& path, const std::string& text) {
    errno = 0;
    std::ofstream file(path, std::ios::trunc);
    if (!file) {
        return std::generic_category().message(errno);
    }
    file << text;
    file.close();
    if (file) {
        return {};
    }
    const int error = errno;
    ::unlink(path.c_str());
    return std::generic_category().message(error);
}

}  // namespace qv::node
