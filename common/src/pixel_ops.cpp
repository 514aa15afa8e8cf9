// Buffer sizing, rectangle clipping and row pairing; the per-row work is done
// by the kernel table of pixel_kernels.h.
#include "lumets_common/pixel_ops.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <vector>

#include "lumets_common/pixel_kernels.h"

namespace lumets {
namespace {

constexpr uint64_t kMaxU32 = std::numeric_limits<uint32_t>::max();
// Gaps narrower than this between the spans of a picture's runs are kept.
constexpr int64_t kRunJoin = 64;
// Pixels to a 64-byte line: each span's packed pixels start on one.
constexpr size_t kLinePixels = 64 / sizeof(uint32_t);

// A picture's geometry as the row loop needs it. Sizes are checked so that
// every address computed from them fits the 32-bit buffer sizes the owners
// allocate; anything else is refused before a byte is touched.
struct Picture {
    int64_t width = 0;
    int64_t height = 0;
    size_t bytesPerPixel = 0;
    size_t stride = 0;
    PixelLayout layout = PixelLayout::Native;
    bool topDown = false;

    // Where memory row m of the bottom-up numbering starts, and the step to
    // the row above it.
    template <typename Byte>
    Byte* Row(Byte* data, int64_t m) const {
        return data + static_cast<size_t>(topDown ? height - 1 - m : m) * stride;
    }
    ptrdiff_t Step() const {
        return topDown ? -static_cast<ptrdiff_t>(stride) : static_cast<ptrdiff_t>(stride);
    }
};

template <typename Byte>
bool DescribePicture(const BasicPictureView<Byte>& view, Picture* out) {
    const int32_t bpp = view.bitsPerPixel;
    if (view.data == nullptr || (bpp != 24 && bpp != 32) || view.width <= 0 || view.height <= 0) {
        return false;
    }
    const uint64_t rowBytes = uint64_t{static_cast<uint32_t>(view.width)} * (bpp / 8);
    const uint64_t stride = view.strideBytes;
    if (stride < rowBytes || stride > kMaxU32 ||
        stride * static_cast<uint64_t>(view.height) > kMaxU32) {
        return false;
    }
    out->width = view.width;
    out->height = view.height;
    out->bytesPerPixel = static_cast<size_t>(bpp / 8);
    out->stride = static_cast<size_t>(stride);
    // A layout that does not fit the depth is no picture at all.
    const bool wide = view.layout == PixelLayout::Bgrx || view.layout == PixelLayout::Rgbx;
    if ((view.layout == PixelLayout::Rgb && bpp != 24) || (wide && bpp != 32)) {
        return false;
    }
    out->layout = view.layout;
    out->topDown = view.topDown;
    return true;
}

int64_t Clamp(int64_t v, int64_t lo, int64_t hi) {
    if (lo > hi) {
        const int64_t t = lo;
        lo = hi;
        hi = t;
    }
    if (v > hi) {
        v = hi;
    }
    if (v < lo) {
        v = lo;
    }
    return v;
}

// Rectangles after clamping to their pictures; 64-bit so that a rectangle
// made from a position plus a size never overflows.
struct Span {
    int64_t left;
    int64_t top;
    int64_t right;
    int64_t bottom;
};

Span ClampSpan(int64_t left, int64_t top, int64_t right, int64_t bottom, const Picture& pic) {
    return {Clamp(left, 0, pic.width), Clamp(top, 0, pic.height), Clamp(right, 0, pic.width),
            Clamp(bottom, 0, pic.height)};
}

enum class Operation { Blend, Copy };

// Sources are the library's own pictures; a host's frame of another layout
// is only blended into (nullptr: nothing to do).
RowKernel PickKernel(const PixelKernels& k, Operation op, const Picture& dst, const Picture& src) {
    const size_t dstBytes = dst.bytesPerPixel;
    const size_t srcBytes = src.bytesPerPixel;
    if (src.layout != PixelLayout::Native) {
        return nullptr;
    }
    if (dst.layout != PixelLayout::Native) {
        if (op != Operation::Blend || srcBytes != 4) {
            return nullptr;
        }
        switch (dst.layout) {
            case PixelLayout::Rgb:
                return k.blend32ToRgb24;
            case PixelLayout::Bgrx:
                return k.blend32ToBgrx;
            case PixelLayout::Rgbx:
                return k.blend32ToRgbx;
            case PixelLayout::Native:
                break;
        }
        return nullptr;
    }
    if (srcBytes == 4) {
        if (op == Operation::Blend) {
            return dstBytes == 4 ? k.blend32To32 : k.blend32To24;
        }
        return dstBytes == 4 ? k.copy32To32 : k.copy32To24;
    }
    if (dstBytes == 3) {
        return k.copy24To24;
    }
    return op == Operation::Blend ? k.copy24To32KeepAlpha : k.copy24To32Opaque;
}

ColourKernel PickColourKernel(const PixelKernels& k, const Picture& dst) {
    switch (dst.layout) {
        case PixelLayout::Rgb:
            return k.blendColourToRgb24;
        case PixelLayout::Bgrx:
            return k.blendColourToBgrx;
        case PixelLayout::Rgbx:
            return k.blendColourToRgbx;
        case PixelLayout::Native:
            break;
    }
    return dst.bytesPerPixel == 4 ? k.blendColourTo32 : k.blendColourTo24;
}

// Rows pair up from the two rectangles' last rows backwards and stop at the
// first negative row on either side; only the destination's left and bottom
// matter. The run is as wide as the source rectangle, cut at the
// destination's right edge.
void RunRows(const PixelKernels& kernels, Operation op, uint8_t* dst, const Picture& d,
             const Span& dRect, const uint8_t* src, const Picture& s, const Span& sRect) {
    // The source rectangle lies within [0, height], so its bottom row index
    // never runs out before the count of its rows does.
    int64_t rows = sRect.bottom - sRect.top;
    if (rows > dRect.bottom) {
        rows = dRect.bottom;
    }
    int64_t cols = sRect.right - sRect.left;
    if (cols > d.width - dRect.left) {
        cols = d.width - dRect.left;
    }
    if (rows <= 0 || cols <= 0) {
        return;
    }
    const RowKernel kernel = PickKernel(kernels, op, d, s);
    if (kernel == nullptr) {
        return;
    }
    // The first pair is the rectangles' lowest memory rows; each next pair
    // lies one row up in both pictures.
    uint8_t* dRow =
        d.Row(dst, dRect.bottom - rows) + static_cast<size_t>(dRect.left) * d.bytesPerPixel;
    const uint8_t* sRow =
        s.Row(src, sRect.bottom - rows) + static_cast<size_t>(sRect.left) * s.bytesPerPixel;
    ptrdiff_t sStep = s.Step();
    const ptrdiff_t dStep = d.Step();
    // When the two byte ranges overlap (one picture, two rectangles), the
    // source rows are read whole before anything is written, as memmove
    // would: the rows go through a copy of their own.
    const size_t sRowBytes = static_cast<size_t>(cols) * s.bytesPerPixel;
    const auto range = [rows](const void* first, ptrdiff_t step, size_t bytes) {
        const auto a = reinterpret_cast<uintptr_t>(first);
        const uintptr_t span =
            static_cast<uintptr_t>(rows - 1) * static_cast<uintptr_t>(step < 0 ? -step : step);
        return step < 0 ? std::make_pair(a - span, a + bytes) : std::make_pair(a, a + span + bytes);
    };
    const auto [sBegin, sEnd] = range(sRow, sStep, sRowBytes);
    const auto [dBegin, dEnd] = range(dRow, dStep, static_cast<size_t>(cols) * d.bytesPerPixel);
    std::vector<uint8_t> copy;
    if (sBegin < dEnd && dBegin < sEnd) {
        copy.resize(static_cast<size_t>(rows) * sRowBytes);
        for (int64_t k = 0; k < rows; ++k) {
            std::memcpy(copy.data() + static_cast<size_t>(k) * sRowBytes, sRow + k * sStep,
                        sRowBytes);
        }
        sRow = copy.data();
        sStep = static_cast<ptrdiff_t>(sRowBytes);
    }
    // The pairs are independent, so they run in memory order where the rows
    // lie bottom-up, which suits the hardware prefetchers.
    for (int64_t k = 0; k < rows; ++k) {
        kernel(dRow, sRow, static_cast<size_t>(cols));
        if (k + 1 < rows) {
            dRow += dStep;
            sRow += sStep;
        }
    }
}

// RunRows of a blend whose source is read through its runs: spans that show
// nothing are skipped, flat ones go through the colour kernel and the rest
// through the row kernel from the packed pixels. Nothing of the source
// picture itself is read, so it cannot overlap the destination.
void RunRowsOfRuns(const PixelKernels& kernels, uint8_t* dst, const Picture& d, const Span& dRect,
                   const Picture& s, const Span& sRect, const PictureRuns& runs) {
    const int64_t rows = std::min(sRect.bottom - sRect.top, dRect.bottom);
    const int64_t cols = std::min(sRect.right - sRect.left, d.width - dRect.left);
    const RowKernel kernel = PickKernel(kernels, Operation::Blend, d, s);
    const ColourKernel colourKernel = PickColourKernel(kernels, d);
    if (rows <= 0 || cols <= 0 || kernel == nullptr || colourKernel == nullptr) {
        return;
    }
    uint8_t* dRow =
        d.Row(dst, dRect.bottom - rows) + static_cast<size_t>(dRect.left) * d.bytesPerPixel;
    const int64_t left = sRect.left;
    const int64_t right = sRect.left + cols;
    for (int64_t k = 0; k < rows; ++k) {
        const auto m = static_cast<size_t>(sRect.bottom - rows + k);
        for (size_t i = runs.rowStarts[m]; i < runs.rowStarts[m + 1]; ++i) {
            const PictureRuns::Run& run = runs.runs[i];
            const int64_t begin = std::max<int64_t>(run.begin, left);
            const int64_t end = std::min<int64_t>(run.end, right);
            if (begin >= end) {
                continue;
            }
            uint8_t* out = dRow + static_cast<size_t>(begin - left) * d.bytesPerPixel;
            const auto count = static_cast<size_t>(end - begin);
            if (run.flat) {
                colourKernel(out, runs.colour, count);
            } else {
                const uint32_t* in = runs.pixels.data() + run.offset + (begin - run.begin);
                kernel(out, reinterpret_cast<const uint8_t*>(in), count);
            }
        }
        if (k + 1 < rows) {
            dRow += d.Step();
        }
    }
}

bool RunsDescribe(const PictureRuns& runs, const Picture& s) {
    return s.bytesPerPixel == 4 && runs.width == s.width && runs.height == s.height &&
           runs.rowStarts.size() == static_cast<size_t>(s.height) + 1;
}

// The rows of a rectangle operation, a blend through the source's runs when
// they describe it.
void RunSpans(const PixelKernels& kernels, Operation op, uint8_t* dst, const Picture& d,
              const Span& dRect, const uint8_t* src, const Picture& s, const Span& sRect,
              const PictureRuns* runs) {
    if (runs != nullptr && op == Operation::Blend && RunsDescribe(*runs, s)) {
        RunRowsOfRuns(kernels, dst, d, dRect, s, sRect, *runs);
    } else {
        RunRows(kernels, op, dst, d, dRect, src, s, sRect);
    }
}

void RunRect(const PixelKernels& kernels, Operation op, const PictureView& dst, const RECT& dstRect,
             const ConstPictureView& src, const RECT& srcRect, const PictureRuns* runs = nullptr) {
    Picture d;
    Picture s;
    if (!DescribePicture(dst, &d) || !DescribePicture(src, &s)) {
        return;
    }
    const Span dRect = ClampSpan(dstRect.left, dstRect.top, dstRect.right, dstRect.bottom, d);
    const Span sRect = ClampSpan(srcRect.left, srcRect.top, srcRect.right, srcRect.bottom, s);
    RunSpans(kernels, op, dst.data, d, dRect, src.data, s, sRect, runs);
}

void RunAt(const PixelKernels& kernels, const PictureView& dst, POINT pos,
           const ConstPictureView& src, const PictureRuns* runs = nullptr) {
    Picture d;
    Picture s;
    if (!DescribePicture(dst, &d) || !DescribePicture(src, &s)) {
        return;
    }
    // pos + size may leave the 32-bit range; clamping the 64-bit sum gives
    // what a wider RECT would have given.
    const Span dRect = ClampSpan(pos.x, pos.y, pos.x + s.width, pos.y + s.height, d);
    const Span sRect = {0, 0, s.width, s.height};
    RunSpans(kernels, Operation::Blend, dst.data, d, dRect, src.data, s, sRect, runs);
}

}  // namespace

void ClampRect(RECT* rect, int32_t x0, int32_t x1, int32_t y0, int32_t y1) {
    if (rect == nullptr) {
        return;
    }
    rect->left = static_cast<int32_t>(Clamp(rect->left, x0, x1));
    rect->right = static_cast<int32_t>(Clamp(rect->right, x0, x1));
    rect->top = static_cast<int32_t>(Clamp(rect->top, y0, y1));
    rect->bottom = static_cast<int32_t>(Clamp(rect->bottom, y0, y1));
}

const PixelKernels* SimdKernels() {
    static const PixelKernels* const best = [] {
        for (const PixelKernels* k : {Avx512Kernels(), Avx2Kernels(), Sse41Kernels()}) {
            if (k != nullptr) {
                return k;
            }
        }
        return static_cast<const PixelKernels*>(nullptr);
    }();
    return best;
}

const PixelKernels& ActiveKernels() {
    static const PixelKernels& active = SimdKernels() != nullptr ? *SimdKernels() : ScalarKernels();
    return active;
}

void BlendRectWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                   const ConstPictureView& src, const RECT& srcRect) {
    RunRect(kernels, Operation::Blend, dst, dstRect, src, srcRect);
}

