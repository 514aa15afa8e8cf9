// Golden pictures of a plate drawn into a patterned 24-bit frame, at scale 1
// and 1.5. The expected frames are PNGs in tests/background/data.
//
// Tolerance: at scale 1 the plate is built and blended in integers, so the
// frame must match byte for byte. At 1.5 libswscale's bicubic resize takes
// part, whose rounding may differ between its SIMD and C paths: every channel
// within 3 of the golden, and at most 1% of the pixels different at all.
//
// LUMETS_UPDATE_GOLDEN=1 rewrites the PNGs from the current code instead of
// comparing (the test is then reported as skipped); look at the new pictures
// before committing them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "image/image_loader.h"
#include "lumets_platform/utf16.h"
#include "subtitle/subtitle_background.h"

namespace lumets {
namespace {

constexpr int32_t kWidth = 400;
constexpr int32_t kHeight = 160;

// Diagonal stripes over two gradients: every blended pixel shows both inputs.
std::vector<uint8_t> PatternFrame() {
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
    return frame;
}

std::vector<uint8_t> DrawScene(float scale) {
    std::vector<uint8_t> frame = PatternFrame();
    CSubtitleBackground plate;
    const RECT text{40, 40, 240, 70};
    plate.DrawOnFrame(frame.data(), kWidth, kHeight, &text, 30, 0x3366CC, 0.7f, scale);
    return frame;
}

std::string GoldenPath(const std::string& name) {
    return std::string(LUMETS_TEST_DATA_DIR) + "/" + name;
}

// The frame as an RGB PNG, through ffmpeg (rows top-down, no padding).
void WriteGolden(const std::vector<uint8_t>& frame, const std::string& path) {
    const uint32_t stride = RowStride(kWidth, 24);
    const std::string raw = path + ".raw";
    {
        std::ofstream out(raw, std::ios::binary);
        for (int32_t y = kHeight - 1; y >= 0; --y) {
            out.write(reinterpret_cast<const char*>(frame.data()) + size_t{stride} * y, kWidth * 3);
        }
    }
    const std::string command = "ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt bgr24 -s " +
                                std::to_string(kWidth) + "x" + std::to_string(kHeight) + " -i '" +
                                raw + "' -frames:v 1 -pix_fmt rgb24 '" + path + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::filesystem::remove(raw);
}

void CompareWithGolden(float scale, const std::string& name, int maxDifference,
                       double maxDifferentFraction) {
    const std::vector<uint8_t> frame = DrawScene(scale);
    const std::string path = GoldenPath(name);
    const char* update = std::getenv("LUMETS_UPDATE_GOLDEN");
    if (update != nullptr && std::string(update) == "1") {
        std::filesystem::create_directories(LUMETS_TEST_DATA_DIR);
        WriteGolden(frame, path);
        GTEST_SKIP() << "rewrote " << path << "; review it before committing";
    }

    PixelBuffer golden;
    const std::u16string path16 = platform::Utf8ToU16(path);
    LoadImageFile(golden, path16.c_str());
    std::unique_ptr<uint8_t[]> owner(golden.data);
    ASSERT_NE(golden.data, nullptr) << "missing " << path << " (LUMETS_UPDATE_GOLDEN=1 makes it)";
    ASSERT_EQ(golden.width, static_cast<uint32_t>(kWidth));
    ASSERT_EQ(golden.height, static_cast<uint32_t>(kHeight));
    ASSERT_EQ(golden.bitsPerPixel, 24u);

    // Both are bottom-up 24-bit pictures with the same row stride.
    const uint32_t stride = RowStride(kWidth, 24);
    int worst = 0;
    int differentPixels = 0;
    for (int32_t y = 0; y < kHeight; ++y) {
        for (int32_t x = 0; x < kWidth; ++x) {
            const size_t at = size_t{stride} * y + x * 3;
            int pixelWorst = 0;
            for (int c = 0; c < 3; ++c) {
                pixelWorst = std::max(pixelWorst, std::abs(frame[at + c] - golden.data[at + c]));
            }
            worst = std::max(worst, pixelWorst);
            differentPixels += pixelWorst > 0;
        }
    }
    EXPECT_LE(worst, maxDifference);
    EXPECT_LE(differentPixels, maxDifferentFraction * kWidth * kHeight);
}

TEST(SubtitleBackgroundGolden, PlateAtScaleOne) {
    CompareWithGolden(1.0f, "plate_1x.png", 0, 0);
}

TEST(SubtitleBackgroundGolden, PlateAtScaleOneAndAHalf) {
    CompareWithGolden(1.5f, "plate_1_5x.png", 3, 0.01);
}

}  // namespace
}  // namespace lumets
