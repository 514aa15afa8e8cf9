// The exact arithmetic of text layout: normalisation, em sizes, the bitmap
// size rules and style colours.
#include <gtest/gtest.h>

#include <limits>

#include "text/text_color.h"
#include "text/text_layout.h"

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

TEST(EmSize, PointsToPixelsAtNinetySixDpi) {
    EXPECT_EQ(lumets::MulDiv(24, 96, 72), 32);
    EXPECT_EQ(lumets::MulDiv(16, 96, 72), 21);  // 21.33
    EXPECT_EQ(lumets::MulDiv(17, 96, 72), 23);  // 22.67 rounds up
    EXPECT_EQ(lumets::MulDiv(-3, 96, 72), -4);
    EXPECT_EQ(lumets::MulDiv(1, 1, 0), -1);
    EXPECT_DOUBLE_EQ(lumets::EmSizePixels(24), 32.0);
    EXPECT_DOUBLE_EQ(lumets::EmSizePixels(0), 16.0);    // the default size
    EXPECT_DOUBLE_EQ(lumets::EmSizePixels(-24), 32.0);  // a cell height
    EXPECT_EQ(lumets::EmSizePixels(100000), lumets::kMaxPictureSide);
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

}  // namespace
