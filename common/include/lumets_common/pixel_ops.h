// The rectangle operations that put one picture into another (conventions in
// picture.h). Rectangle top and bottom count rows in memory order.
//
// Bad input (depths other than 24/32, null pixels, non-positive or huge sizes,
// strides narrower than a row, rectangles anywhere) makes an operation do less
// or nothing; no byte outside either view is ever read or written.
//
// Source and destination may share their pixels, rectangles overlapping: every
// operation then reads the source rectangle whole before it writes, as memmove
// does, so the result is that of working from a copy of the source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>
#include <vector>

#include "lumets/frame.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"

namespace lumets {

// Clamps left/right into [x0, x1] and top/bottom into [y0, y1]; a reversed
// range is swapped first.
void ClampRect(RECT* rect, int32_t x0, int32_t x1, int32_t y0, int32_t y1);

// Alpha-blends the source rectangle into the destination rectangle. Rows pair
// up from the rectangles' last rows backwards; a column run is cut at the
// destination's right edge.
void BlendRect(const PictureView& dst, const RECT& dstRect, const ConstPictureView& src,
               const RECT& srcRect);

// BlendRect of the whole source with its top-left at pos (pos.y in memory rows).
void BlendAt(const PictureView& dst, POINT pos, const ConstPictureView& src);

// An allocator whose blocks start on a 64-byte line: a span whose packed
// pixels start on one loads them a cache line at a time.
template <typename T>
struct LineAllocator {
    using value_type = T;
    LineAllocator() = default;
    template <typename U>
    LineAllocator(const LineAllocator<U>& /*other*/) {}
    T* allocate(size_t n) {
        return static_cast<T*>(::operator new (n * sizeof(T), std::align_val_t{64}));
    }
    void deallocate(T* p, size_t /*n*/) { ::operator delete (p, std::align_val_t{64}); }
    bool operator==(const LineAllocator& /*other*/) const { return true; }
};

// A 32-bit picture described once for the many times it is blended: in each
// memory row (numbered bottom-up, as the blends pair them), the spans that
// can show, left to right. Every pixel outside them has alpha 0 and leaves
// the destination as it is. A span is either one colour (a plate's flat
// middle, blended without reading a source) or pixels, kept packed one span
// after another so that a blend reads only what can show.
struct PictureRuns {
    struct Run {
        int32_t begin = 0;
        int32_t end = 0;
        bool flat = false;
        size_t offset = 0;  // index of the span's first pixel in pixels
    };
    int32_t width = 0;
    int32_t height = 0;
    uint32_t colour = 0;  // of the flat spans, 0xAARRGGBB
    std::vector<Run> runs;
    // height + 1 entries: the runs of row m are [rowStarts[m], rowStarts[m + 1]).
    std::vector<size_t> rowStarts;
    // B, G, R, A; each span's pixels start on a 64-byte line.
    std::vector<uint32_t, LineAllocator<uint32_t>> pixels;
};

// A picture's runs: pieces of kRunPiece pixels whose alphas are all 0 are
// left out where they make a gap of 64 pixels or more; with flatColour, each
// row's longest run of that colour (0xAARRGGBB) is a flat span. Empty (no
// rows) for a picture that is not 32-bit.
inline constexpr int32_t kRunPiece = 16;
PictureRuns FindRuns(const ConstPictureView& picture, std::optional<uint32_t> flatColour = {});

// BlendAt and BlendRect of src through its runs: the same bytes for less
// memory traffic. Runs found for a picture of another size are not used.
void BlendRunsAt(const PictureView& dst, POINT pos, const ConstPictureView& src,
                 const PictureRuns& runs);
void BlendRectRuns(const PictureView& dst, const RECT& dstRect, const ConstPictureView& src,
                   const RECT& srcRect, const PictureRuns& runs);

// As BlendRect but copies whatever the alpha: a 32-bit source gives B, G, R
// (and A to a 32-bit destination); a 24-bit source gives B, G, R and alpha 255.
void CopyRectPixels(const PictureView& dst, const RECT& dstRect, const ConstPictureView& src,
                    const RECT& srcRect);

// Blends a bottom-up 32-bit picture into a frame (the library's 24-bit
// frame or a host's of another layout). The picture's top-left lands at pos
// (top-down frame coordinates); only pixels inside clip (put into order
// first) and inside the frame change, each as D = ((255 - a) * D + S * a) / 255.
void BlendIntoFrame(const PictureView& frame, const RECT& clip, POINT pos,
                    const ConstPictureView& picture);

// A host's frame as a view to blend into: empty (data null) for a null
// frame, a size, format, flag or stride that cannot be drawn into.
PictureView FrameView(const lumets_frame* frame);

// The library's own frame (24-bit B, G, R, rows bottom-up and padded to 4
// bytes) as a host frame; sizes beyond int32 give one that draws nothing.
lumets_frame PackedFrame24(uint8_t* data, uint64_t width, uint64_t height);

}  // namespace lumets