void BlendAtWith(const PixelKernels& kernels, const PictureView& dst, POINT pos,
                 const ConstPictureView& src) {
    RunAt(kernels, dst, pos, src);
}

void CopyRectPixelsWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                        const ConstPictureView& src, const RECT& srcRect) {
    RunRect(kernels, Operation::Copy, dst, dstRect, src, srcRect);
}

void BlendRunsAtWith(const PixelKernels& kernels, const PictureView& dst, POINT pos,
                     const ConstPictureView& src, const PictureRuns& runs) {
    RunAt(kernels, dst, pos, src, &runs);
}

void BlendRectRunsWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                       const ConstPictureView& src, const RECT& srcRect, const PictureRuns& runs) {
    RunRect(kernels, Operation::Blend, dst, dstRect, src, srcRect, &runs);
}

void BlendRunsAt(const PictureView& dst, POINT pos, const ConstPictureView& src,
                 const PictureRuns& runs) {
    BlendRunsAtWith(ActiveKernels(), dst, pos, src, runs);
}

void BlendRectRuns(const PictureView& dst, const RECT& dstRect, const ConstPictureView& src,
                   const RECT& srcRect, const PictureRuns& runs) {
    BlendRectRunsWith(ActiveKernels(), dst, dstRect, src, srcRect, runs);
}

