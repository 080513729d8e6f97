// Reads keys out of what a terminal sends: arrows and the like come as several bytes, which may
// arrive in several pieces. Plain values; belongs to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qv::node {

struct Key {
    enum class Kind : std::uint8_t {
        CHARACTER,  // Printable ASCII.
        UP,
        DOWN,
        PAGE_UP,
        PAGE_DOWN,
        HOME,
        END,
        ENTER,
        ESCAPE,
        BACKSPACE,
    };
    Kind kind;
    char character = 0;
};

class KeyReader {
  public:
    // Returns the keys that are complete. To be called some times a second, with an empty text
    // where nothing came: an Escape that nothing follows until then is the key of that name.
    std::vector<Key> read(std::string_view bytes);

  private:
    std::string waiting_;  // The beginning of a key.
};

}  // namespace qv::node
