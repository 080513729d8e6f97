// Makes the beginnings of file names from a pattern that the user has chosen, as in
// "{date}-{reference}-{uuid}". What a sender has chosen is made safe: it cannot lead out of the
// folder, hide a file, or make a name too long. Plain values; any thread may use them.
#pragma once

#include <string>
#include <utility>

namespace qv::node {

class NamePattern {
  public:
    // What stands for the words in braces.
    struct Fields {
        std::string uuid;
        std::string reference;  // As the sender has it; empty while it is not known.
        std::string utc_time;   // "2026-01-31T23:59:59.123456Z"
    };

    static constexpr std::size_t MOST_PATTERN = 80;    // Bytes.
    static constexpr std::size_t MOST_REFERENCE = 64;  // Bytes of a name.

    // `text` must have no complaint.
    explicit NamePattern(std::string text) : text_(std::move(text)) {}
    NamePattern() = default;

    // Returns why that is no pattern, or an empty text.
    static std::string complaint(const std::string& text);

    // At most 200 bytes, of letters, digits and a few signs that no file system minds.
    std::string expand(const Fields& fields) const;

  private:
    std::string text_ = "{uuid}";
};

}  // namespace qv::node