PictureRuns FindRuns(const ConstPictureView& picture, std::optional<uint32_t> flatColour) {
    PictureRuns runs;
    Picture p;
    if (!DescribePicture(picture, &p) || p.bytesPerPixel != 4) {
        return runs;
    }
    runs.width = static_cast<int32_t>(p.width);
    runs.height = static_cast<int32_t>(p.height);
    runs.colour = flatColour.value_or(0);
    runs.rowStarts.reserve(static_cast<size_t>(p.height) + 1);
    for (int64_t m = 0; m < p.height; ++m) {
        runs.rowStarts.push_back(runs.runs.size());
        const uint8_t* row = p.Row(picture.data, m);
        const auto pixel = [row](int64_t x) {
            uint32_t v = 0;
            std::memcpy(&v, row + x * 4, 4);
            return v;
        };
        // The row's longest run of the flat colour.
        int64_t flatBegin = 0;
        int64_t flatEnd = 0;
        if (flatColour) {
            for (int64_t x = 0, start = 0; x <= p.width; ++x) {
                if (x < p.width && pixel(x) == *flatColour) {
                    continue;
                }
                if (x - start > flatEnd - flatBegin) {
                    flatBegin = start;
                    flatEnd = x;
                }
                start = x + 1;
            }
        }
        // Pixels in pieces from each side's start. A piece that shows joins
        // the span before it across a gap narrower than kRunJoin pixels: a
        // span is cheaper to blend whole than to cut into short ones.
        const auto addPixels = [&](int64_t from, int64_t to) {
            for (int64_t x = from; x < to; x += kRunPiece) {
                const int64_t pieceEnd = std::min<int64_t>(x + kRunPiece, to);
                bool shows = false;
                for (int64_t i = x; i < pieceEnd && !shows; ++i) {
                    shows = row[i * 4 + 3] != 0;
                }
                if (!shows) {
                    continue;
                }
                const bool joins = runs.runs.size() > runs.rowStarts.back() &&
                                   !runs.runs.back().flat && runs.runs.back().end >= x - kRunJoin;
                if (!joins) {
                    runs.pixels.resize((runs.pixels.size() + kLinePixels - 1) / kLinePixels *
                                       kLinePixels);
                    runs.runs.push_back({static_cast<int32_t>(x), static_cast<int32_t>(x), false,
                                         runs.pixels.size()});
                }
                const int64_t begin = runs.runs.back().end;
                runs.runs.back().end = static_cast<int32_t>(pieceEnd);
                const size_t at = runs.pixels.size();
                runs.pixels.resize(at + static_cast<size_t>(pieceEnd - begin));
                std::memcpy(runs.pixels.data() + at, row + begin * 4,
                            static_cast<size_t>(pieceEnd - begin) * 4);
            }
        };
        addPixels(0, flatBegin);
        if (flatEnd > flatBegin) {
            runs.runs.push_back(
                {static_cast<int32_t>(flatBegin), static_cast<int32_t>(flatEnd), true, 0});
        }
        addPixels(flatEnd, p.width);
    }
    runs.rowStarts.push_back(runs.runs.size());
    return runs;
}

