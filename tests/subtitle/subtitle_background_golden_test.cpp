// Golden pictures of a plate drawn into a patterned 24-bit frame, at scale 1
// and 1.5.
//
// Tolerance: at scale 1 the plate is built and blended in integers, so the
// frame must match byte for byte. At 1.5 libswscale's bicubic resize takes
// part, whose rounding may differ between its SIMD and C paths: every channel
// within 3 of the golden.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/golden.h"
#include "subtitle/subtitle_background.h"

namespace lumets {
namespace {

constexpr int32_t kWidth = 400;
constexpr int32_t kHeight = 160;

TEST(SubtitleBackgroundGolden, PlateOverAPatternAtTwoScales) {
    const struct {
        float scale;
        const char* name;
        test::GoldenTolerance tolerance;
    } cases[] = {{1.0f, "plate_1x.png", {0, 0}}, {1.5f, "plate_1_5x.png", {3, 0}}};
    for (const auto& c : cases) {
        // Diagonal stripes over two gradients: every blended pixel shows both inputs.
        const uint32_t stride = RowStride(kWidth, 24);
        std::vector<uint8_t> frame(size_t{stride} * kHeight, 0);
        for (int32_t y = 0; y < kHeight; ++y) {  // top-down
            uint8_t* row = frame.data() + size_t{stride} * (kHeight - 1 - y);
            for (int32_t x = 0; x < kWidth; ++x) {
                row[x * 3 + 0] = static_cast<uint8_t>(200 - x / 4);
                row[x * 3 + 1] = static_cast<uint8_t>(40 + y);
                row[x * 3 + 2] = static_cast<uint8_t>((x + y) % 32 < 16 ? 230 : 30);
            }
        }
        CSubtitleBackground plate;
        const RECT text{40, 40, 240, 70};
        const PictureView view = PackedPicture(frame.data(), kWidth, kHeight, 24);
        plate.DrawOnFrame(view, &text, 30, 0x3366CC, 0.7f, c.scale);
        EXPECT_TRUE(test::MatchesGolden(std::string(LUMETS_TEST_DATA_DIR) + "/" + c.name, view,
                                        c.tolerance));
    }
}

}  // namespace
}  // namespace lumets
