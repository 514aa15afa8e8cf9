// Text: first the exact arithmetic of layout (normalisation, em sizes, the
// bitmap size rules and style colours); then the renderer: styled pictures
// against goldens, properties that need no golden, bad input, and rendering
// while another thread blends.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/golden.h"
#include "text/text_color.h"
#include "text/text_layout.h"
#include "text/text_renderer.h"

namespace {

using lumets::BitmapSizeFor;
using lumets::NormalizeText;

TEST(NormalizeText, LineBreaksAndFinalLineFeed) {
    EXPECT_EQ(NormalizeText(u"A\r\nB", 100), u"A\n\nB\n");
    EXPECT_EQ(NormalizeText(u"A", 100), u"A\n");
    EXPECT_EQ(NormalizeText(u"A\n", 100), u"A\n");
    EXPECT_EQ(NormalizeText(u"\r", 100), u"\n");
    EXPECT_EQ(NormalizeText(u"\r\r", 100), u"\n\n");
    EXPECT_EQ(NormalizeText(u"", 100), u"");
    EXPECT_EQ(NormalizeText(nullptr, 100), u"");
    // An unterminated block is read up to its bound and no further.
    const char16_t block[3] = {u'x', u'y', u'z'};
    EXPECT_EQ(NormalizeText(block, 3), u"xyz\n");
}

// The opacity is not clamped: 101 % is 257 before the shift and only its low
// byte survives. The colour's own top byte never shows.
TEST(StyleColour, OpacityWrapsAndTheTopByteIsDropped) {
    EXPECT_EQ(lumets::ArgbFromStyleColor(0x123456, 50), 0x7F123456u);
    EXPECT_EQ(lumets::ArgbFromStyleColor(0xAB123456, 101), 0x01123456u);
}

TEST(BitmapSize, EvenRoundingMinimumAndLimits) {
    struct Case {
        float w, h;
        int32_t fontSize;
        bool vertical;
        int32_t expectW, expectH;
    };
    const Case cases[] = {
        {101.5f, 30.0f, 16, false, 102, 30},      // 101 truncated, then even
        {100.5f, 30.0f, 16, false, 100, 30},      //
        {40.0f, 10.0f, 17, false, 40, 18},        // font size minimum, made even
        {20000.0f, 50.0f, 16, false, 16384, 50},  // only the side clamp acts
        {5000.0f, 5000.0f, 16, false, 5000, 3355},
        {5000.0f, 4000.0f, 16, false, 4194, 4000},  // w > h: the width gives way
        {0.0f, 0.0f, 0, false, 2, 2},
        {0.0f, 0.0f, 16, false, 2, 16},  // empty horizontal text
        {0.0f, 0.0f, 17, true, 18, 2},   // empty vertical text
        {10.0f, 99.9999f, 16, true, 16, 100},
        {-7.0f, -3.0f, 16, false, 2, 16},
    };
    for (const Case& c : cases) {
        const auto size = BitmapSizeFor(c.w, c.h, c.fontSize, c.vertical);
        EXPECT_EQ(size.width, c.expectW) << c.w << "x" << c.h;
        EXPECT_EQ(size.height, c.expectH) << c.w << "x" << c.h;
    }
}

TEST(BitmapSize, NonFiniteAndHugeInputsStayInsideTheLimits) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const float values[] = {nan, inf, -inf, 1e30f, -1e30f, 3e9f};
    for (float w : values) {
        for (float h : values) {
            for (int32_t fontSize : {0, -5, 16, 100000, INT32_MAX, INT32_MIN}) {
                for (bool vertical : {false, true}) {
                    const auto size = BitmapSizeFor(w, h, fontSize, vertical);
                    EXPECT_GE(size.width, 2);
                    EXPECT_GE(size.height, 2);
                    EXPECT_LE(size.width, lumets::kMaxPictureSide);
                    EXPECT_LE(size.height, lumets::kMaxPictureSide);
                    EXPECT_LE(static_cast<int64_t>(size.width) * size.height,
                              lumets::kMaxPicturePixels);
                }
            }
        }
    }
}

