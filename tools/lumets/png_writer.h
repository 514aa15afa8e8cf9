// Writes the library's bottom-up pictures as PNG files.
#pragma once

#include <cstdint>
#include <string>

namespace lumets::tool {

// pixels: bottom-up rows of RowStride(width, bitsPerPixel) bytes, 24-bit B, G, R
// or 32-bit B, G, R, A (straight alpha). False when the file cannot be written.
bool WritePng(const std::string& path, const uint8_t* pixels, int32_t width, int32_t height,
              int32_t bitsPerPixel);

}  // namespace lumets::tool
