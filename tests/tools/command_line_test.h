// A fixture for the command lines of the tools.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace qv::tests {

// `Options` and `parse_options` are those of the tool; EXIT_USAGE is its exit code for a
// wrong command line.
template <typename Options, std::optional<int> (*parse_options)(int, char**, Options&),
          int EXIT_USAGE>
class CommandLineTest : public testing::Test {
  protected:
    std::optional<int> parse(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "program");
        std::vector<char*> pointers;
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        options_ = Options();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const auto code =
            parse_options(static_cast<int>(pointers.size()), pointers.data(), options_);
        help_ = testing::internal::GetCapturedStdout();
        error_ = testing::internal::GetCapturedStderr();
        return code;
    }

    // The first line of the answer to a wrong command line.
    std::string refusal_of(std::vector<std::string> arguments) {
        const auto code = parse(std::move(arguments));
        return code == EXIT_USAGE ? error_.substr(0, error_.find('\n')) : "accepted";
    }

    Options options_;
    std::string help_;
    std::string error_;
};

}  // namespace qv::tests