using lumets::CTextRenderer;

// Fonts and anti-aliasing can move edges by a level or two between library
// builds; a handful of edge pixels may differ by more.
constexpr lumets::test::GoldenTolerance kTextTolerance{12, 0.01};

std::vector<uint8_t> Pixels(CTextRenderer& renderer) {
    const SIZE size = renderer.GetSize();
    std::vector<uint8_t> pixels(static_cast<size_t>(size.cx) * size.cy * 4);
    renderer.CopyBuffer(pixels.data(), static_cast<uint32_t>(pixels.size()));
    return pixels;
}

// At least 2 x 2, and within the picture limits.
bool InLimits(const CTextRenderer& renderer) {
    const SIZE size = renderer.GetSize();
    return size.cx >= 2 && size.cy >= 2 && size.cx <= lumets::kMaxPictureSide &&
           size.cy <= lumets::kMaxPictureSide &&
           int64_t{size.cx} * size.cy <= lumets::kMaxPicturePixels;
}

TextStyle Style(int32_t fontSize, uint32_t color) {
    TextStyle style;
    style.fontSize = fontSize;
    style.fillColor1 = color;
    style.fillColor2 = color;
    return style;
}

struct GoldenCase {
    std::string name;
    const char16_t* text;
    TextStyle style;
};

std::vector<GoldenCase> GoldenCases() {
    std::vector<GoldenCase> cases;
    cases.push_back({"default", u"Lumets text 0123", TextStyle()});
    TextStyle decorated = Style(24, 0x2040C0);
    decorated.bold = 1;
    decorated.italic = 1;
    decorated.underline = 1;
    decorated.strikeOut = 1;
    cases.push_back({"bold_italic_underline_strike", u"Styled words", decorated});
    for (float angle : {0.0f, 45.0f, 90.0f, 180.0f}) {
        TextStyle gradient = Style(28, 0xFF0000);
        gradient.fillColor2 = 0x0000FF;
        gradient.fillAngle = angle;
        cases.push_back({"gradient_" + std::to_string(static_cast<int>(angle)),
                         u"A wide gradient text line", gradient});
    }
    TextStyle outline = Style(28, 0xFFFFFF);
    outline.fillColor2 = 0xFFCC00;
    outline.fillAngle = 90.0f;
    outline.outline = 1;
    outline.outlineWidth = 4.0f;
    outline.outlineColor = 0x101010;
    cases.push_back({"outline_4", u"Outline 描边", outline});
    // Counters and rings stay open; strokes that overlap within a glyph fill without seams.
    outline.bold = 1;
    cases.push_back({"outline_4_bold", u"%&‰ MA", outline});
    TextStyle background = Style(20, 0xFFFFFF);
    background.backColor = 0x204080;
    background.backAlpha = 100;
    cases.push_back({"background_100", u"On a plate", background});
    TextStyle vertical = Style(20, 0x006030);
    vertical.vertical = 1;
    cases.push_back({"vertical_three_columns", u"竖排文字\n第二列\n三", vertical});
    TextStyle centred = Style(18, 0x000000);
    centred.horizontalAlign = 1;
    cases.push_back(
        {"three_lines_centred", u"first line\nthe second, longer line\nthird", centred});
    TextStyle right = centred;
    right.horizontalAlign = 2;
    cases.push_back({"three_lines_right", u"first line\nthe second, longer line\nthird", right});
    cases.push_back({"cjk", u"直播字幕渲染测试", Style(24, 0x800000)});
    cases.push_back({"mixed_latin_cjk_emoji", u"Live 直播 ✨😀 ok", Style(24, 0x303030)});
    return cases;
}

