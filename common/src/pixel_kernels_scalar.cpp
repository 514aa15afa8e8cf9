// The reference row kernels: one pixel at a time, written to be read. The SIMD
// variants must produce exactly these bytes.
#include <cstring>

#include "lumets_common/pixel_kernels.h"

namespace lumets {
namespace {

template <size_t DstBytes>
void BlendRow32(uint8_t* dst, const uint8_t* src, size_t count) {
    for (size_t i = 0; i < count; ++i, dst += DstBytes, src += 4) {
        const int32_t a = src[3];
        if (a == 0) {
            continue;
        }
        if (a == 255) {
            dst[0] = src[0];
            dst[1] = src[1];
            dst[2] = src[2];
            if constexpr (DstBytes == 4) {
                dst[3] = 255;
            }
            continue;
        }
        // The weighted sum is at most 255 * 255, so the truncated quotient
        // always fits a byte.
        for (size_t c = 0; c < 3; ++c) {
            dst[c] = static_cast<uint8_t>(((255 - a) * dst[c] + src[c] * a) / 255);
        }
        if constexpr (DstBytes == 4) {
            dst[3] = static_cast<uint8_t>(a);
        }
    }
}

void Blend32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    BlendRow32<3>(dst, src, count);
}

void Blend32To32(uint8_t* dst, const uint8_t* src, size_t count) {
    BlendRow32<4>(dst, src, count);
}

void Copy24To24(uint8_t* dst, const uint8_t* src, size_t count) {
    std::memcpy(dst, src, count * 3);
}

void Copy24To32KeepAlpha(uint8_t* dst, const uint8_t* src, size_t count) {
    for (size_t i = 0; i < count; ++i, dst += 4, src += 3) {
        dst[0] = src[0];
        dst[1] = src[1];
        dst[2] = src[2];
    }
}

void Copy24To32Opaque(uint8_t* dst, const uint8_t* src, size_t count) {
    for (size_t i = 0; i < count; ++i, dst += 4, src += 3) {
        dst[0] = src[0];
        dst[1] = src[1];
        dst[2] = src[2];
        dst[3] = 255;
    }
}

void Copy32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    for (size_t i = 0; i < count; ++i, dst += 3, src += 4) {
        dst[0] = src[0];
        dst[1] = src[1];
        dst[2] = src[2];
    }
}

void Copy32To32(uint8_t* dst, const uint8_t* src, size_t count) {
    std::memcpy(dst, src, count * 4);
}

}  // namespace

const PixelKernels& ScalarKernels() {
    static const PixelKernels kernels = {
        "scalar",         Blend32To24, Blend32To32, Copy24To24, Copy24To32KeepAlpha,
        Copy24To32Opaque, Copy32To24,  Copy32To32,
    };
    return kernels;
}

}  // namespace lumets