void BlendRect(const PictureView& dst, const RECT& dstRect, const ConstPictureView& src,
               const RECT& srcRect) {
    BlendRectWith(ActiveKernels(), dst, dstRect, src, srcRect);
}

void BlendAt(const PictureView& dst, POINT pos, const ConstPictureView& src) {
    BlendAtWith(ActiveKernels(), dst, pos, src);
}

void CopyRectPixels(const PictureView& dst, const RECT& dstRect, const ConstPictureView& src,
                    const RECT& srcRect) {
    CopyRectPixelsWith(ActiveKernels(), dst, dstRect, src, srcRect);
}

void BlendIntoFrame(const PictureView& frame, const RECT& clip, POINT pos,
                    const ConstPictureView& picture) {
    if (frame.data == nullptr || !IsFrameLayout(frame) || picture.data == nullptr ||
        picture.bitsPerPixel != 32 || picture.width <= 0 || picture.height <= 0) {
        return;
    }
    // 64-bit arithmetic throughout: positions near the 32-bit limits must not wrap.
    const int64_t left = std::max<int64_t>({std::min(clip.left, clip.right), 0, pos.x});
    const int64_t right = std::min<int64_t>(
        {std::max(clip.left, clip.right), frame.width, int64_t{pos.x} + picture.width});
    const int64_t top = std::max<int64_t>({std::min(clip.top, clip.bottom), 0, pos.y});
    const int64_t bottom = std::min<int64_t>(
        {std::max(clip.top, clip.bottom), frame.height, int64_t{pos.y} + picture.height});
    if (left >= right || top >= bottom) {
        return;
    }
    // Both pictures are stored bottom-up: top-down row y is memory row
    // height - 1 - y. The library's own blend does the pixels.
    const int64_t fh = frame.height;
    const int64_t ph = picture.height;
    const RECT dstRect{static_cast<int32_t>(left), static_cast<int32_t>(fh - bottom),
                       static_cast<int32_t>(right), static_cast<int32_t>(fh - top)};
    const RECT srcRect{
        static_cast<int32_t>(left - pos.x), static_cast<int32_t>(ph - (bottom - pos.y)),
        static_cast<int32_t>(right - pos.x), static_cast<int32_t>(ph - (top - pos.y))};
    BlendRect(frame, dstRect, picture, srcRect);
}