TEST(TextRendererGolden, StylesMatchTheirPictures) {
    for (const GoldenCase& c : GoldenCases()) {
        CTextRenderer renderer;
        renderer.Render(c.text, &c.style);
        const SIZE size = renderer.GetSize();
        const auto pixels = Pixels(renderer);
        const std::string path = std::string(LUMETS_TEST_DATA_DIR) + "/" + c.name + ".png";
        EXPECT_TRUE(lumets::test::MatchesGolden(
            path, lumets::PackedPicture(pixels.data(), size.cx, size.cy, 32), kTextTolerance))
            << c.name;
    }
}

TEST(TextRenderer, EmptyTextAndBeforeFirstRender) {
    CTextRenderer renderer;
    EXPECT_EQ(std::pair(renderer.GetSize().cx, renderer.GetSize().cy), std::pair(0, 0));
    uint8_t sentinel[16];
    std::memset(sentinel, 0x5A, sizeof sentinel);
    renderer.CopyBuffer(sentinel, sizeof sentinel);
    EXPECT_EQ(sentinel[0], 0x5A);
    std::vector<uint8_t> frame(lumets::RowStride(8, 24) * 8, 0x5A);
    const lumets::PictureView view = lumets::PackedPicture(frame.data(), 8, 8, 24);
    renderer.BlendInto(view, POINT{0, 0});
    renderer.BlendScaledIntoFrame(view, RECT{0, 0, 8, 8}, POINT{0, 0}, 1.0f);
    for (uint8_t b : frame) {
        ASSERT_EQ(b, 0x5A);
    }

    TextStyle style = Style(17, 0);
    style.backAlpha = 100;
    renderer.Render(u"", &style);
    EXPECT_EQ(std::pair(renderer.GetSize().cx, renderer.GetSize().cy), std::pair(2, 18));
    for (uint8_t b : Pixels(renderer)) {
        ASSERT_EQ(b, 0);  // fully transparent whatever the background says
    }
    style.vertical = 1;
    renderer.Render(u"", &style);
    EXPECT_EQ(std::pair(renderer.GetSize().cx, renderer.GetSize().cy), std::pair(18, 2));
    style.fontSize = 0;
    renderer.Render(u"", &style);
    EXPECT_EQ(std::pair(renderer.GetSize().cx, renderer.GetSize().cy), std::pair(2, 2));

    // A null text changes nothing.
    renderer.Render(u"abc", &style);
    const SIZE before = renderer.GetSize();
    renderer.Render(nullptr, &style);
    EXPECT_EQ(renderer.GetSize().cx, before.cx);
    EXPECT_EQ(renderer.Text(), u"abc\n");
}

TEST(TextRenderer, UnknownAndEmptyFacesLookTheSameAsTheFallback) {
    std::vector<std::vector<uint8_t>> pictures;
    for (const std::u16string face : {u"", u"No Such Face Anywhere", u"微软雅黑"}) {
        TextStyle style = Style(20, 0);
        std::copy(face.begin(), face.end(), style.faceName);
        CTextRenderer renderer;
        renderer.Render(u"Same 字", &style);
        pictures.push_back(Pixels(renderer));
    }
    EXPECT_EQ(pictures[0], pictures[1]);
    EXPECT_EQ(pictures[0], pictures[2]);
}

