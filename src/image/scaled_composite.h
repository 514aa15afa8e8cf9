// Scaling pictures with libswscale, and the scaled, clipped composite of a
// 32-bit picture into a 24-bit frame.
#pragma once

#include <cstdint>

#include "image/picture.h"
#include "image/picture_limits.h"
#include "lumets/win_types.h"

namespace lumets {

// libswscale reads a little past the last pixel of its source and writes a
// little past that of its destination: every picture it reads or writes is
// allocated with this much room after its last row.
inline constexpr uint32_t kScalerSlackBytes = 64;

// Ensure for a 32-bit width x height picture plus the scaler's slack.
void EnsureScalable(PixelBuffer& buffer, uint32_t width, uint32_t height);

// True when the buffer's block holds its 32-bit picture and the scaler's
// slack after it; only such a buffer may be handed to ResizePicture32.
bool HasScalerSlack(const PixelBuffer& buffer);

// Resizes a 32-bit picture into another with a bicubic filter, keeping the
// channel order and the row order. A new scaling context is made and freed on
// every call. Both pictures need kScalerSlackBytes after their last row
// (EnsureScalable). False when either is not a 32-bit picture or no context
// can be made.
bool ResizePicture32(const ConstPictureView& src, const PictureView& dst);

// ResizePicture32 for the rows [firstRow, firstRow + dst.height) of a result
// scaledHeight rows high: the rows come out as scaling the whole would give
// them, while only the source rows they need are scaled.
bool ResizeRows32(const ConstPictureView& src, const PictureView& dst, int32_t scaledHeight,
                  int32_t firstRow);

// Lets repeats of one scaling reuse the scaled picture. The caller sets
// source to its picture's version before each call (a new, non-zero one
// whenever the picture changes); the call keeps the rest.
struct ScaledReuse {
    uint64_t source = 0;
    uint64_t madeFrom = 0;  // 0: the scaled buffer holds nothing to reuse
    float scale = 0.0f;
    int64_t columnStart = 0;
    int64_t columns = 0;
    int64_t firstRow = 0;
    int64_t rows = 0;
};

// source scaled by scale (through scaled, which only grows) and blended into
// the 24-bit bottom-up frame with its top-left at pos, inside clip; pos and
// clip are top-down coordinates before scaling. A scaled picture within
// wholeLimit pixels is scaled whole (and reused through reuse while source,
// scale and part stay); a larger one only in the part that can show: its
// rows, and its columns where the sampling grid repeats often enough to cut
// the rows without changing a pixel. A scale that keeps the size blends
// source directly. Non-positive or non-finite scales draw nothing, and so do
// a scaled part over kMaxPicturePixels and a source to be scaled without the
// scaler's slack (HasScalerSlack). contextsMade, when not null, counts the
// scaling contexts made.
void BlendScaledInto24(const PixelBuffer& source, PixelBuffer& scaled, const PictureView& frame,
                       const RECT& clip, POINT pos, float scale, uint32_t* contextsMade,
                       ScaledReuse* reuse = nullptr, int64_t wholeLimit = kMaxPicturePixels);

}  // namespace lumets
