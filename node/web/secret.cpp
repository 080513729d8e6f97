#include "node/web/secret.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "tools/hexadecimal.h"

namespace qv::node::web {

namespace {

constexpr std::size_t SHORTEST_TOKEN = 16;
constexpr std::size_t LONGEST_TOKEN = 512;

// At most so much of it that a file which is too long shows.
std::string content_of(int descriptor) {
    std::string content(LONGEST_TOKEN + 2, '\0');
    std::size_t size = 0;
    while (size < content.size()) {
        const ssize_t got = ::read(descriptor, &content[size], content.size() - size);
        if (got <= 0) {
            break;
        }
        size += static_cast<std::size_t>(got);
    }
    content.resize(size);
    return content;
}

bool is_plain(char each) {
    return each > ' ' && each <= '~';
}

std::string complaint_about(const std::string& token) {
    if (!std::all_of(token.begin(), token.end(), is_plain)) {
        return "the token must be one line of printable ASCII characters without blanks";
    }
    if (token.size() < SHORTEST_TOKEN || token.size() > LONGEST_TOKEN) {
        return "the token must have " + std::to_string(SHORTEST_TOKEN) + " to " +
               std::to_string(LONGEST_TOKEN) + " characters";
    }
    return {};
}

std::string read_open(int descriptor, std::string& token) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        return "not a regular file";
    }
    if ((status.st_mode & (S_IWGRP | S_IRWXO)) != 0) {
        return "users other than its owner and its group may read it, or its group may change it "
               "(chmod 600)";
    }
    token = content_of(descriptor);
    if (!token.empty() && token.back() == '\n') {
        token.pop_back();
    }
    return complaint_about(token);
}

}  // namespace

bool is_same_secret(std::string_view given, std::string_view secret) {
    unsigned char difference = given.size() == secret.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const char expected = secret.empty() ? '\0' : secret[i % secret.size()];
        difference |= static_cast<unsigned char>(given[i] ^ expected);
    }
    return difference == 0 && !secret.empty();
}

std::string read_token(const std::string& path, std::string& token) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return std::generic_category().message(errno);
    }
    std::string error = read_open(descriptor, token);
    ::close(descriptor);
    return error;
}

std::string new_secret() {
    std::array<unsigned char, 32> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "no random bytes");
    }
    return tools::hexadecimal(bytes.data(), bytes.size());
}

}  // namespace qv::node::web