lumets_frame PackedFrame24(uint8_t* data, uint64_t width, uint64_t height) {
    if (width > INT32_MAX || height > INT32_MAX) {
        return lumets_frame{};
    }
    const auto w = static_cast<int32_t>(width);
    const auto h = static_cast<int32_t>(height);
    return lumets_frame{data,
                        w,
                        h,
                        static_cast<int64_t>(PackedPicture(data, w, h, 24).strideBytes),
                        LUMETS_FORMAT_BGR24,
                        LUMETS_FRAME_BOTTOM_UP};
}

PictureView FrameView(const lumets_frame* frame) {
    if (frame == nullptr || frame->data == nullptr || frame->width <= 0 || frame->height <= 0 ||
        (frame->flags & ~uint32_t{LUMETS_FRAME_BOTTOM_UP}) != 0) {
        return {};
    }
    static constexpr struct {
        int32_t bits;
        PixelLayout layout;
    } kFormats[] = {{24, PixelLayout::Native}, {24, PixelLayout::Rgb},  {32, PixelLayout::Bgrx},
                    {32, PixelLayout::Bgrx},   {32, PixelLayout::Rgbx}, {32, PixelLayout::Rgbx}};
    if (frame->format < LUMETS_FORMAT_BGR24 || frame->format > LUMETS_FORMAT_RGBA) {
        return {};
    }
    const auto& format = kFormats[frame->format - LUMETS_FORMAT_BGR24];
    // The magnitude of any int64 but the least fits uint64; that one is refused.
    if (frame->stride == INT64_MIN) {
        return {};
    }
    const uint64_t stride = frame->stride < 0 ? uint64_t(-frame->stride) : uint64_t(frame->stride);
    const uint64_t rowBytes = uint64_t(frame->width) * uint64_t(format.bits / 8);
    if (stride < rowBytes || stride > kMaxU32 || stride * uint64_t(frame->height) > kMaxU32) {
        return {};
    }
    // Rows lie top-down in memory when the host's row order and its stride's
    // sign agree; the view starts at the lowest address either way.
    const bool bottomUp = (frame->flags & LUMETS_FRAME_BOTTOM_UP) != 0;
    const bool negative = frame->stride < 0;
    auto* data = static_cast<uint8_t*>(frame->data);
    if (negative) {
        data -= static_cast<size_t>(stride) * static_cast<size_t>(frame->height - 1);
    }
    PictureView view{
        data,          frame->width,        frame->height, format.bits, static_cast<size_t>(stride),
        format.layout, bottomUp == negative};
    return view;
}

}  // namespace lumets
