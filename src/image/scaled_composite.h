// Scaling pictures with libswscale, and the scaled, clipped composite of a
// 32-bit picture into a 24-bit frame.
#pragma once

#include <cstdint>

#include "image/pixel_ops.h"
#include "lumets/win_types.h"

namespace lumets {

// The largest scaled picture made, in pixels; a bigger request draws nothing.
inline constexpr uint64_t kMaxScaledPixels = 16777216;

// libswscale reads a little past the last pixel of its source and writes a
// little past that of its destination: every picture it reads or writes is
// allocated with this much room after its last row.
inline constexpr uint32_t kScalerSlackBytes = 64;

// EnsureBuffer for a 32-bit width x height picture plus the scaler's slack.
void EnsureScalableBuffer(uint8_t** data, uint32_t* capacity, uint32_t width, uint32_t height);

// Resizes a 32-bit picture (rows of width x 4 bytes) with a bicubic filter,
// keeping the channel order and the row order. A new scaling context is made
// and freed on every call. Both pictures need kScalerSlackBytes after their
// last row (EnsureScalableBuffer). False when no context can be made.
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