// Long texts are laid out in blocks of lines; the blocks must stack and align
// as one layout would: a centred first line centres on the widest line of all,
// and a column of 300 characters keeps one em between all of them.
TEST(TextRenderer, LongTextsPlaceEveryLineAsOneLayoutWould) {
    TextStyle style = Style(12, 0);  // 16 px em
    style.horizontalAlign = 1;
    std::u16string lines;
    for (int i = 0; i < 299; ++i) {
        lines += u"I\n";
    }
    lines += u"WWWWWWWWWWWWWWWWWWWW";
    CTextRenderer renderer;
    renderer.Render(lines.c_str(), &style);
    SIZE size = renderer.GetSize();
    std::vector<uint8_t> pixels = Pixels(renderer);
    int first = size.cx;
    int last = -1;
    for (int x = 0; x < size.cx; ++x) {  // the first line, top row of the picture: 8 px down
        if (pixels[(static_cast<size_t>(size.cy - 1 - 8) * size.cx + x) * 4 + 3] > 128) {
            first = std::min(first, x);
            last = x;
        }
    }
    EXPECT_NEAR((first + last) / 2.0, size.cx / 2.0, 3.0);

    style.vertical = 1;
    renderer.Render(std::u16string(300, u'一').c_str(), &style);
    size = renderer.GetSize();
    pixels = Pixels(renderer);
    // Each character's stroke starts in its own em, the last in the 300th.
    std::vector<int> bandTops;
    bool inked = false;
    for (int top = 0; top < size.cy; ++top) {
        bool any = false;
        for (int x = 0; x < size.cx; ++x) {
            any =
                any || pixels[(static_cast<size_t>(size.cy - 1 - top) * size.cx + x) * 4 + 3] > 128;
        }
        if (any && !inked) {
            bandTops.push_back(top);
        }
        inked = any;
    }
    ASSERT_EQ(bandTops.size(), 300u);
    for (int k : {0, 255, 256, 299}) {
        EXPECT_EQ(bandTops[k] / 16, k) << bandTops[k];
    }
}

// Colour emoji keep their colours whether the text is drawn as glyph
// pictures, as outlines (a pen) or as a path (an em past 512 px), and stay
// where the glyph pictures put them.
TEST(TextRenderer, ColourGlyphsKeepTheirColoursInEveryWayOfDrawing) {
    // How many pixels are emoji yellow, and their mean column (a fraction of
    // the width).
    auto yellow = [](CTextRenderer& renderer) {
        const SIZE size = renderer.GetSize();
        const std::vector<uint8_t> pixels = Pixels(renderer);
        int count = 0;
        double sum = 0;
        for (int y = 0; y < size.cy; ++y) {
            for (int x = 0; x < size.cx; ++x) {
                const uint8_t* p = &pixels[(static_cast<size_t>(y) * size.cx + x) * 4];
                if (p[3] > 200 && p[2] > 200 && p[1] > 150 && p[0] < 120) {
                    ++count;
                    sum += static_cast<double>(x) / size.cx;
                }
            }
        }
        return std::pair(count, count > 0 ? sum / count : 0);
    };
    TextStyle style = Style(380, 0x2040FF);  // 507 px em: glyph pictures
    CTextRenderer renderer;
    renderer.Render(u"ab\U0001F600", &style);
    const auto [pictureCount, pictureCentre] = yellow(renderer);
    ASSERT_GT(pictureCount, 10000);
    style.fontSize = 400;  // 533 px em: a path
    renderer.Render(u"ab\U0001F600", &style);
    const auto [pathCount, pathCentre] = yellow(renderer);
    EXPECT_GT(pathCount, 10000);
    EXPECT_NEAR(pathCentre, pictureCentre, 0.02);
    style.fontSize = 16;
    style.outline = 1;
    style.outlineWidth = 2;
    renderer.Render(u"ab\U0001F600", &style);
    EXPECT_GT(yellow(renderer).first, 50);
}

