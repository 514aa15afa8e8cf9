#include "png_writer.h"

#include <cairo.h>

#include <memory>

#include "image/pixel_ops.h"

namespace lumets::tool {

namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;

}  // namespace

bool WritePng(const std::string& path, const uint8_t* pixels, int32_t width, int32_t height,
              int32_t bitsPerPixel) {
    if (pixels == nullptr || width <= 0 || height <= 0 ||
        (bitsPerPixel != 24 && bitsPerPixel != 32)) {
        return false;
    }
    const bool hasAlpha = bitsPerPixel == 32;
    SurfacePtr surface(cairo_image_surface_create(
        hasAlpha ? CAIRO_FORMAT_ARGB32 : CAIRO_FORMAT_RGB24, width, height));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
        return false;
    }
    cairo_surface_flush(surface.get());
    uint8_t* out = cairo_image_surface_get_data(surface.get());
    const int outStride = cairo_image_surface_get_stride(surface.get());
    const uint32_t inStride = RowStride(static_cast<uint32_t>(width), bitsPerPixel);
    const int bytesPerPixel = bitsPerPixel / 8;
    for (int32_t y = 0; y < height; ++y) {
        // Cairo rows run top-down, ours bottom-up.
        const uint8_t* in = pixels + static_cast<size_t>(inStride) * (height - 1 - y);
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

}  // namespace lumets::tool
