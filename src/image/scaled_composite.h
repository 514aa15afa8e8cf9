// Scaling pictures with libswscale, and the scaled, clipped composite of a
// 32-bit picture into a 24-bit frame.
#pragma once

#include <cstdint>

#include "image/pixel_ops.h"
#include "lumets/win_types.h"

namespace lumets {

// The largest scaled picture made, in pixels; a bigger request draws nothing.
inline constexpr uint64_t kMaxScaledPixels = 16777216;

// Resizes a 32-bit picture (rows of width x 4 bytes) with a bicubic filter,
// keeping the channel order and the row order. A new scaling context is made
// and freed on every call. False, with dst untouched, when none can be made.
bool ResizePicture32(const uint8_t* src, uint32_t srcWidth, uint32_t srcHeight, uint8_t* dst,
                     uint32_t dstWidth, uint32_t dstHeight);

// source scaled by scale (through scaled, which only grows) and blended into
// the 24-bit bottom-up frame with its top-left at pos, inside clip; pos and
// clip are top-down coordinates before scaling. A scale that keeps the size
// blends source directly. Non-positive or non-finite scales draw nothing.
// contextsMade, when not null, counts the scaling contexts made.
void BlendScaledInto24(PixelBuffer& source, PixelBuffer& scaled, uint8_t* dst, int32_t dstWidth,
                       int32_t dstHeight, const RECT& clip, POINT pos, float scale,
                       uint32_t* contextsMade);

}  // namespace lumets
