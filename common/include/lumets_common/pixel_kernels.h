// Row kernels behind the rectangle operations of pixel_ops.h, and the choice
// between the scalar reference and the SIMD variants. Internal to the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "lumets_common/pixel_ops.h"

namespace lumets {

// One row of `count` pixels from src into dst.
//
// Preconditions shared by every kernel of every table:
// - dst holds count pixels of the destination depth, src count pixels of the
//   source depth (3 bytes for 24-bit, 4 for 32-bit); nothing past them is read
//   or written, whatever the count;
// - the two ranges do not overlap;
// - no alignment is required.
//
// Every table gives the same bytes as ScalarKernels() for every input; the
// comparison tests hold the variants to that.
using RowKernel = void (*)(uint8_t* dst, const uint8_t* src, size_t count);
// A row of count destination pixels blended with one source colour, B, G, R
// and A packed as 0xAARRGGBB; nothing is read but dst.
using ColourKernel = void (*)(uint8_t* dst, uint32_t bgra, size_t count);

struct PixelKernels {
    const char* name;
    // Straight-alpha blend of B, G, R, A sources: alpha 0 leaves the pixel,
    // 255 copies it, anything else mixes ((255 - a) * D + a * S) / 255
    // truncated. A 32-bit destination takes the source alpha (255 when
    // copied), or keeps its own where the source alpha is 0.
    RowKernel blend32To24;
    RowKernel blend32To32;
    // The same blend into hosts' frames of other layouts (PixelLayout):
    // R, G, B; and 32-bit B, G, R, x or R, G, B, x whose fourth byte is never
    // written. Each gives the colours blend32To24 gives, in its own order.
    RowKernel blend32ToRgb24;
    RowKernel blend32ToBgrx;
    RowKernel blend32ToRgbx;
    // Plain copies. 24 -> 32 either keeps the destination's alpha byte (the
    // blend of an alpha-less source) or writes 255 (a copy).
    RowKernel copy24To24;
    RowKernel copy24To32KeepAlpha;
    RowKernel copy24To32Opaque;
    RowKernel copy32To24;
    RowKernel copy32To32;
    // The blends above for a source row of one colour: exactly the bytes
    // they give for it, without reading a source (a plate's flat middle).
    ColourKernel blendColourTo24;
    ColourKernel blendColourTo32;
    ColourKernel blendColourToRgb24;
    ColourKernel blendColourToBgrx;
    ColourKernel blendColourToRgbx;
};

// The plain per-pixel reference.
const PixelKernels& ScalarKernels();

// Same-depth copies are plain byte copies; the SIMD tables share these.
inline void CopyRowBytes24(uint8_t* dst, const uint8_t* src, size_t count) {
    std::memcpy(dst, src, count * 3);
}
inline void CopyRowBytes32(uint8_t* dst, const uint8_t* src, size_t count) {
    std::memcpy(dst, src, count * 4);
}
// Each variant, or nullptr where this CPU cannot run it. The AVX-512 table
// replaces only the main path (32-bit into 24-bit) and keeps the AVX2 rest.
const PixelKernels* Avx512Kernels();
const PixelKernels* Avx2Kernels();
const PixelKernels* Sse41Kernels();
// The fastest variant this CPU runs (chosen once), or nullptr.
const PixelKernels* SimdKernels();
// What the public operations use: SimdKernels(), else ScalarKernels().
const PixelKernels& ActiveKernels();

// The public operations with an explicit table, for the comparison tests and
// the benchmarks.
void BlendRectWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                   const ConstPictureView& src, const RECT& srcRect);
void BlendAtWith(const PixelKernels& kernels, const PictureView& dst, POINT pos,
                 const ConstPictureView& src);
void BlendRunsAtWith(const PixelKernels& kernels, const PictureView& dst, POINT pos,
                     const ConstPictureView& src, const PictureRuns& runs);
void BlendRectRunsWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                       const ConstPictureView& src, const RECT& srcRect, const PictureRuns& runs);
void CopyRectPixelsWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                        const ConstPictureView& src, const RECT& srcRect);

}  // namespace lumets