// A text that only moves is scaled once per scale, and what a kept scaled
// picture and a kept scaling context give is what a fresh renderer gives:
// after a move, a new colour, a new text, new scales and the old scale again.
TEST(TextRenderer, KeptScalingGivesTheFreshPictureAndScalesOncePerChange) {
    struct Step {
        const char16_t* text;
        uint32_t colour;
        float scale;
        int32_t x;
        uint32_t scales;  // the kept renderer's count after the step
    };
    const Step steps[] = {
        {u"moving", 0xFFFFFF, 1.5f, 0, 1},   {u"moving", 0xFFFFFF, 1.5f, 7, 1},
        {u"moving", 0xFFFFFF, 1.5f, 21, 1},  {u"moving", 0x20C040, 1.5f, 21, 2},
        {u"changed", 0x20C040, 1.5f, 21, 3}, {u"changed", 0x20C040, 2.0f, 21, 4},
        {u"changed", 0x20C040, 0.5f, 21, 5}, {u"changed", 0x20C040, 1.5f, 21, 6},
        {u"changed", 0x20C040, 1.5f, 3, 6},
    };
    CTextRenderer kept;
    const Step* last = nullptr;
    for (const Step& s : steps) {
        const TextStyle style = Style(20, s.colour);
        if (last == nullptr || last->colour != s.colour || last->text != s.text) {
            kept.Render(s.text, &style);
        }
        last = &s;
        CTextRenderer fresh;
        fresh.Render(s.text, &style);
        std::vector<uint8_t> keptFrame(lumets::RowStride(320, 24) * 120, 0x30);
        std::vector<uint8_t> freshFrame = keptFrame;
        kept.BlendScaledIntoFrame(lumets::PackedPicture(keptFrame.data(), 320, 120, 24),
                                  RECT{0, 0, 320, 120}, POINT{s.x, 4}, s.scale);
        fresh.BlendScaledIntoFrame(lumets::PackedPicture(freshFrame.data(), 320, 120, 24),
                                   RECT{0, 0, 320, 120}, POINT{s.x, 4}, s.scale);
        EXPECT_EQ(keptFrame, freshFrame) << s.scale << " at " << s.x;
        EXPECT_EQ(kept.ScaleCount(), s.scales) << s.scale << " at " << s.x;
    }
    // A new context only for new sizes: "moving" at 1.5, "changed" at 1.5,
    // 2.0, 0.5 and 1.5 again.
    EXPECT_EQ(kept.ContextCount(), 5u);
}

TEST(TextRendererBadInput, NeverReadsOrWritesOutsideAndStaysInLimits) {
    CTextRenderer renderer;
    // A whole block of text without a terminator, on the heap so that
    // AddressSanitizer sees any read past it.
    auto block = std::make_unique<char16_t[]>(CTextRenderer::kMaxTextUnits);
    for (size_t i = 0; i < CTextRenderer::kMaxTextUnits; ++i) {
        block[i] = (i % 50 == 49) ? u'\n' : u'a' + (i % 26);
    }
    TextStyle style;
    renderer.Render(block.get(), &style);
    EXPECT_TRUE(InLimits(renderer));

    // A face name filling all 32 units without a terminator.
    TextStyle longFace;
    for (char16_t& unit : longFace.faceName) {
        unit = u'Z';
    }
    renderer.Render(u"face", &longFace);
    EXPECT_GT(renderer.GetSize().cx, 2);

    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (int32_t fontSize : {0, -12, 100000}) {
        for (float outlineWidth : {0.0f, -3.0f, nan, inf, 1e30f}) {
            TextStyle s = Style(fontSize, 0x123456);
            s.outline = outlineWidth != 0.0f;
            s.outlineWidth = outlineWidth;
            s.fillAngle = outlineWidth;  // odd angles too
            renderer.Render(u"Big 字✨", &s);
            EXPECT_TRUE(InLimits(renderer)) << fontSize << " pt, pen " << outlineWidth;
        }
    }
}

TEST(TextRendererThreads, RenderWhileAnotherThreadBlends) {
    CTextRenderer renderer;
    TextStyle style = Style(20, 0xFFFFFF);
    renderer.Render(u"start", &style);
    std::atomic<bool> done{false};
    std::thread blender([&] {
        std::vector<uint8_t> frame(lumets::RowStride(320, 24) * 120, 0);
        const lumets::PictureView view = lumets::PackedPicture(frame.data(), 320, 120, 24);
        while (!done.load()) {
            renderer.BlendInto(view, POINT{4, 4});
            renderer.BlendScaledIntoFrame(view, RECT{0, 0, 320, 120}, POINT{4, 4}, 1.5f);
            (void)renderer.GetSize();
        }
    });
    const char16_t* texts[] = {u"one", u"a much longer second text", u"三", u"four\nlines\n\nhere"};
    for (int i = 0; i < 40; ++i) {
        style.fontSize = 12 + i % 20;
        renderer.Render(texts[i % 4], &style);
    }
    done = true;
    blender.join();
}

}  // namespace
