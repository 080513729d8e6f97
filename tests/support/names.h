// For texts that people read, such as error messages: what they name counts, and the words may
// change.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace qv::tests {

// Whether the text names each of `parts`.
inline testing::AssertionResult names(const std::string& text,
                                      std::initializer_list<std::string> parts) {
    for (const std::string& part : parts) {
        if (text.find(part) == std::string::npos) {
            return testing::AssertionFailure() << '"' << text << "\" does not name " << part;
        }
    }
    return testing::AssertionSuccess();
}

}  // namespace qv::tests
