// Buffer sizing, rectangle clipping and row pairing; the per-row work is done
// by the kernel table of pixel_kernels.h.
#include "image/pixel_ops.h"

#include <cstddef>
#include <initializer_list>
#include <limits>
#include <new>

#include "image/pixel_kernels.h"

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

bool DescribePicture(const void* pixels, int32_t width, int32_t height, int32_t bpp, Picture* out) {
    if (pixels == nullptr || (bpp != 24 && bpp != 32) || width <= 0 || height <= 0) {
        return false;
    }
    const uint64_t bits = static_cast<uint64_t>(bpp) * static_cast<uint64_t>(width) + 31;
    if (bits > kMaxU32) {
        return false;  // RowStride's 32-bit arithmetic would wrap
    }
    const uint64_t stride = (bits & ~uint64_t{31}) / 8;
    if (stride * static_cast<uint64_t>(height) > kMaxU32) {
        return false;
    }
    out->width = width;
    out->height = height;
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
    // The pairs are independent, so they run from the lowest addresses up,
    // which suits the hardware prefetchers better than walking back.
    uint8_t* dRow = dst + static_cast<size_t>(dRect.bottom - rows) * d.stride +
                    static_cast<size_t>(dRect.left) * d.bytesPerPixel;
    const uint8_t* sRow = src + static_cast<size_t>(sRect.bottom - rows) * s.stride +
                          static_cast<size_t>(sRect.left) * s.bytesPerPixel;
    for (int64_t k = 0; k < rows; ++k) {
        kernel(dRow, sRow, static_cast<size_t>(cols));
        if (k + 1 < rows) {
            dRow += d.stride;
            sRow += s.stride;
        }
    }
}

void RunRect(const PixelKernels& kernels, Operation op, uint8_t* dst, int32_t dW, int32_t dH,
             int32_t dBpp, const RECT& dstRect, const uint8_t* src, int32_t sW, int32_t sH,
             int32_t sBpp, const RECT& srcRect) {
    Picture d;
    Picture s;
    if (!DescribePicture(dst, dW, dH, dBpp, &d) || !DescribePicture(src, sW, sH, sBpp, &s)) {
        return;
    }
    const Span dRect = ClampSpan(dstRect.left, dstRect.top, dstRect.right, dstRect.bottom, d);
    const Span sRect = ClampSpan(srcRect.left, srcRect.top, srcRect.right, srcRect.bottom, s);
    RunRows(kernels, op, dst, d, dRect, src, s, sRect);
}

}  // namespace

uint32_t RowStride(uint32_t width, uint32_t bitsPerPixel) {
    return ((bitsPerPixel * width + 31) & ~31u) / 8;
}

void EnsureBuffer(uint8_t** data, uint32_t* capacity, uint32_t width, uint32_t height,
                  uint32_t bitsPerPixel) {
    if (data == nullptr || capacity == nullptr) {
        return;
    }
    // A size that 32-bit arithmetic cannot hold cannot be allocated either;
    // letting it wrap would hand back a block smaller than the picture.
    const uint64_t bits = uint64_t{bitsPerPixel} * width + 31;
    const uint64_t needed64 = (bits & ~uint64_t{31}) / 8 * height;
    if (bits > kMaxU32 || needed64 > kMaxU32) {
        throw std::bad_alloc();
    }
    const uint32_t needed = static_cast<uint32_t>(needed64);
    if (*capacity >= needed) {
        return;
    }
    delete[] * data;
    *data = nullptr;
    *capacity = needed;
    *data = new uint8_t[needed];
}

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

void BlendRectWith(const PixelKernels& kernels, uint8_t* dst, int32_t dstWidth, int32_t dstHeight,
                   int32_t dstBpp, const RECT& dstRect, const uint8_t* src, int32_t srcWidth,
                   int32_t srcHeight, int32_t srcBpp, const RECT& srcRect) {
    RunRect(kernels, Operation::Blend, dst, dstWidth, dstHeight, dstBpp, dstRect, src, srcWidth,
            srcHeight, srcBpp, srcRect);
}

void BlendAtWith(const PixelKernels& kernels, uint8_t* dst, int32_t dstWidth, int32_t dstHeight,
                 int32_t dstBpp, POINT pos, const uint8_t* src, int32_t srcWidth, int32_t srcHeight,
                 int32_t srcBpp) {
    Picture d;
    Picture s;
    if (!DescribePicture(dst, dstWidth, dstHeight, dstBpp, &d) ||
        !DescribePicture(src, srcWidth, srcHeight, srcBpp, &s)) {
        return;
    }
    // pos + size may leave the 32-bit range; clamping the 64-bit sum gives
    // what a wider RECT would have given.
    const Span dRect =
        ClampSpan(pos.x, pos.y, int64_t{pos.x} + srcWidth, int64_t{pos.y} + srcHeight, d);
    const Span sRect = {0, 0, s.width, s.height};
    RunRows(kernels, Operation::Blend, dst, d, dRect, src, s, sRect);
}

void CopyRectPixelsWith(const PixelKernels& kernels, uint8_t* dst, int32_t dstWidth,
                        int32_t dstHeight, int32_t dstBpp, const RECT& dstRect, const uint8_t* src,
                        int32_t srcWidth, int32_t srcHeight, int32_t srcBpp, const RECT& srcRect) {
    RunRect(kernels, Operation::Copy, dst, dstWidth, dstHeight, dstBpp, dstRect, src, srcWidth,
            srcHeight, srcBpp, srcRect);
}

void BlendRect(uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstBpp,
               const RECT& dstRect, const uint8_t* src, int32_t srcWidth, int32_t srcHeight,
               int32_t srcBpp, const RECT& srcRect) {
    BlendRectWith(ActiveKernels(), dst, dstWidth, dstHeight, dstBpp, dstRect, src, srcWidth,
                  srcHeight, srcBpp, srcRect);
}

void BlendAt(uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstBpp, POINT pos,
             const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcBpp) {
    BlendAtWith(ActiveKernels(), dst, dstWidth, dstHeight, dstBpp, pos, src, srcWidth, srcHeight,
                srcBpp);
}

void CopyRectPixels(uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstBpp,
                    const RECT& dstRect, const uint8_t* src, int32_t srcWidth, int32_t srcHeight,
                    int32_t srcBpp, const RECT& srcRect) {
    CopyRectPixelsWith(ActiveKernels(), dst, dstWidth, dstHeight, dstBpp, dstRect, src, srcWidth,
                       srcHeight, srcBpp, srcRect);
}

}  // namespace lumets
