// Damaged files of every accepted format: a load either gives a consistent
// picture or leaves the target exactly as it was, and never reads or writes
// outside a buffer (run under AddressSanitizer in the sanitizer build).

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "image/image_loader.h"
#include "image/media_tools.h"

namespace lumets::test {
namespace {

struct Seed {
    const char* name;
    const char* outputArgs;
};

const Seed kSeeds[] = {
    {"png", "-c:v png -pix_fmt rgba"},    {"jpg", "-c:v mjpeg -pix_fmt yuvj420p"},
    {"bmp", "-c:v bmp -pix_fmt bgr24"},   {"webp", "-c:v libwebp -lossless 1"},
    {"tif", "-c:v tiff -pix_fmt rgba"},   {"gif", "-c:v gif"},
    {"webp", "-c:v libwebp -lossless 0"}, {"png", "-c:v png -pix_fmt rgb48be"},
};

// Deterministic, so a failure repeats.
struct Random {
    uint32_t state;
    uint32_t Next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
};

void ExpectSaneOrUntouched(const PixelBuffer& b, const Snapshot& before) {
    if (Snapshot(b) == before) {
        return;
    }
    ASSERT_TRUE(b.bitsPerPixel == 24 || b.bitsPerPixel == 32);
    ASSERT_GT(b.width, 0);
    ASSERT_GT(b.height, 0);
    ASSERT_NE(b.View().data, nullptr);  // the geometry fits the block
}

TEST(CorruptImages, MutatedAndTruncatedFilesNeverBreakTheTarget) {
    ScratchDir dir;
    std::vector<uint8_t> raw;
    for (int i = 0; i < 24 * 16; ++i) {
        raw.insert(raw.end(), {static_cast<uint8_t>(i * 7), static_cast<uint8_t>(i * 13),
                               static_cast<uint8_t>(255 - i), static_cast<uint8_t>(i * 3 + 1)});
    }
    const std::string rawFile = dir.File("seed.rgba");
    WriteBytes(rawFile, raw);

    Random random{0x1234567u};
    int index = 0;
    for (const Seed& seed : kSeeds) {
        const std::string file = dir.File("seed" + std::to_string(index++) + "." + seed.name);
        ASSERT_TRUE(EncodeRaw(rawFile, "rgba", 24, 16, seed.outputArgs, file)) << file;
        const std::vector<uint8_t> original = ReadBytes(file);
        SCOPED_TRACE(file);

        PixelBuffer target;
        LoadImageBytes(target, original.data(), original.size());
        const Snapshot start(target);

        // Every prefix length in steps, then random byte changes.
        for (size_t length = 0; length < original.size(); length += 1 + original.size() / 97) {
            LoadImageBytes(target, original.data(), length);
            ExpectSaneOrUntouched(target, start);
        }
        for (int round = 0; round < 300; ++round) {
            std::vector<uint8_t> bytes = original;
            const int changes = 1 + static_cast<int>(random.Next() % 8);
            for (int k = 0; k < changes; ++k) {
                bytes[random.Next() % bytes.size()] = static_cast<uint8_t>(random.Next());
            }
            const Snapshot before(target);
            LoadImageBytes(target, bytes.data(), bytes.size());
            ExpectSaneOrUntouched(target, before);
        }
    }
}

}  // namespace
}  // namespace lumets::test
