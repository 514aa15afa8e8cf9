// Image loading: a PNG, JPEG, BMP, WebP or TIFF file (or the library's own
// resource) decoded by FFmpeg into a PixelBuffer in the library's pixel
// conventions: 24-bit B, G, R or 32-bit B, G, R, A with straight alpha, rows
// padded to 4 bytes and stored bottom-up.
//
// Which decoded pictures load, and at which depth, is decided by one table in
// image_loader.cpp keyed by codec and decoded pixel format: pictures with an
// alpha channel load as 32-bit, RGB ones as 24-bit, 48-bit RGB as 32-bit with
// alpha 255, 32-bit BMPs as 32-bit with their fourth byte as stored; GIF,
// paletted, grey, 16-bit RGB and anything else are refused.
//
// A load that fails for any reason (missing or unreadable file, a directory,
// unknown or corrupt data, a refused format, a picture of more pixels than
// kMaxPicturePixels, whatever its shape) reports nothing and leaves the
// target exactly as it was. Only allocation failure of the target's block
// propagates (std::bad_alloc, after the old block was freed). Loads may run on
// any thread; the target must not be used elsewhere during the load.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "lumets_common/picture.h"

namespace lumets {

// A decoded picture converted to the depth the format table chose: top-down
// rows of B, G, R (, A), width * bitsPerPixel / 8 bytes each, strideBytes
// apart (0: no gap between rows).
struct DecodedImage {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bitsPerPixel = 0;
    size_t strideBytes = 0;
    std::unique_ptr<uint8_t[]> pixels;
};

// Loads the image file at path (NUL-terminated UTF-16) into target. Only
// regular files are read; a null path does nothing.
void LoadImageFile(PixelBuffer& target, const char16_t* path);

// Loads resource (id, type) of the named module into target; see
// FindModuleResource. The one such image is ("Lumets.dll", 101, "PNG").
void LoadImageResource(PixelBuffer& target, const char16_t* moduleName, int32_t id,
                       const char16_t* type);

// Decodes an image held in memory into target: the step both loads share
// after reading their bytes, and the entry the fuzz target drives.
void LoadImageBytes(PixelBuffer& target, const uint8_t* bytes, size_t size);

// Moves a converted picture into target: width, height and depth from the
// picture, the block reused when large enough and otherwise replaced by one of
// RowStride(width, depth) * height + 1 bytes (the spare byte takes the fourth
// byte written after a 24-bit picture's last pixel). Null, a depth other than
// 24 or 32, or an empty picture leaves target unchanged.
void CopyImageToBuffer(PixelBuffer& target, const DecodedImage* image);

}  // namespace lumets
