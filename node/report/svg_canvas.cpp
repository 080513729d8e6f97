#include "node/report/svg_canvas.h"

#include <algorithm>
#include <cstring>

#include "tools/format.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

constexpr double BOLD = 1.15;  // Bold letters are so much wider.

// Widths of characters as shares of the font's size, of wide fonts such as DejaVu Sans.
double share_of(const tools::Character& character, std::string_view bytes) {
    if (character.code >= 0x80 || character.code < 0x20) {
        return 0.62 * static_cast<double>(tools::columns_of(bytes));
    }
    const char c = bytes[0];
    if (std::strchr(" !'(),-./:;I[\\]fijlrt|", c) != nullptr) {
        return 0.42;
    }
    if (std::strchr("#%&+<=>@MW^mw~", c) != nullptr) {
        return 1;
    }
    return c >= 'A' && c <= 'Z' ? 0.8 : 0.65;
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string closed(const char* name, const std::string& hint) {
    return hint.empty() ? "/>\n" : "><title>" + escaped(hint) + "</title></" + name + ">\n";
}

const char* anchor_attribute(SvgCanvas::Anchor anchor) {
    switch (anchor) {
        case SvgCanvas::Anchor::START:
            break;
        case SvgCanvas::Anchor::MIDDLE:
            return " text-anchor=\"middle\"";
        case SvgCanvas::Anchor::END:
            return " text-anchor=\"end\"";
    }
    return "";
}

double begin_of(double x, double width, SvgCanvas::Anchor anchor) {
    switch (anchor) {
        case SvgCanvas::Anchor::START:
            break;
        case SvgCanvas::Anchor::MIDDLE:
            return x - width / 2;
        case SvgCanvas::Anchor::END:
            return x - width;
    }
    return x;
}

}  // namespace

std::string svg_number(double value) {
    return tools::format("%.1f", value);
}

double text_width(std::string_view text, double font_size) {
    double width = 0;
    while (!text.empty()) {
        const tools::Character next = tools::first_character(text);
        width += share_of(next, text.substr(0, next.size));
        text.remove_prefix(next.size);
    }
    return width * font_size;
}

std::string cut_to_width(const std::string& text, double width, double font_size) {
    if (text_width(text, font_size) <= width) {
        return text;
    }
    double room = width - text_width("...", font_size);
    std::size_t size = 0;
    while (size < text.size()) {
        const std::size_t next = tools::first_character(std::string_view(text).substr(size)).size;
        room -= text_width(std::string_view(text).substr(size, next), font_size);
        if (room < 0) {
            break;
        }
        size += next;
    }
    return text.substr(0, size) + "...";
}

void SvgCanvas::text(double x, double base, const std::string& words, const Font& font,
                     Anchor anchor) {
    of(Layer::TEXT) += "<text x=\"" + svg_number(x) + "\" y=\"" + svg_number(base) +
                       "\" font-size=\"" + svg_number(font.size) + "\" fill=\"" + font.colour +
                       "\"" + (font.bold ? " font-weight=\"600\"" : "") + anchor_attribute(anchor) +
                       ">" + escaped(words) + "</text>\n";
    const double width = text_width(words, font.size) * (font.bold ? BOLD : 1);
    const double left = begin_of(x, width, anchor);
    texts_.push_back({left - 2, base - font.size, left + width + 2, base + font.size / 3});
}

void SvgCanvas::box(Layer layer, double left, double top, double width, double height,
                    const std::string& style, const std::string& hint) {
    of(layer) += "<rect x=\"" + svg_number(left) + "\" y=\"" + svg_number(top) + "\" width=\"" +
                 svg_number(width) + "\" height=\"" + svg_number(height) + "\" " + style +
                 closed("rect", hint);
}

void SvgCanvas::path(Layer layer, const std::string& path, const std::string& style,
                     const std::string& hint) {
    of(layer) += "<path d=\"" + path + "\" " + style + closed("path", hint);
}

void SvgCanvas::line(Layer layer, double x1, double y1, double x2, double y2,
                     const std::string& style) {
    of(layer) += "<line x1=\"" + svg_number(x1) + "\" y1=\"" + svg_number(y1) + "\" x2=\"" +
                 svg_number(x2) + "\" y2=\"" + svg_number(y2) + "\" " + style + "/>\n";
}

void SvgCanvas::upright(Layer layer, double x, double top, double bottom,
                        const std::string& style) {
    std::vector<Box> crossed;
    std::copy_if(texts_.begin(), texts_.end(), std::back_inserter(crossed), [&](const Box& text) {
        return text.left < x && x < text.right && text.bottom > top && text.top < bottom;
    });
    std::sort(crossed.begin(), crossed.end(),
              [](const Box& one, const Box& two) { return one.top < two.top; });
    for (const Box& text : crossed) {
        if (text.top > top) {
            line(layer, x, top, x, text.top, style);
        }
        top = std::max(top, text.bottom);
    }
    if (top < bottom) {
        line(layer, x, top, x, bottom, style);
    }
}

std::string SvgCanvas::document(double width, double height) const {
    std::string out =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
        svg_number(width) + ' ' + svg_number(height) + "\" width=\"" + svg_number(width) +
        "\" height=\"" + svg_number(height) +
        "\" font-family=\"Inter, 'DejaVu Sans', Arial, sans-serif\" font-size=\"12\">\n"
        "<defs><pattern id=\"pause\" width=\"6\" height=\"6\" "
        "patternUnits=\"userSpaceOnUse\" patternTransform=\"rotate(45)\">"
        "<rect width=\"6\" height=\"6\" fill=\"#f1f5f9\"/>"
        "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"6\" stroke=\"#94a3b8\" "
        "stroke-width=\"1.5\"/></pattern></defs>\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
    for (const std::string& layer : layers_) {
        out += layer;
    }
    return out + "</svg>\n";
}

std::optional<std::size_t> LabelRows::place(double begin, double end) {
    const auto is_free = [&](const std::vector<Span>& row) {
        return std::none_of(row.begin(), row.end(),
                            [&](const Span& span) { return begin < span.end && span.begin < end; });
    };
    auto row = std::find_if(rows_.begin(), rows_.end(), is_free);
    if (row == rows_.end()) {
        if (rows_.size() == most_) {
            return std::nullopt;
        }
        row = rows_.emplace(rows_.end());
    }
    row->push_back({begin, end});
    return static_cast<std::size_t>(row - rows_.begin());
}

}  // namespace qv::node
