// Pixel buffers and the rectangle operations that put one picture into another.
//
// Conventions: 24-bit pictures are B, G, R; 32-bit pictures B, G, R, A with
// straight alpha. Rows are padded to 4 bytes (RowStride) and stored bottom-up:
// row 0 in memory is the bottom row of the picture. Rectangle top and bottom
// count rows in memory order. A buffer of width w, height h and depth d is
// RowStride(w, d) * h bytes; callers guarantee that.
//
// Bad input (depths other than 24/32, null pixels, non-positive or huge sizes,
// rectangles anywhere) makes an operation do less or nothing; no byte outside
// either buffer is ever read or written.
#pragma once

#include <cstdint>

#include "lumets/win_types.h"

namespace lumets {

// Owned pixels: the owner frees data with delete[]. Grows only (EnsureBuffer).
struct PixelBuffer {
    uint8_t* data = nullptr;
    uint32_t capacity = 0;  // bytes allocated at data, not the bytes in use
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bitsPerPixel = 32;
};

// ((bitsPerPixel * width + 31) & ~31) / 8 in unsigned 32-bit arithmetic.
uint32_t RowStride(uint32_t width, uint32_t bitsPerPixel);

// Makes *data hold at least RowStride(width, bpp) * height bytes. Never
// shrinks; new bytes are not cleared. On allocation failure std::bad_alloc
// propagates after the old block was freed and *capacity raised.
void EnsureBuffer(uint8_t** data, uint32_t* capacity, uint32_t width, uint32_t height,
                  uint32_t bitsPerPixel);

// Clamps left/right into [x0, x1] and top/bottom into [y0, y1]; a reversed
// range is swapped first.
void ClampRect(RECT* rect, int32_t x0, int32_t x1, int32_t y0, int32_t y1);

// Alpha-blends the source rectangle into the destination rectangle. Rows pair
// up from the rectangles' last rows backwards; a column run is cut at the
// destination's right edge.
void BlendRect(uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstBpp,
               const RECT& dstRect, const uint8_t* src, int32_t srcWidth, int32_t srcHeight,
               int32_t srcBpp, const RECT& srcRect);

// BlendRect of the whole source with its top-left at pos (pos.y in memory rows).
void BlendAt(uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstBpp, POINT pos,
             const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcBpp);

// As BlendRect but copies whatever the alpha: a 32-bit source gives B, G, R
// (and A to a 32-bit destination); a 24-bit source gives B, G, R and alpha 255.
void CopyRectPixels(uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstBpp,
                    const RECT& dstRect, const uint8_t* src, int32_t srcWidth, int32_t srcHeight,
                    int32_t srcBpp, const RECT& srcRect);

}  // namespace lumets
