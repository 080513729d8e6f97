// What a picture in SVG is drawn on. Remembers the place of every text, so that vertical lines do
// not cross texts, and labels find room beside each other. Belongs to one thread.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::node {

// Width of a text in pixels, rather too much than too little: the reader's font is not known.
double text_width(std::string_view text, double font_size);

// The text, or its beginning and "..." where it is wider than that.
std::string cut_to_width(const std::string& text, double width, double font_size);

class SvgCanvas {
  public:
    enum class Anchor : unsigned char { START, MIDDLE, END };

    // Later layers are drawn over earlier ones.
    enum class Layer : unsigned char { GROUND, GRID, AUDIO, MARKS, TEXT };

    struct Font {
        double size = 12;
        const char* colour = "#475569";
        bool bold = false;
    };

    // `base` is the line on which the text stands.
    void text(double x, double base, const std::string& words, const Font& font,
              Anchor anchor = Anchor::START);
    // Browsers show the hint under the pointer.
    void box(Layer layer, double left, double top, double width, double height,
             const std::string& style, const std::string& hint = {});
    void path(Layer layer, const std::string& path, const std::string& style,
              const std::string& hint = {});
    void line(Layer layer, double x1, double y1, double x2, double y2, const std::string& style);
    // A vertical line with gaps at the texts that are there already, so draw the texts first.
    void upright(Layer layer, double x, double top, double bottom, const std::string& style);

    // The whole document.
    std::string document(double width, double height) const;

  private:
    struct Box {
        double left;
        double top;
        double right;
        double bottom;
    };
    std::string& of(Layer layer) { return layers_[static_cast<std::size_t>(layer)]; }

    std::array<std::string, 5> layers_;
    std::vector<Box> texts_;  // From top to bottom is not their order.
};

// Finds rows for labels, so that none covers another.
class LabelRows {
  public:
    explicit LabelRows(std::size_t most) : most_(most) {}

    // The first row in which there is room from `begin` to `end`; nothing where all are taken.
    std::optional<std::size_t> place(double begin, double end);
    std::size_t rows() const { return rows_.size(); }

  private:
    struct Span {
        double begin;
        double end;
    };
    const std::size_t most_;
    std::vector<std::vector<Span>> rows_;
};

// "12.3", as numbers stand in the document.
std::string svg_number(double value);

}  // namespace qv::node
