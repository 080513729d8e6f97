// The answer of JetStream to an event. Plain values; any message can be read as an answer, and one
// that is not gives an error.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qv::node::nats {

struct Answer {
    std::uint64_t number = 0;  // Of the event: the last word of the answer's subject.
    bool stored = false;
    bool no_stream = false;  // Or perhaps.
    bool too_long = false;   // The stream will never take it.
    std::string error{};     // Why it is not stored.
};

// `nobody`: the server says that nobody receives the event.
Answer read_answer(std::string_view subject, std::string_view data, bool nobody);

}  // namespace qv::node::nats
