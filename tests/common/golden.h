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
#include <cstdlib>
#include <string>

#include "image/picture.h"
#include "text/cairo_handles.h"

namespace lumets::test {

struct GoldenTolerance {
    int maxChannelDiff = 0;
    double maxDifferingPixels = 0;  // fraction of all pixels
};

// Pixel (x, y), y counted from the top, as premultiplied 0xAARRGGBB.
inline uint32_t PremultipliedArgb(const ConstPictureView& picture, int x, int y) {
    const uint8_t* p = picture.data + picture.strideBytes * (picture.height - 1 - y) +
                       static_cast<size_t>(x) * (picture.bitsPerPixel / 8);
    const uint32_t a = picture.bitsPerPixel == 32 ? p[3] : 255;
    const uint32_t r = (p[2] * a + 127) / 255;
    const uint32_t g = (p[1] * a + 127) / 255;
    const uint32_t b = (p[0] * a + 127) / 255;
    return (a << 24) | (r << 16) | (g << 8) | b;
}

inline ::testing::AssertionResult MatchesGolden(const std::string& path,
                                                const ConstPictureView& picture,
                                                GoldenTolerance tolerance) {
    const int width = picture.width;
    const int height = picture.height;
    if (const char* update = std::getenv("LUMETS_UPDATE_GOLDEN"); update && *update == '1') {
        const CairoSurfacePtr out(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
        uint8_t* data = cairo_image_surface_get_data(out.get());
        const int stride = cairo_image_surface_get_stride(out.get());
        for (int y = 0; y < height; ++y) {
            auto* row = reinterpret_cast<uint32_t*>(data + stride * y);
            for (int x = 0; x < width; ++x) {
                row[x] = PremultipliedArgb(picture, x, y);
            }
        }
        cairo_surface_mark_dirty(out.get());
        if (cairo_surface_write_to_png(out.get(), path.c_str()) != CAIRO_STATUS_SUCCESS) {
            return ::testing::AssertionFailure() << "cannot write " << path;
        }
        return ::testing::AssertionSuccess() << "updated " << path;
    }
    const CairoSurfacePtr golden(cairo_image_surface_create_from_png(path.c_str()));
    if (cairo_surface_status(golden.get()) != CAIRO_STATUS_SUCCESS) {
        return ::testing::AssertionFailure() << "cannot read golden " << path;
    }
    const int gw = cairo_image_surface_get_width(golden.get());
    const int gh = cairo_image_surface_get_height(golden.get());
    if (gw != width || gh != height) {
        return ::testing::AssertionFailure()
               << path << ": size " << width << "x" << height << ", golden " << gw << "x" << gh;
    }
    cairo_surface_flush(golden.get());
    const uint8_t* data = cairo_image_surface_get_data(golden.get());
    const int stride = cairo_image_surface_get_stride(golden.get());
    const bool opaque = cairo_image_surface_get_format(golden.get()) == CAIRO_FORMAT_RGB24;
    size_t differing = 0;
    int worst = 0;
    for (int y = 0; y < height; ++y) {
        const auto* row = reinterpret_cast<const uint32_t*>(data + stride * y);
        for (int x = 0; x < width; ++x) {
            const uint32_t want = opaque ? (row[x] | 0xFF000000u) : row[x];
            const uint32_t got = PremultipliedArgb(picture, x, y);
            int diff = 0;
            for (int shift = 0; shift < 32; shift += 8) {
                diff = std::max(diff, std::abs(static_cast<int>((want >> shift) & 0xFF) -
                                               static_cast<int>((got >> shift) & 0xFF)));
            }
            worst = std::max(worst, diff);
            differing += diff > tolerance.maxChannelDiff;
        }
    }
    const double fraction = static_cast<double>(differing) / (static_cast<double>(width) * height);
    if (fraction > tolerance.maxDifferingPixels) {
        return ::testing::AssertionFailure()
               << path << ": " << differing << " pixels differ by more than "
               << tolerance.maxChannelDiff << " (largest difference " << worst << ")";
    }
    return ::testing::AssertionSuccess();
}

}  // namespace lumets::test
