// Golden pictures: a bottom-up 24-bit or 32-bit straight-alpha picture
// compared with a PNG in a test's data folder. Set LUMETS_UPDATE_GOLDEN=1 to
// write the PNGs anew (look at them before committing).
//
// The comparison is on premultiplied colour, what a viewer sees over black:
// a pixel differs when any channel differs by more than maxChannelDiff, and
// the picture matches when at most maxDifferingPixels pixels differ and the
// sizes are equal.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "lumets_platform/utf16.h"

namespace lumets::test {

// Writes the picture as a PNG with ffmpeg, which keeps the alpha straight.
inline bool WritePng(const std::string& path, const ConstPictureView& picture) {
    const size_t rowBytes = static_cast<size_t>(picture.width) * (picture.bitsPerPixel / 8);
    std::vector<uint8_t> rows;
    for (int y = 0; y < picture.height; ++y) {
        rows.insert(rows.end(), picture.data + picture.strideBytes * y,
                    picture.data + picture.strideBytes * y + rowBytes);
    }
    const std::string raw = path + ".raw";
    const bool written =
        WriteBytes(raw, rows) &&
        RunCommand("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt " +
                   std::string(picture.bitsPerPixel == 32 ? "bgra" : "bgr24") + " -s " +
                   std::to_string(picture.width) + "x" + std::to_string(picture.height) + " -i " +
                   Quote(raw) + " -vf vflip " + Quote(path));  // our rows run bottom-up
    std::remove(raw.c_str());
    return written;
}

struct GoldenTolerance {
    int maxChannelDiff = 0;
    double maxDifferingPixels = 0;  // fraction of all pixels
};

// Channel c (0 B, 1 G, 2 R, 3 A) of pixel (x, y), premultiplied.
inline int Premultiplied(const ConstPictureView& picture, int x, int y, int c) {
    const uint8_t* p = picture.data + picture.strideBytes * y +
                       static_cast<size_t>(x) * (picture.bitsPerPixel / 8);
    const int a = picture.bitsPerPixel == 32 ? p[3] : 255;
    return c == 3 ? a : (p[c] * a + 127) / 255;
}

inline ::testing::AssertionResult MatchesGolden(const std::string& path,
                                                const ConstPictureView& picture,
                                                GoldenTolerance tolerance) {
    if (const char* update = std::getenv("LUMETS_UPDATE_GOLDEN"); update && *update == '1') {
        return WritePng(path, picture) ? ::testing::AssertionSuccess() << "updated " << path
                                       : ::testing::AssertionFailure() << "cannot write " << path;
    }
    PixelBuffer golden;
    LoadImageFile(golden, platform::Utf8ToU16(path).c_str());
    const ConstPictureView want = std::as_const(golden).View();
    if (want.data == nullptr || want.width != picture.width || want.height != picture.height) {
        return ::testing::AssertionFailure() << "missing golden, or another size: " << path;
    }
    size_t differing = 0;
    int worst = 0;
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
            int diff = 0;
            for (int c = 0; c < 4; ++c) {
                diff = std::max(
                    diff, std::abs(Premultiplied(want, x, y, c) - Premultiplied(picture, x, y, c)));
            }
            worst = std::max(worst, diff);
            differing += diff > tolerance.maxChannelDiff;
        }
    }
    const double fraction =
        static_cast<double>(differing) / (static_cast<double>(picture.width) * picture.height);
    if (fraction > tolerance.maxDifferingPixels) {
        return ::testing::AssertionFailure()
               << path << ": " << differing << " pixels differ by more than "
               << tolerance.maxChannelDiff << " (largest difference " << worst << ")";
    }
    return ::testing::AssertionSuccess();
}

}  // namespace lumets::test
