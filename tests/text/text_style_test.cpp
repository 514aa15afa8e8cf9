#include <gtest/gtest.h>

#include "text/text_color.h"

namespace {

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
