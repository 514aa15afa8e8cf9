// The library's own image resource: the plate's corner mask.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/image_loader.h"
#include "image/media_tools.h"
#include "image/resources.h"

namespace lumets::test {
namespace {

TEST(Resources, MaskIsFoundByModuleIdAndTypeOnly) {
    EXPECT_FALSE(FindModuleResource(u"Lumets.dll", 101, u"PNG").empty());
    // Windows compares module and type names without regard to case.
    EXPECT_FALSE(FindModuleResource(u"LUMETS.DLL", 101, u"png").empty());

    EXPECT_TRUE(FindModuleResource(u"Lumets.dll", 102, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"Lumets.dll", 101, u"JPG").empty());
    EXPECT_TRUE(FindModuleResource(u"Other.dll", 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"liblumets.so", 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"Lumets.dll ", 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(nullptr, 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"Lumets.dll", 101, nullptr).empty());
}

TEST(Resources, MaskLoadsAsForty36ThirtyTwoBitPicture) {
    PixelBuffer b;
    LoadImageResource(b, u"Lumets.dll", 101, u"PNG");
    ASSERT_NE(b.Data(), nullptr);
    EXPECT_EQ(b.width, 40);
    EXPECT_EQ(b.height, 36);
    EXPECT_EQ(b.bitsPerPixel, 32);
    EXPECT_EQ(b.Capacity(), 5761u);

    auto pixel = [&](uint32_t x, uint32_t y) { return b.Data() + (y * b.width + x) * 4; };
    // Transparent corners keep their (white) colour bytes; the middle is solid.
    for (auto [x, y] : {std::pair{0u, 0u}, {39u, 0u}, {0u, 35u}, {39u, 35u}}) {
        const uint8_t* p = pixel(x, y);
        EXPECT_EQ(std::vector<uint8_t>(p, p + 4), (std::vector<uint8_t>{255, 255, 255, 0}))
            << x << "," << y;
    }
    EXPECT_EQ(pixel(20, 18)[3], 255);
    // Anti-aliased: the arc passes through partly covered pixels.
    int partial = 0;
    for (uint32_t x = 0; x < 20; ++x) {
        partial += pixel(x, 0)[3] > 0 && pixel(x, 0)[3] < 255;
    }
    EXPECT_GE(partial, 3);
    // Every row and column between the quarters is opaque from edge to edge,
    // so the quarters join a plate's solid middle without a seam.
    for (uint32_t x = 16; x < 24; ++x) {
        EXPECT_EQ(pixel(x, 0)[3], 255) << x;
        EXPECT_EQ(pixel(x, 35)[3], 255) << x;
    }
    for (uint32_t y = 16; y < 20; ++y) {
        EXPECT_EQ(pixel(0, y)[3], 255) << y;
        EXPECT_EQ(pixel(39, y)[3], 255) << y;
    }
}

TEST(Resources, UnknownResourceLeavesTheTargetAlone) {
    PixelBuffer target;
    LoadImageResource(target, u"Lumets.dll", 101, u"PNG");
    const Snapshot before(target);
    LoadImageResource(target, u"Lumets.dll", 100, u"PNG");
    LoadImageResource(target, u"Other.dll", 101, u"PNG");
    LoadImageResource(target, nullptr, 101, nullptr);
    EXPECT_TRUE(Snapshot(target) == before);
}

}  // namespace
}  // namespace lumets::test
