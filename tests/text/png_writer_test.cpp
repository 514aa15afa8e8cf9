// PNGs written from the library's pictures read back as the same pixels.
#include "text/png_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "lumets_platform/utf16.h"

namespace lumets {
namespace {

TEST(PngWriter, BothDepthsReadBackExactly) {
    test::ScratchDir dir;
    for (int32_t depth : {24, 32}) {
        // 5 x 3 with padded 24-bit rows; every byte different, alpha never 0
        // or partial (a partial alpha goes through premultiplied colour).
        std::vector<uint8_t> bytes(RowStride(5, depth) * 3);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = depth == 32 && i % 4 == 3 ? 255 : static_cast<uint8_t>(i * 7 + 1);
        }
        const ConstPictureView picture = PackedPicture<const uint8_t>(bytes.data(), 5, 3, depth);
        const std::string file = dir.File("picture" + std::to_string(depth) + ".png");
        ASSERT_TRUE(WritePng(file, picture));
        PixelBuffer back;
        LoadImageFile(back, platform::Utf8ToU16(file).c_str());
        const ConstPictureView read = std::as_const(back).View();
        ASSERT_EQ(std::tuple(read.width, read.height), std::tuple(5, 3));
        // An opaque 32-bit picture may come back as 24-bit: compare B, G, R.
        for (int32_t i = 0; i < 15; ++i) {
            const int32_t x = i % 5;
            const int32_t y = i / 5;
            EXPECT_EQ(0, std::memcmp(read.data + read.strideBytes * y + x * read.bitsPerPixel / 8,
                                     picture.data + picture.strideBytes * y + x * depth / 8, 3))
                << x << ", " << y;
        }
    }
    EXPECT_FALSE(WritePng(dir.File("empty.png"), ConstPictureView{}));
    const uint8_t pixel[4] = {1, 2, 3, 0};
    EXPECT_FALSE(WritePng(dir.File("no/such/folder.png"), PackedPicture(pixel, 1, 1, 24)));
}

}  // namespace
}  // namespace lumets
