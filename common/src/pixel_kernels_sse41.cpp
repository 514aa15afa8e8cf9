// SSE4.1 row kernels for CPUs without AVX2: the arithmetic of the AVX2
// file's 16-pixel steps (see there), on 4 pixels a register. Built
// without -msse4.1; only the functions marked with the target attribute use
// the instructions.
#include <immintrin.h>

#include <cstring>

#include "lumets_common/pixel_kernels.h"

#define LUMETS_SSE41 __attribute__((target("sse4.1")))
#define LUMETS_SSE41_INLINE __attribute__((target("sse4.1"), always_inline)) inline

namespace lumets {
namespace {

constexpr size_t kStep = 16;

LUMETS_SSE41_INLINE __m128i AlphaMask() {
    return _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
}

struct Quad {
    __m128i v[4];
};

LUMETS_SSE41_INLINE __m128i Load(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

LUMETS_SSE41_INLINE void Store(uint8_t* p, __m128i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

LUMETS_SSE41_INLINE Quad Load32(const uint8_t* p) {
    return {{Load(p), Load(p + 16), Load(p + 32), Load(p + 48)}};
}

LUMETS_SSE41_INLINE void Store32(uint8_t* p, const Quad& q) {
    for (int i = 0; i < 4; ++i) {
        Store(p + 16 * i, q.v[i]);
    }
}

// 16 BGR pixels (48 bytes) as four registers of B, G, R, 0.
LUMETS_SSE41_INLINE Quad ExpandBgr16(const uint8_t* p) {
    const __m128i expand = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i v0 = Load(p);
    const __m128i v1 = Load(p + 16);
    const __m128i v2 = Load(p + 32);
    return {{_mm_shuffle_epi8(v0, expand), _mm_shuffle_epi8(_mm_alignr_epi8(v1, v0, 12), expand),
             _mm_shuffle_epi8(_mm_alignr_epi8(v2, v1, 8), expand),
             _mm_shuffle_epi8(_mm_srli_si128(v2, 4), expand)}};
}

// B, G, R of 16 four-byte pixels written as 48 bytes.
LUMETS_SSE41_INLINE void StoreBgr16(uint8_t* p, const Quad& q) {
    const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m128i c0 = _mm_shuffle_epi8(q.v[0], pack);
    const __m128i c1 = _mm_shuffle_epi8(q.v[1], pack);
    const __m128i c2 = _mm_shuffle_epi8(q.v[2], pack);
    const __m128i c3 = _mm_shuffle_epi8(q.v[3], pack);
    Store(p, _mm_or_si128(c0, _mm_slli_si128(c1, 12)));
    Store(p + 16, _mm_or_si128(_mm_srli_si128(c1, 4), _mm_slli_si128(c2, 8)));
    Store(p + 32, _mm_or_si128(_mm_srli_si128(c2, 8), _mm_slli_si128(c3, 4)));
}

LUMETS_SSE41_INLINE bool AllAlphaZero(const Quad& s) {
    const __m128i any = _mm_or_si128(_mm_or_si128(s.v[0], s.v[1]), _mm_or_si128(s.v[2], s.v[3]));
    return _mm_testz_si128(any, AlphaMask()) != 0;
}

LUMETS_SSE41_INLINE bool AllAlphaFull(const Quad& s) {
    const __m128i all = _mm_and_si128(_mm_and_si128(s.v[0], s.v[1]), _mm_and_si128(s.v[2], s.v[3]));
    return _mm_testc_si128(all, AlphaMask()) != 0;
}

// All four channels mixed; the result's alpha channel is meaningless.
LUMETS_SSE41_INLINE __m128i Blend4(__m128i d, __m128i s) {
    const __m128i alphaSpread =
        _mm_setr_epi8(3, 3, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15);
    const __m128i a = _mm_shuffle_epi8(s, alphaSpread);
    const __m128i inv = _mm_xor_si128(a, _mm_set1_epi8(-1));
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    const __m128i ds = _mm_xor_si128(d, bias);
    const __m128i ss = _mm_xor_si128(s, bias);
    const __m128i offset = _mm_set1_epi16(128 * 255 + 1);
    const __m128i magic = _mm_set1_epi16(257);
    __m128i lo = _mm_maddubs_epi16(_mm_unpacklo_epi8(inv, a), _mm_unpacklo_epi8(ds, ss));
    __m128i hi = _mm_maddubs_epi16(_mm_unpackhi_epi8(inv, a), _mm_unpackhi_epi8(ds, ss));
    lo = _mm_mulhi_epu16(_mm_add_epi16(lo, offset), magic);
    hi = _mm_mulhi_epu16(_mm_add_epi16(hi, offset), magic);
    return _mm_packus_epi16(lo, hi);
}

LUMETS_SSE41 void Blend32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 3 * kStep, src += 4 * kStep) {
        const Quad s = Load32(src);
        if (AllAlphaZero(s)) {
            continue;
        }
        if (AllAlphaFull(s)) {
            StoreBgr16(dst, s);
            continue;
        }
        const Quad d = ExpandBgr16(dst);
        StoreBgr16(dst, {{Blend4(d.v[0], s.v[0]), Blend4(d.v[1], s.v[1]), Blend4(d.v[2], s.v[2]),
                          Blend4(d.v[3], s.v[3])}});
    }
    ScalarKernels().blend32To24(dst, src, count - i);
}

LUMETS_SSE41_INLINE __m128i Blend4To32(__m128i d, __m128i s) {
    const __m128i alpha = AlphaMask();
    const __m128i mixed = _mm_blendv_epi8(Blend4(d, s), s, alpha);
    const __m128i keep = _mm_cmpeq_epi32(_mm_and_si128(s, alpha), _mm_setzero_si128());
    return _mm_blendv_epi8(mixed, d, keep);
}

LUMETS_SSE41 void Blend32To32(uint8_t* dst, const uint8_t* src, size_t count) {
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 4 * kStep, src += 4 * kStep) {
        const Quad s = Load32(src);
        if (AllAlphaZero(s)) {
            continue;
        }
        if (AllAlphaFull(s)) {
            Store32(dst, s);
            continue;
        }
        const Quad d = Load32(dst);
        Store32(dst, {{Blend4To32(d.v[0], s.v[0]), Blend4To32(d.v[1], s.v[1]),
                       Blend4To32(d.v[2], s.v[2]), Blend4To32(d.v[3], s.v[3])}});
    }
    ScalarKernels().blend32To32(dst, src, count - i);
}

LUMETS_SSE41 void Copy24To32KeepAlpha(uint8_t* dst, const uint8_t* src, size_t count) {
    const __m128i alpha = AlphaMask();
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 4 * kStep, src += 3 * kStep) {
        Quad p = ExpandBgr16(src);
        const Quad d = Load32(dst);
        for (int k = 0; k < 4; ++k) {
            p.v[k] = _mm_or_si128(p.v[k], _mm_and_si128(d.v[k], alpha));
        }
        Store32(dst, p);
    }
    ScalarKernels().copy24To32KeepAlpha(dst, src, count - i);
}

