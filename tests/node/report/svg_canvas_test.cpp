#include "node/report/svg_canvas.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node {

namespace {

using Layer = SvgCanvas::Layer;

// The elements, without what every document begins with.
std::string elements(const SvgCanvas& canvas) {
    const std::string document = canvas.document(100, 50);
    const std::string before = "fill=\"#ffffff\"/>\n";
    const std::size_t begin = document.find(before) + before.size();
    return document.substr(begin, document.rfind("</svg>") - begin);
}

TEST(SvgCanvasTest, NumbersHaveOnePlace) {
    EXPECT_EQ(svg_number(12.34), "12.3");
    EXPECT_EQ(svg_number(-1), "-1.0");
}

TEST(SvgCanvasTest, TextIsWidestInCapitals) {
    EXPECT_LT(text_width("iii", 10), text_width("aaa", 10));
    EXPECT_LT(text_width("aaa", 10), text_width("AAA", 10));
    EXPECT_DOUBLE_EQ(text_width("aa", 20), 2 * text_width("aa", 10));
    EXPECT_EQ(text_width("", 10), 0);
}

TEST(SvgCanvasTest, TextThatIsTooWideIsCutBetweenCharacters) {
    const std::string text = "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4";  // Five times "a umlaut".
    EXPECT_EQ(cut_to_width(text, text_width(text, 10), 10), text);
    EXPECT_EQ(cut_to_width(text, text_width(text, 10) - 1, 10), "\xc3\xa4\xc3\xa4...");
    EXPECT_EQ(cut_to_width("abc", 0, 10), "...");
}

TEST(SvgCanvasTest, DocumentHasItsSize) {
    EXPECT_NE(SvgCanvas().document(100, 50).find(R"(viewBox="0 0 100.0 50.0")"), std::string::npos);
}

TEST(SvgCanvasTest, LaterLayersFollow) {
    SvgCanvas canvas;
    canvas.line(Layer::MARKS, 1, 2, 3, 4, "b");
    canvas.line(Layer::GROUND, 1, 2, 3, 4, "a");
    EXPECT_EQ(elements(canvas),
              "<line x1=\"1.0\" y1=\"2.0\" x2=\"3.0\" y2=\"4.0\" a/>\n"
              "<line x1=\"1.0\" y1=\"2.0\" x2=\"3.0\" y2=\"4.0\" b/>\n");
}

TEST(SvgCanvasTest, TextsAndHintsAreEscaped) {
    SvgCanvas canvas;
    canvas.box(Layer::AUDIO, 1, 2, 3, 4, "s", "<\"&\">");
    canvas.text(5, 6, "a<b", {});
    EXPECT_EQ(elements(canvas),
              "<rect x=\"1.0\" y=\"2.0\" width=\"3.0\" height=\"4.0\" s>"
              "<title>&lt;&quot;&amp;&quot;&gt;</title></rect>\n"
              "<text x=\"5.0\" y=\"6.0\" font-size=\"12.0\" fill=\"#475569\">a&lt;b</text>\n");
}

TEST(SvgCanvasTest, UprightLineLeavesATextOut) {
    SvgCanvas canvas;
    canvas.text(50, 30, "word", {12, "#000000", false}, SvgCanvas::Anchor::MIDDLE);
    SvgCanvas beside = canvas;
    canvas.upright(Layer::GRID, 50, 0, 60, "s");
    EXPECT_EQ(elements(canvas).substr(0, elements(canvas).find("<text")),
              "<line x1=\"50.0\" y1=\"0.0\" x2=\"50.0\" y2=\"18.0\" s/>\n"
              "<line x1=\"50.0\" y1=\"34.0\" x2=\"50.0\" y2=\"60.0\" s/>\n");
    beside.upright(Layer::GRID, 10, 0, 60, "s");
    EXPECT_EQ(elements(beside).substr(0, elements(beside).find("<text")),
              "<line x1=\"10.0\" y1=\"0.0\" x2=\"10.0\" y2=\"60.0\" s/>\n");
}

TEST(SvgCanvasTest, LabelsThatWouldMeetGetRowsOfTheirOwn) {
    LabelRows rows(2);
    EXPECT_EQ(rows.place(0, 10), 0u);
    EXPECT_EQ(rows.place(5, 15), 1u);
    EXPECT_EQ(rows.place(10, 20), 0u);
    EXPECT_EQ(rows.place(8, 12), std::nullopt);
    EXPECT_EQ(rows.rows(), 2u);
}

}  // namespace

}  // namespace qv::node
