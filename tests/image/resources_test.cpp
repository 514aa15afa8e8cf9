// The library's own image resource: the plate's corner mask.

#include <gtest/gtest.h>

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

TEST(Resources, MaskLoadsAsForty36ThirtyTwoBitPictureAndOnlyIt) {
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

    // Unknown resources leave the target alone.
    const Snapshot before(b);
    LoadImageResource(b, u"Lumets.dll", 100, u"PNG");
    LoadImageResource(b, u"Other.dll", 101, u"PNG");
    LoadImageResource(b, nullptr, 101, nullptr);
    EXPECT_TRUE(Snapshot(b) == before);
}

}  // namespace
}  // namespace lumets::test
