#include "node/report/keys.h"

#include <algorithm>
#include <array>
#include <optional>

namespace qv::node {

namespace {

constexpr char ESCAPE = '\x1b';

struct Sequence {
    std::string_view bytes;
    Key::Kind kind;
};
constexpr std::array<Sequence, 14> SEQUENCES = {{{"\x1b[A", Key::Kind::UP},
                                                 {"\x1bOA", Key::Kind::UP},
                                                 {"\x1b[B", Key::Kind::DOWN},
                                                 {"\x1bOB", Key::Kind::DOWN},
                                                 {"\x1b[5~", Key::Kind::PAGE_UP},
                                                 {"\x1b[6~", Key::Kind::PAGE_DOWN},
                                                 {"\x1b[H", Key::Kind::HOME},
                                                 {"\x1bOH", Key::Kind::HOME},
                                                 {"\x1b[1~", Key::Kind::HOME},
                                                 {"\x1b[7~", Key::Kind::HOME},
                                                 {"\x1b[F", Key::Kind::END},
                                                 {"\x1bOF", Key::Kind::END},
                                                 {"\x1b[4~", Key::Kind::END},
                                                 {"\x1b[8~", Key::Kind::END}}};

// How many bytes the sequence at the beginning takes; 0 where its end has not come.
std::size_t sequence_size(std::string_view text) {
    if (text.size() < 2) {
        return 0;
    }
    if (text[1] == 'O') {
        return text.size() < 3 ? 0 : 3;
    }
    if (text[1] != '[') {
        return 1;  // Escape, and then another key.
    }
    const auto end = std::find_if(text.begin() + 2, text.end(),
                                  [](char byte) { return byte >= '@' && byte <= '~'; });
    return end == text.end() ? 0 : static_cast<std::size_t>(end - text.begin()) + 1;
}

// Nothing for a sequence of another key.
std::optional<Key> key_of(std::string_view sequence) {
    if (sequence.size() == 1) {
        return Key{Key::Kind::ESCAPE};
    }
    const auto* const found =
        std::find_if(SEQUENCES.begin(), SEQUENCES.end(),
                     [&](const Sequence& known) { return known.bytes == sequence; });
    return found == SEQUENCES.end() ? std::nullopt : std::optional(Key{found->kind});
}

std::optional<Key> key_of(char byte) {
    if (byte == '\r' || byte == '\n') {
        return Key{Key::Kind::ENTER};
    }
    if (byte == '\x7f' || byte == '\b') {
        return Key{Key::Kind::BACKSPACE};
    }
    return byte >= ' ' && byte <= '~' ? std::optional(Key{Key::Kind::CHARACTER, byte})
                                      : std::nullopt;
}

}  // namespace

std::vector<Key> KeyReader::read(std::string_view bytes) {
    std::vector<Key> keys;
    if (bytes.empty() && !waiting_.empty()) {
        waiting_.clear();  // What had begun with Escape is no known key.
        keys.push_back(Key{Key::Kind::ESCAPE});
    }
    waiting_ += bytes;
    std::string_view rest = waiting_;
    while (!rest.empty()) {
        const std::size_t size = rest[0] == ESCAPE ? sequence_size(rest) : 1;
        if (size == 0) {
            break;
        }
        const auto key = rest[0] == ESCAPE ? key_of(rest.substr(0, size)) : key_of(rest[0]);
        if (key.has_value()) {
            keys.push_back(*key);
        }
        rest.remove_prefix(size);
    }
    waiting_ = rest.size() <= 32 ? std::string(rest) : std::string();  // A key is shorter.
    return keys;
}

}  // namespace qv::node