LUMETS_SSE41 void Copy24To32Opaque(uint8_t* dst, const uint8_t* src, size_t count) {
    const __m128i alpha = AlphaMask();
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 4 * kStep, src += 3 * kStep) {
        Quad p = ExpandBgr16(src);
        for (int k = 0; k < 4; ++k) {
            p.v[k] = _mm_or_si128(p.v[k], alpha);
        }
        Store32(dst, p);
    }
    ScalarKernels().copy24To32Opaque(dst, src, count - i);
}

LUMETS_SSE41 void Copy32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 3 * kStep, src += 4 * kStep) {
        StoreBgr16(dst, Load32(src));
    }
    ScalarKernels().copy32To24(dst, src, count - i);
}

}  // namespace

const PixelKernels* Sse41Kernels() {
    // Hosts' other layouts take the reference rows: CPUs without AVX2 are rare
    // among hosts that hand over such frames.
    static const PixelKernels kernels = {
        .name = "sse4.1",
        .blend32To24 = Blend32To24,
        .blend32To32 = Blend32To32,
        .blend32ToRgb24 = ScalarKernels().blend32ToRgb24,
        .blend32ToBgrx = ScalarKernels().blend32ToBgrx,
        .blend32ToRgbx = ScalarKernels().blend32ToRgbx,
        .copy24To24 = CopyRowBytes24,
        .copy24To32KeepAlpha = Copy24To32KeepAlpha,
        .copy24To32Opaque = Copy24To32Opaque,
        .copy32To24 = Copy32To24,
        .copy32To32 = CopyRowBytes32,
        .blendColourTo24 = ScalarKernels().blendColourTo24,
        .blendColourTo32 = ScalarKernels().blendColourTo32,
        .blendColourToRgb24 = ScalarKernels().blendColourToRgb24,
        .blendColourToBgrx = ScalarKernels().blendColourToBgrx,
        .blendColourToRgbx = ScalarKernels().blendColourToRgbx,
    };
    static const bool supported = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("sse4.1") != 0;
    }();
    return supported ? &kernels : nullptr;
}

}  // namespace lumets
