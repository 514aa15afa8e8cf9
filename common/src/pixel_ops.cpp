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

// A picture's geometry as the row loop needs it. Sizes are checked so that
// every address computed from them fits the 32-bit buffer sizes the owners
// allocate; anything else is refused before a byte is touched.
struct Picture {
    int64_t width = 0;
    int64_t height = 0;
    size_t bytesPerPixel = 0;
    size_t stride = 0;
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

RowKernel PickKernel(const PixelKernels& k, Operation op, size_t dstBytes, size_t srcBytes) {
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
    const RowKernel kernel = PickKernel(kernels, op, d.bytesPerPixel, s.bytesPerPixel);
    uint8_t* dRow = dst + static_cast<size_t>(dRect.bottom - rows) * d.stride +
                    static_cast<size_t>(dRect.left) * d.bytesPerPixel;
    const uint8_t* sRow = src + static_cast<size_t>(sRect.bottom - rows) * s.stride +
                          static_cast<size_t>(sRect.left) * s.bytesPerPixel;
    size_t sStride = s.stride;
    // When the two byte ranges overlap (one picture, two rectangles), the
    // source rows are read whole before anything is written, as memmove
    // would: the rows go through a copy of their own.
    const size_t sRowBytes = static_cast<size_t>(cols) * s.bytesPerPixel;
    const auto sBegin = reinterpret_cast<uintptr_t>(sRow);
    const auto dBegin = reinterpret_cast<uintptr_t>(dRow);
    const uintptr_t sEnd = sBegin + static_cast<size_t>(rows - 1) * s.stride + sRowBytes;
    const uintptr_t dEnd = dBegin + static_cast<size_t>(rows - 1) * d.stride +
                           static_cast<size_t>(cols) * d.bytesPerPixel;
    std::vector<uint8_t> copy;
    if (sBegin < dEnd && dBegin < sEnd) {
        copy.resize(static_cast<size_t>(rows) * sRowBytes);
        for (int64_t k = 0; k < rows; ++k) {
            std::memcpy(copy.data() + static_cast<size_t>(k) * sRowBytes,
                        sRow + static_cast<size_t>(k) * s.stride, sRowBytes);
        }
        sRow = copy.data();
        sStride = sRowBytes;
    }
    // The pairs are independent, so they run from the lowest addresses up,
    // which suits the hardware prefetchers better than walking back.
    for (int64_t k = 0; k < rows; ++k) {
        kernel(dRow, sRow, static_cast<size_t>(cols));
        if (k + 1 < rows) {
            dRow += d.stride;
            sRow += sStride;
        }
    }
}

void RunRect(const PixelKernels& kernels, Operation op, const PictureView& dst, const RECT& dstRect,
             const ConstPictureView& src, const RECT& srcRect) {
    Picture d;
    Picture s;
    if (!DescribePicture(dst, &d) || !DescribePicture(src, &s)) {
        return;
    }
    const Span dRect = ClampSpan(dstRect.left, dstRect.top, dstRect.right, dstRect.bottom, d);
    const Span sRect = ClampSpan(srcRect.left, srcRect.top, srcRect.right, srcRect.bottom, s);
    RunRows(kernels, op, dst.data, d, dRect, src.data, s, sRect);
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
    Picture d;
    Picture s;
    if (!DescribePicture(dst, &d) || !DescribePicture(src, &s)) {
        return;
    }
    // pos + size may leave the 32-bit range; clamping the 64-bit sum gives
    // what a wider RECT would have given.
    const Span dRect = ClampSpan(pos.x, pos.y, pos.x + s.width, pos.y + s.height, d);
    const Span sRect = {0, 0, s.width, s.height};
    RunRows(kernels, Operation::Blend, dst.data, d, dRect, src.data, s, sRect);
}

void CopyRectPixelsWith(const PixelKernels& kernels, const PictureView& dst, const RECT& dstRect,
                        const ConstPictureView& src, const RECT& srcRect) {
    RunRect(kernels, Operation::Copy, dst, dstRect, src, srcRect);
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

void BlendIntoFrame24(const PictureView& frame, const RECT& clip, POINT pos,
                      const ConstPictureView& picture) {
    if (frame.data == nullptr || frame.bitsPerPixel != 24 || picture.data == nullptr ||
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

}  // namespace lumets
