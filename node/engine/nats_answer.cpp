#include "node/engine/nats_answer.h"

#include <nlohmann/json.hpp>

#include "tools/number.h"

namespace qv::node::nats {

namespace {

// JetStream's answers have some hundred bytes.
constexpr std::size_t LONGEST = 65536;  // Bytes.

std::uint64_t last_word_of(std::string_view subject) {
    return tools::parse_number<std::uint64_t>(subject.substr(subject.rfind('.') + 1)).value_or(0);
}

// JetStream's own number for a message that is longer than the stream takes.
constexpr int TOO_LONG = 10054;

// What JetStream says is wrong. Empty if it is not an answer of JetStream.
std::string error_of(const nlohmann::json& answer) {
    if (!answer.is_object() || !answer.contains("error") || !answer["error"].is_object()) {
        return {};
    }
    const nlohmann::json& error = answer["error"];
    const auto description = error.find("description");
    return description != error.end() && description->is_string() ? description->get<std::string>()
                                                                  : "refused";
}

nlohmann::json parsed(std::string_view data) {
    return data.size() > LONGEST ? nlohmann::json()
                                 : nlohmann::json::parse(data, nullptr, /*allow_exceptions=*/false);
}

}  // namespace

Answer read_answer(std::string_view subject, std::string_view data, bool nobody) {
    Answer answer;
    answer.number = last_word_of(subject);
    if (nobody) {
        answer.no_stream = true;
        answer.error = "no stream takes them";
        return answer;
    }
    const nlohmann::json json = parsed(data);
    answer.stored = json.is_object() && json.contains("seq") && !json.contains("error");
    if (!answer.stored) {
        answer.error = error_of(json);
        answer.too_long = !answer.error.empty() && json["error"].contains("err_code") &&
                          json["error"]["err_code"] == TOO_LONG;
    }
    if (answer.error.empty() && !answer.stored) {
        // Any subscriber may answer, so this does not show whether there is a stream.
        answer.no_stream = true;
        answer.error = "the answer is no acknowledgement";
    }
    return answer;
}

}  // namespace qv::node::nats
