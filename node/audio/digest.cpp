#include "node/audio/digest.h"

#include <fcntl.h>
#include <nettle/sha2.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <vector>

#include "node/audio/descriptor.h"
#include "tools/hexadecimal.h"

namespace qv::node {

namespace {

constexpr std::size_t PART_BYTES = std::size_t{256} * 1024;

// Feeds the rest of the file to `sha`. Returns 0 or the error number.
int read_into(int file, sha256_ctx& sha) {
    std::vector<std::uint8_t> part(PART_BYTES);
    for (;;) {
        const ssize_t size = ::read(file, part.data(), part.size());
        if (size == 0) {
            return 0;
        }
        if (size > 0) {
            sha256_update(&sha, static_cast<std::size_t>(size), part.data());
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

std::string digest_text(sha256_ctx& sha) {
    std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
    sha256_digest(&sha, digest.size(), digest.data());
    return tools::hexadecimal(digest.data(), digest.size());
}

}  // namespace

std::string sha256_of_file(int descriptor, std::string& error) {
    sha256_ctx sha;
    sha256_init(&sha);
    const int failure = ::lseek(descriptor, 0, SEEK_SET) == 0 ? read_into(descriptor, sha) : errno;
    if (failure != 0) {
        error = std::generic_category().message(failure);
        return {};
    }
    return digest_text(sha);
}

std::string sha256_of_file(const std::string& path, std::string& error) {
    const Descriptor file = open_regular_file(path, O_RDONLY);
    if (!file.is_open()) {
        error = std::generic_category().message(errno);
        return {};
    }
    return sha256_of_file(file.number(), error);
}

}  // namespace qv::node
