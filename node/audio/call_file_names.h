// Tells which files of a folder are those of calls, by their names: the reverse of file_names.h.
// Never changes after construction, so that any thread may use it.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace qv::node {

class CallFileNames {
  public:
    // `pattern` is one of NamePattern, and has the word {uuid}.
    explicit CallFileNames(const std::string& pattern);
    ~CallFileNames();

    // Whether every name of the pattern tells that the file belongs to a call.
    static bool can_tell(const std::string& pattern) {
        return pattern.find("{uuid}") != std::string::npos;
    }

    struct Name {
        std::string stem;
        std::string ending;  // With its dot.
        bool of_side;        // Audio of one side.
    };
    // Returns nothing for a name that no file of a call has.
    std::optional<Name> parse(const std::string& name) const;

  private:
    // A member, because a thread may use them while the statics of the program are destroyed.
    struct Expressions;
    std::unique_ptr<const Expressions> expressions_;
};

}  // namespace qv::node
