// What a page asks for over its websocket: reads one message. No state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "node/calls/types.h"

namespace qv::node::web {

struct PageMessage {
    enum class Type : std::uint8_t { WATCH, OPEN, LISTEN, STOP };

    static constexpr std::size_t LONGEST = 4096;  // Bytes of a message.
    static constexpr std::size_t MOST_WATCHED = 100;

    Type type{};
    std::vector<std::uint64_t> calls;   // WATCH: these and no others.
    std::optional<std::uint64_t> call;  // OPEN: nullopt closes. LISTEN: set.
    std::vector<Side> sides;            // LISTEN
};

// Returns nullopt and sets `error` if the text is no such message.
std::optional<PageMessage> read_page_message(std::string_view text, std::string& error);

}  // namespace qv::node::web
