// Scaling pictures with libswscale, and the scaled, clipped composite of a
// 32-bit picture into a 24-bit frame.
#pragma once

#include <cstdint>
#include <utility>

#include "lumets/win_types.h"
#include "lumets_common/av_handles.h"
#include "lumets_common/picture.h"
#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"

namespace lumets {

// libswscale reads a little past the last pixel of its source and writes a
// little past that of its destination: every picture it reads or writes is
// allocated with this much room after its last row.
inline constexpr uint32_t kScalerSlackBytes = 64;

// A coordinate in item units at the scale: float * scale truncated toward
// zero, saturated to int32 (NaN gives 0). Every layer places itself with it,
// so a movie, its plate and its text line up at any scale.
int32_t ScaleCoordinate(int32_t value, float scale);

// Ensure for a 32-bit width x height picture plus the scaler's slack.
void EnsureScalable(PixelBuffer& buffer, uint32_t width, uint32_t height);

// True when the buffer's block holds its 32-bit picture and the scaler's
// slack after it; only such a buffer may be handed to ResizePicture32.
bool HasScalerSlack(const PixelBuffer& buffer);

// One bicubic scaling context kept for a pair of sizes and a pixel format:
// making a context costs far more than most scales, so a picture rescaled at
// the same sizes keeps its context, and another pair replaces it. Not
// sws_getCachedContext: libswscale adds flags of its own at set-up (full
// chroma for RGB), so its cache never matches and would make a context on
// every call. A context holds no state between scales that could change a
// pixel, so a kept one scales exactly as a new one would.
class CScalerCache {
  public:
    // The context for these sizes, made when they differ from the last ones;
    // null when libswscale refuses them.
    SwsContext* Get(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth, int32_t dstHeight,
                    AVPixelFormat format);
    uint32_t ContextsMade() const { return m_made; }

  private:
    SwsContextPtr m_context;
    int32_t m_key[5] = {};
    uint32_t m_made = 0;
};

// Resizes a 32-bit picture into another with a bicubic filter, keeping the
// channel order and the row order, with scaler's kept context (a new one for
// this call when scaler is null). Both pictures need kScalerSlackBytes after
// their last row (EnsureScalable). False when either is not a 32-bit picture
// or no context can be made.
bool ResizePicture32(const ConstPictureView& src, const PictureView& dst,
                     CScalerCache* scaler = nullptr);

// ResizePicture32 for the rows [firstRow, firstRow + dst.height) of a result
// scaledHeight rows high: the rows come out as scaling the whole would give
// them, while only the source rows they need are scaled.
bool ResizeRows32(const ConstPictureView& src, const PictureView& dst, int32_t scaledHeight,
                  int32_t firstRow, CScalerCache* scaler = nullptr);

// A picture's scaled copy, kept while the picture and the size stay and
// remade with a kept context when either changes: a steady picture drawn at
// a steady scale is scaled once.
class CScaledCopy {
  public:
    // source at width x height. version names source's pixels: non-zero, and
    // new whenever they change. Empty (null data) for a size outside the
    // picture limits, a source without the scaler's slack, or no context.
    ConstPictureView Get(const PixelBuffer& source, uint64_t version, int32_t width,
                         int32_t height);
    uint32_t ScaleCount() const { return m_scales; }
    uint32_t ContextCount() const { return m_scaler.ContextsMade(); }

  private:
    PixelBuffer m_scaled;
    CScalerCache m_scaler;
    uint64_t m_madeFrom = 0;  // 0: nothing to reuse
    uint32_t m_scales = 0;
};

// Lets repeats of one scaling reuse the scaled picture, and rescales at the
// same sizes reuse the scaling context. The caller sets source to its
// picture's version before each call (a new, non-zero one whenever the
// picture changes); the call keeps the rest.
//
// A picture blended a second time unchanged (the source at its own size, or
// the same scaled copy) is described by its runs (FindRuns), and from then on
// blended through them while it stays.
struct ScaledReuse {
    CScalerCache scaler;
    uint64_t source = 0;
    uint64_t madeFrom = 0;  // 0: the scaled buffer holds nothing to reuse
    float scale = 0.0f;
    int64_t columnStart = 0;
    int64_t columns = 0;
    int64_t firstRow = 0;
    int64_t rows = 0;
    // Names the scaled buffer's pixels: new whenever they are scaled again.
    uint64_t scaledVersion = 0;
    // What was blended last and what runs describes, as (source version,
    // scaled version or 0 for the source itself); source 0 names nothing.
    std::pair<uint64_t, uint64_t> lastBlended{0, 0};
    std::pair<uint64_t, uint64_t> runsOf{0, 0};
    PictureRuns runs;
};

// source scaled by scale (through scaled, which only grows) and blended into
// the frame (any layout FrameView makes) with its top-left at pos, inside clip; pos and
// clip are top-down coordinates before scaling. A scaled picture within
// wholeLimit pixels is scaled whole (and reused through reuse while source,
// scale and part stay); a larger one only in the part that can show: its
// rows, and its columns where the sampling grid repeats often enough to cut
// the rows without changing a pixel. A scale that keeps the size blends
// source directly. Non-positive or non-finite scales draw nothing, and so do
// a scaled part over kMaxPicturePixels and a source to be scaled without the
// scaler's slack (HasScalerSlack). rescales, when not null, counts the
// scales done.
void BlendScaledIntoFrame(const PixelBuffer& source, PixelBuffer& scaled, const PictureView& frame,
                          const RECT& clip, POINT pos, float scale, uint32_t* rescales,
                          ScaledReuse* reuse = nullptr, int64_t wholeLimit = kMaxPicturePixels);

}  // namespace lumets
