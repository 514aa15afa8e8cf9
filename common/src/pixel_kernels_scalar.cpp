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

// A host's frame: Step bytes a pixel, colours in B, G, R order or swapped to
// R, G, B, and a fourth byte (if any) that is never touched.
template <size_t Step, bool Swap>
void BlendRowToFrame(uint8_t* dst, const uint8_t* src, size_t count) {
    constexpr size_t b = Swap ? 2 : 0;
    constexpr size_t r = Swap ? 0 : 2;
    for (size_t i = 0; i < count; ++i, dst += Step, src += 4) {
        const int32_t a = src[3];
        if (a == 0) {
            continue;
        }
        if (a == 255) {
            dst[b] = src[0];
            dst[1] = src[1];
            dst[r] = src[2];
            continue;
        }
        dst[b] = static_cast<uint8_t>(((255 - a) * dst[b] + src[0] * a) / 255);
        dst[1] = static_cast<uint8_t>(((255 - a) * dst[1] + src[1] * a) / 255);
        dst[r] = static_cast<uint8_t>(((255 - a) * dst[r] + src[2] * a) / 255);
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

// A row of one source colour, as the blends above treat each pixel. Own: a
// 32-bit picture of the library's whose fourth byte takes the alpha; else a
// host's frame (B, G, R or swapped) whose fourth byte, if any, stays.
template <size_t Step, bool Swap, bool Own>
void BlendColourRow(uint8_t* dst, uint32_t bgra, size_t count) {
    const int32_t a = static_cast<int32_t>(bgra >> 24);
    if (a == 0) {
        return;
    }
    constexpr size_t b = Swap ? 2 : 0;
    constexpr size_t r = Swap ? 0 : 2;
    const int32_t blue = static_cast<int32_t>(bgra & 0xFF);
    const int32_t green = static_cast<int32_t>((bgra >> 8) & 0xFF);
    const int32_t red = static_cast<int32_t>((bgra >> 16) & 0xFF);
    const auto mix = [a](uint8_t d, int32_t c) {
        return static_cast<uint8_t>(a == 255 ? c : ((255 - a) * d + c * a) / 255);
    };
    for (size_t i = 0; i < count; ++i, dst += Step) {
        dst[b] = mix(dst[b], blue);
        dst[1] = mix(dst[1], green);
        dst[r] = mix(dst[r], red);
        if constexpr (Own) {
            dst[3] = static_cast<uint8_t>(a);
        }
    }
}

}  // namespace

const PixelKernels& ScalarKernels() {
    static const PixelKernels kernels = {
        .name = "scalar",
        .blend32To24 = Blend32To24,
        .blend32To32 = Blend32To32,
        .blend32ToRgb24 = BlendRowToFrame<3, true>,
        .blend32ToBgrx = BlendRowToFrame<4, false>,
        .blend32ToRgbx = BlendRowToFrame<4, true>,
        .copy24To24 = Copy24To24,
        .copy24To32KeepAlpha = Copy24To32KeepAlpha,
        .copy24To32Opaque = Copy24To32Opaque,
        .copy32To24 = Copy32To24,
        .copy32To32 = Copy32To32,
        .blendColourTo24 = BlendColourRow<3, false, false>,
        .blendColourTo32 = BlendColourRow<4, false, true>,
        .blendColourToRgb24 = BlendColourRow<3, true, false>,
        .blendColourToBgrx = BlendColourRow<4, false, false>,
        .blendColourToRgbx = BlendColourRow<4, true, false>,
    };
    return kernels;
}

}  // namespace lumets
