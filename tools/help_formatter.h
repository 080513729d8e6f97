// The --help text of a program with CLI11, whose descriptions it breaks into lines.
#pragma once

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>

namespace qv::tools {

// Breaks `text` between words into lines of at most `width` characters. A word that is longer
// gets a line of its own. Line breaks in the text become blanks.
inline std::string wrapped(const std::string& text, std::size_t width) {
    std::istringstream words(text);
    std::string lines;
    std::size_t column = 0;
    for (std::string word; words >> word; column += word.size()) {
        if (column != 0) {
            const bool fits = column + 1 + word.size() <= width;
            lines += fits ? ' ' : '\n';
            column = fits ? column + 1 : 0;
        }
        lines += word;
    }
    return lines;
}

// Prints the options in a column of `column` characters, and their descriptions beside it up to
// column 100.
class HelpFormatter : public CLI::Formatter {
  public:
    explicit HelpFormatter(std::size_t column) { column_width(column); }

    std::string make_option_desc(const CLI::Option* option) const override {
        return wrapped(option->get_description(), WIDTH - get_column_width());
    }

  private:
    static constexpr std::size_t WIDTH = 100;
};

}  // namespace qv::tools
