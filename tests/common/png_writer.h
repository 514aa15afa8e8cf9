// Writes the library's bottom-up pictures as PNG files (through Cairo), for
// golden pictures and the pictures a failing test leaves behind.
#pragma once

#include <string>

#include "lumets_common/picture.h"
#include "text/cairo_handles.h"

namespace lumets {

// A 24-bit B, G, R or 32-bit B, G, R, A (straight alpha) picture. False when
// the picture is empty or the file cannot be written.
inline bool WritePng(const std::string& path, const ConstPictureView& picture) {
    const int32_t width = picture.width;
    const int32_t height = picture.height;
    const int32_t bitsPerPixel = picture.bitsPerPixel;
    if (picture.data == nullptr || width <= 0 || height <= 0 ||
        (bitsPerPixel != 24 && bitsPerPixel != 32) ||
        picture.strideBytes < size_t(width) * (bitsPerPixel / 8)) {
        return false;
    }
    const bool hasAlpha = bitsPerPixel == 32;
    CairoSurfacePtr surface(cairo_image_surface_create(
        hasAlpha ? CAIRO_FORMAT_ARGB32 : CAIRO_FORMAT_RGB24, width, height));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
        return false;
    }
    cairo_surface_flush(surface.get());
    uint8_t* out = cairo_image_surface_get_data(surface.get());
    const int outStride = cairo_image_surface_get_stride(surface.get());
    const int bytesPerPixel = bitsPerPixel / 8;
    for (int32_t y = 0; y < height; ++y) {
        // Cairo rows run top-down, ours bottom-up.
        const uint8_t* in = picture.data + picture.strideBytes * (height - 1 - y);
        auto* row = reinterpret_cast<uint32_t*>(out + static_cast<size_t>(outStride) * y);
        for (int32_t x = 0; x < width; ++x) {
            const uint8_t* p = in + x * bytesPerPixel;
            uint32_t a = hasAlpha ? p[3] : 255u;
            // Cairo wants premultiplied colour in native-endian ARGB words.
            uint32_t b = (p[0] * a + 127) / 255;
            uint32_t g = (p[1] * a + 127) / 255;
            uint32_t r = (p[2] * a + 127) / 255;
            row[x] = (a << 24) | (r << 16) | (g << 8) | b;
        }
    }
    cairo_surface_mark_dirty(surface.get());
    return cairo_surface_write_to_png(surface.get(), path.c_str()) == CAIRO_STATUS_SUCCESS;
}

}  // namespace lumets
