#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "lumets/text_style.h"
#include "text/text_color.h"

namespace {

TEST(TextStyle, Defaults) {
    alignas(TextStyle) unsigned char storage[sizeof(TextStyle)];
    std::memset(storage, 0xCD, sizeof storage);
    auto* style = new (storage) TextStyle();
    for (char16_t unit : style->faceName) {
        EXPECT_EQ(unit, 0);
    }
    EXPECT_EQ(style->fontSize, 16);
    EXPECT_EQ(style->bold | style->italic | style->underline | style->strikeOut | style->vertical,
              0);
    EXPECT_EQ(style->horizontalAlign, 0);
    EXPECT_EQ(style->verticalAlign, 0);
    EXPECT_EQ(style->fillColor1, 0u);
    EXPECT_EQ(style->fillColor2, 0u);
    EXPECT_EQ(style->fillAngle, 0.0f);
    EXPECT_EQ(style->fillAlpha1, 100u);
    EXPECT_EQ(style->fillAlpha2, 100u);
    EXPECT_EQ(style->backColor, 0xFFFFFFu);
    EXPECT_EQ(style->backAlpha, 0u);
    EXPECT_EQ(style->outline, 0);
    EXPECT_EQ(style->outlineWidth, 0.0f);
    EXPECT_EQ(style->outlineColor, 0u);
    EXPECT_EQ(style->outlineAlpha, 100u);
}

TEST(TextColor, OpacityBecomesAlphaWithoutClamping) {
    using lumets::ArgbFromStyleColor;
    EXPECT_EQ(ArgbFromStyleColor(0x123456, 100), 0xFF123456u);
    EXPECT_EQ(ArgbFromStyleColor(0x123456, 50), 0x7F123456u);
    EXPECT_EQ(ArgbFromStyleColor(0x123456, 1), 0x02123456u);
    EXPECT_EQ(ArgbFromStyleColor(0x123456, 0), 0x00123456u);
    // 101 % is 257 before the shift: only its low byte survives.
    EXPECT_EQ(ArgbFromStyleColor(0x123456, 101), 0x01123456u);
    EXPECT_EQ(ArgbFromStyleColor(0x123456, 200), 0xFE123456u);
    // The colour's top byte never reaches the result.
    EXPECT_EQ(ArgbFromStyleColor(0xAB123456, 0), 0x00123456u);
    EXPECT_EQ(ArgbFromStyleColor(0xFFFFFFFF, 50), 0x7FFFFFFFu);
}

}  // namespace
