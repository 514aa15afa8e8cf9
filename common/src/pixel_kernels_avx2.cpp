// AVX2 row kernels. The file is built without -mavx2: only the functions
// marked with the target attribute use the instructions, so no shared inline
// code compiled for AVX2 can end up running on an older CPU. Each kernel
// calls _mm256_zeroupper() itself before it returns: GCC does not always emit
// it for target-attribute functions, and a dirty upper state slows every
// later SSE instruction several times over.
//
// Division by 255: for x in [0, 65025], x / 255 truncated is
// mulhi(x + 1, 257), the high half of (x + 1) * 257: with x = 255q + r the
// product is 65536q + 257 - q + 257r, whose high half is q for every q up to
// 255 and r up to 254. The + 1 rides on a constant the sum adds anyway, so
// the division is one multiply. Alpha 0 and 255 fall out of the blend
// formula unchanged (D and S), so a mixed block needs no per-pixel branches;
// whole blocks of alpha 0 are skipped and whole blocks of alpha 255 copied.
//
// Two forms of the weighted sum:
// - 16-pixel steps work on 4-byte pixels: with w = (255 - a, a) as unsigned
//   bytes and p = (D - 128, S - 128) as signed bytes, pmaddubsw gives
//   (255 - a) * D + a * S - 128 * 255 exactly (the sum lies in
//   [-32640, 32385], so it never saturates); adding 32641 gives x + 1.
// - the 32-pixel steps of the main path (32-bit into 24-bit) first pack colour
//   and alpha into the 24-bit layout and mix there with the same
//   multiply-add: fewer bytes to mix, and the shuffle unit, the bottleneck of
//   the first form, only packs.
#include <immintrin.h>

#include <array>
#include <cstring>

#include "lumets_common/pixel_kernels.h"

#define LUMETS_AVX2 __attribute__((target("avx2")))
#define LUMETS_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

namespace lumets {
namespace {

constexpr size_t kStep = 16;

LUMETS_AVX2_INLINE __m256i AlphaMask() {
    return _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
}

// Pixels 0..7 of a 16-pixel, 48-byte BGR block as B, G, R, 0. Reads bytes
// 0..31 of the block.
LUMETS_AVX2_INLINE __m256i ExpandBgrLow(const uint8_t* p) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i spread =
        _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 1, 2, 0, 3, 4, 5, 0));
    const __m256i expand = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0,
                                            1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    return _mm256_shuffle_epi8(spread, expand);
}

// Pixels 8..15 of the same block. Reads bytes 16..47, so never past it.
LUMETS_AVX2_INLINE __m256i ExpandBgrHigh(const uint8_t* p) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 16));
    const __m256i spread =
        _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(2, 3, 4, 0, 5, 6, 7, 0));
    const __m256i expand = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0,
                                            1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    return _mm256_shuffle_epi8(spread, expand);
}

// Writes B, G, R of 16 four-byte pixels (lo: 0..7, hi: 8..15) as 48 bytes.
LUMETS_AVX2_INLINE void StoreBgr16(uint8_t* p, __m256i lo, __m256i hi) {
    const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0,
                                          1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    // In each lane the 12 useful bytes are dwords 0..2 (lane 0) and 4..6
    // (lane 1); gather them into 24 contiguous bytes.
    const __m256i a = _mm256_shuffle_epi8(lo, pack);
    const __m256i b = _mm256_shuffle_epi8(hi, pack);
    const __m256i a24 = _mm256_permutevar8x32_epi32(a, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
    const __m256i bHead = _mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(0, 0, 0, 0, 0, 0, 0, 1));
    const __m256i bTail = _mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(2, 4, 5, 6, 0, 0, 0, 0));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), _mm256_blend_epi32(a24, bHead, 0xC0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 32), _mm256_castsi256_si128(bTail));
}

// Blends 8 source pixels over 8 destination pixels, all channels; the alpha
// channel of the result is meaningless and fixed up by the caller.
LUMETS_AVX2_INLINE __m256i Blend8(__m256i d, __m256i s) {
    const __m256i alphaSpread =
        _mm256_setr_epi8(3, 3, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15, 3, 3, 3, 3, 7, 7,
                         7, 7, 11, 11, 11, 11, 15, 15, 15, 15);
    const __m256i a = _mm256_shuffle_epi8(s, alphaSpread);
    const __m256i inv = _mm256_xor_si256(a, _mm256_set1_epi8(-1));
    const __m256i bias = _mm256_set1_epi8(static_cast<char>(0x80));
    const __m256i ds = _mm256_xor_si256(d, bias);
    const __m256i ss = _mm256_xor_si256(s, bias);
    const __m256i offset = _mm256_set1_epi16(128 * 255 + 1);
    const __m256i magic = _mm256_set1_epi16(257);
    __m256i lo = _mm256_maddubs_epi16(_mm256_unpacklo_epi8(inv, a), _mm256_unpacklo_epi8(ds, ss));
    __m256i hi = _mm256_maddubs_epi16(_mm256_unpackhi_epi8(inv, a), _mm256_unpackhi_epi8(ds, ss));
    lo = _mm256_mulhi_epu16(_mm256_add_epi16(lo, offset), magic);
    hi = _mm256_mulhi_epu16(_mm256_add_epi16(hi, offset), magic);
    return _mm256_packus_epi16(lo, hi);
}

// 32 four-byte pixels, each register already packed to 12 bytes a lane by a
// byte shuffle (dwords 0..2 and 4..6 hold data), as 96 contiguous bytes.
struct Row96 {
    __m256i v[3];
};

LUMETS_AVX2_INLINE Row96 Gather96(__m256i x0, __m256i x1, __m256i x2, __m256i x3) {
    // Each permute serves the two outputs its register straddles.
    const __m256i p0 = _mm256_permutevar8x32_epi32(x0, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 0, 0));
    const __m256i p1 = _mm256_permutevar8x32_epi32(x1, _mm256_setr_epi32(2, 4, 5, 6, 0, 0, 0, 1));
    const __m256i p2 = _mm256_permutevar8x32_epi32(x2, _mm256_setr_epi32(5, 6, 0, 0, 0, 1, 2, 4));
    const __m256i p3 = _mm256_permutevar8x32_epi32(x3, _mm256_setr_epi32(0, 0, 0, 1, 2, 4, 5, 6));
    return {{_mm256_blend_epi32(p0, p1, 0xC0), _mm256_blend_epi32(p1, p2, 0xF0),
             _mm256_blend_epi32(p2, p3, 0xFC)}};
}

LUMETS_AVX2_INLINE Row96 PackBytes96(const __m256i (&s)[4], __m256i pattern) {
    return Gather96(_mm256_shuffle_epi8(s[0], pattern), _mm256_shuffle_epi8(s[1], pattern),
                    _mm256_shuffle_epi8(s[2], pattern), _mm256_shuffle_epi8(s[3], pattern));
}

// The blend on 32 bytes already laid out as the 24-bit destination: colour
// bytes s and alpha bytes a sit over the destination bytes d they mix with.
LUMETS_AVX2_INLINE __m256i Mix32Bytes(__m256i d, __m256i s, __m256i a) {
    // Colour bytes moved into the signed range (c - 128): one multiply-add of
    // the unsigned weights (255 - a, a) by the byte pair (d, s) gives
    // (255 - a) * d + a * s - 32640 without saturating; adding 32641 leaves
    // the exact sum, plus one, for the exact division by 255.
    // Unpacking and packing stay within 128-bit lanes, so the order returns.
    const __m256i bias = _mm256_set1_epi8(static_cast<char>(0x80));
    const __m256i offset = _mm256_set1_epi16(32641);
    const __m256i magic = _mm256_set1_epi16(257);
    const __m256i ds = _mm256_xor_si256(d, bias);
    const __m256i ss = _mm256_xor_si256(s, bias);
    const __m256i inverse = _mm256_xor_si256(a, _mm256_set1_epi8(static_cast<char>(0xFF)));
    const __m256i sumLow = _mm256_add_epi16(
        _mm256_maddubs_epi16(_mm256_unpacklo_epi8(inverse, a), _mm256_unpacklo_epi8(ds, ss)),
        offset);
    const __m256i sumHigh = _mm256_add_epi16(
        _mm256_maddubs_epi16(_mm256_unpackhi_epi8(inverse, a), _mm256_unpackhi_epi8(ds, ss)),
        offset);
    return _mm256_packus_epi16(_mm256_mulhi_epu16(sumLow, magic),
                               _mm256_mulhi_epu16(sumHigh, magic));
}

LUMETS_AVX2 void Blend32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    const __m256i alpha = AlphaMask();
    const __m256i packColour =
        _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6,
                         8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i packAlpha =
        _mm256_setr_epi8(3, 3, 3, 7, 7, 7, 11, 11, 11, 15, 15, 15, -1, -1, -1, -1, 3, 3, 3, 7, 7, 7,
                         11, 11, 11, 15, 15, 15, -1, -1, -1, -1);
    size_t i = 0;
    for (; i + 32 <= count; i += 32, dst += 96, src += 128) {
        const __m256i s[4] = {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src)),
                              _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 32)),
                              _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 64)),
                              _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 96))};
        const __m256i any =
            _mm256_or_si256(_mm256_or_si256(s[0], s[1]), _mm256_or_si256(s[2], s[3]));
        if (_mm256_testz_si256(any, alpha)) {
            continue;
        }
        const Row96 colour = PackBytes96(s, packColour);
        const __m256i all =
            _mm256_and_si256(_mm256_and_si256(s[0], s[1]), _mm256_and_si256(s[2], s[3]));
        Row96 out = colour;
        if (_mm256_testc_si256(all, alpha)) {
            for (int k = 0; k < 3; ++k) {
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 32 * k), out.v[k]);
            }
            continue;
        }
        // A mixed step leaves its 32-byte pieces that show nothing alone.
        const Row96 weight = PackBytes96(s, packAlpha);
        for (int k = 0; k < 3; ++k) {
            if (_mm256_testz_si256(weight.v[k], weight.v[k])) {
                continue;
            }
            auto* at = reinterpret_cast<__m256i*>(dst + 32 * k);
            _mm256_storeu_si256(at, Mix32Bytes(_mm256_loadu_si256(at), colour.v[k], weight.v[k]));
        }
    }
    for (; i + kStep <= count; i += kStep, dst += 3 * kStep, src += 4 * kStep) {
        const __m256i s0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
        const __m256i s1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 32));
        if (_mm256_testz_si256(_mm256_or_si256(s0, s1), alpha)) {
            continue;
        }
        if (_mm256_testc_si256(_mm256_and_si256(s0, s1), alpha)) {
            StoreBgr16(dst, s0, s1);
            continue;
        }
        const __m256i d0 = ExpandBgrLow(dst);
        const __m256i d1 = ExpandBgrHigh(dst);
        StoreBgr16(dst, Blend8(d0, s0), Blend8(d1, s1));
    }
    _mm256_zeroupper();
    ScalarKernels().blend32To24(dst, src, count - i);
}

// Result alpha: the source's, except where it is 0 (the pixel stays as it
// was). The colour channels of Blend8 are already right in both cases.
LUMETS_AVX2_INLINE __m256i Blend8To32(__m256i d, __m256i s) {
    const __m256i alpha = AlphaMask();
    const __m256i mixed = _mm256_blendv_epi8(Blend8(d, s), s, alpha);
    const __m256i keep = _mm256_cmpeq_epi32(_mm256_and_si256(s, alpha), _mm256_setzero_si256());
    return _mm256_blendv_epi8(mixed, d, keep);
}

// 16 four-byte pixels a step: blocks of alpha 0 are skipped, the rest take
// Mix::Of(destination address, source, whole block opaque).
template <typename Mix>
LUMETS_AVX2_INLINE void BlendRow32(uint8_t* dst, const uint8_t* src, size_t count, RowKernel tail) {
    const __m256i alpha = AlphaMask();
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 4 * kStep, src += 4 * kStep) {
        const __m256i s0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
        const __m256i s1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 32));
        if (_mm256_testz_si256(_mm256_or_si256(s0, s1), alpha)) {
            continue;
        }
        const bool opaque = _mm256_testc_si256(_mm256_and_si256(s0, s1), alpha) != 0;
        const __m256i r0 = Mix::Of(dst, s0, opaque);
        const __m256i r1 = Mix::Of(dst + 32, s1, opaque);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), r0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 32), r1);
    }
    _mm256_zeroupper();
    tail(dst, src, count - i);
}

// The library's own pictures take the source's alpha.
struct MixInto32 {
    LUMETS_AVX2_INLINE static __m256i Of(const uint8_t* dst, __m256i s, bool opaque) {
        return opaque ? s
                      : Blend8To32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst)), s);
    }
};

// A host's 32-bit frame keeps its fourth byte whatever the source: the
// colours of Blend8 (or the source's, for a block of alpha 255) with the
// destination's fourth byte put back.
struct MixIntoHost32 {
    LUMETS_AVX2_INLINE static __m256i Of(const uint8_t* dst, __m256i s, bool opaque) {
        const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst));
        return _mm256_blendv_epi8(opaque ? s : Blend8(d, s), d, AlphaMask());
    }
};

LUMETS_AVX2 void Blend32To32(uint8_t* dst, const uint8_t* src, size_t count) {
    BlendRow32<MixInto32>(dst, src, count, ScalarKernels().blend32To32);
}

LUMETS_AVX2 void Blend32ToBgrx(uint8_t* dst, const uint8_t* src, size_t count) {
    BlendRow32<MixIntoHost32>(dst, src, count, ScalarKernels().blend32ToBgrx);
}

// R, G, B frames: the source's B and R swapped into a small block first, then
// blended by the B, G, R kernel, which then writes R where it wrote B.
template <size_t Step, RowKernel Blend>
LUMETS_AVX2 void BlendSwapped(uint8_t* dst, const uint8_t* src, size_t count) {
    constexpr size_t kBlock = 64;
    alignas(32) uint8_t swapped[4 * kBlock];
    const __m256i order = _mm256_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15, 2,
                                           1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
    while (count > 0) {
        const size_t n = count < kBlock ? count : kBlock;
        size_t j = 0;
        for (; j + 8 <= n; j += 8) {
            const __m256i s = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 4 * j));
            _mm256_store_si256(reinterpret_cast<__m256i*>(swapped + 4 * j),
                               _mm256_shuffle_epi8(s, order));
        }
        for (; j < n; ++j) {
            swapped[4 * j] = src[4 * j + 2];
            swapped[4 * j + 1] = src[4 * j + 1];
            swapped[4 * j + 2] = src[4 * j];
            swapped[4 * j + 3] = src[4 * j + 3];
        }
        _mm256_zeroupper();
        Blend(dst, swapped, n);
        dst += Step * n;
        src += 4 * n;
        count -= n;
    }
}

template <bool KeepAlpha>
LUMETS_AVX2_INLINE void Copy24To32Row(uint8_t* dst, const uint8_t* src, size_t count,
                                      RowKernel tail) {
    const __m256i alpha = AlphaMask();
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 4 * kStep, src += 3 * kStep) {
        __m256i p0 = ExpandBgrLow(src);
        __m256i p1 = ExpandBgrHigh(src);
        if constexpr (KeepAlpha) {
            const __m256i d0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst));
            const __m256i d1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst + 32));
            p0 = _mm256_or_si256(p0, _mm256_and_si256(d0, alpha));
            p1 = _mm256_or_si256(p1, _mm256_and_si256(d1, alpha));
        } else {
            p0 = _mm256_or_si256(p0, alpha);
            p1 = _mm256_or_si256(p1, alpha);
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), p0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 32), p1);
    }
    _mm256_zeroupper();
    tail(dst, src, count - i);
}

LUMETS_AVX2 void Copy24To32KeepAlpha(uint8_t* dst, const uint8_t* src, size_t count) {
    Copy24To32Row<true>(dst, src, count, ScalarKernels().copy24To32KeepAlpha);
}

LUMETS_AVX2 void Copy24To32Opaque(uint8_t* dst, const uint8_t* src, size_t count) {
    Copy24To32Row<false>(dst, src, count, ScalarKernels().copy24To32Opaque);
}

LUMETS_AVX2 void Copy32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 3 * kStep, src += 4 * kStep) {
        StoreBgr16(dst, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src)),
                   _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 32)));
    }
    _mm256_zeroupper();
    ScalarKernels().copy32To24(dst, src, count - i);
}

// Within a 16-byte lane, the byte of each position of a 96-byte run of
// 3-byte pixels that starts a pixel at byte 0: 0, 1, 2, 0, ...
constexpr std::array<std::array<uint8_t, 32>, 3> kRepeat3 = [] {
    std::array<std::array<uint8_t, 32>, 3> index{};
    for (size_t k = 0; k < 3; ++k) {
        for (size_t j = 0; j < 32; ++j) {
            index[k][j] = static_cast<uint8_t>((32 * k + j) % 3);
        }
    }
    return index;
}();

// A row of one source colour, 32 bytes at a time with nothing to load but
// the destination: the colour is laid out as the destination's bytes once (a
// 96-byte run for 3-byte pixels, whose 32-byte pieces start at byte 0, 32 and
// 64 of it) with its share c * a of each byte, and each piece is
// ((255 - a) * d + c * a) / 255 exactly, as in the blends above. Own: the
// fourth byte takes the alpha; otherwise a 4-byte pixel's fourth byte stays.
template <size_t Step, bool Swap, bool Own>
LUMETS_AVX2 void BlendColourRow(uint8_t* dst, uint32_t bgra, size_t count) {
    const uint32_t a = bgra >> 24;
    if (a == 0) {
        return;
    }
    constexpr size_t kPieces = Step == 3 ? 3 : 1;
    constexpr size_t kPixels = 32 * kPieces / Step;
    const uint32_t blue = bgra & 0xFF;
    const uint32_t red = (bgra >> 16) & 0xFF;
    const uint32_t pixel = (Swap ? blue << 16 | red : bgra & 0xFF00FF) | (bgra & 0xFF00FF00);
    const __m256i colour = _mm256_set1_epi32(static_cast<int32_t>(pixel));
    const __m256i zero = _mm256_setzero_si256();
    // The bytes that are not mixed: a 4-byte pixel's fourth.
    const __m256i fourth = Step == 4 ? AlphaMask() : zero;
    const __m256i weight = _mm256_set1_epi16(static_cast<int16_t>(255 - a));
    const __m256i magic = _mm256_set1_epi16(257);
    const __m256i one = _mm256_set1_epi16(1);
    __m256i fill[kPieces];
    __m256i shareLow[kPieces];
    __m256i shareHigh[kPieces];
    for (size_t k = 0; k < kPieces; ++k) {
        // Every lane holds the pixel four times: a byte shuffle lays it out.
        fill[k] = Step == 4 ? colour
                            : _mm256_shuffle_epi8(
                                  colour, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(
                                              kRepeat3[k].data())));
        const __m256i alpha = _mm256_set1_epi16(static_cast<int16_t>(a));
        // c * a + 1: the division's + 1 rides on the colour's share.
        shareLow[k] =
            _mm256_add_epi16(_mm256_mullo_epi16(_mm256_unpacklo_epi8(fill[k], zero), alpha), one);
        shareHigh[k] =
            _mm256_add_epi16(_mm256_mullo_epi16(_mm256_unpackhi_epi8(fill[k], zero), alpha), one);
    }
    constexpr ColourKernel PixelKernels::*kScalar =
        Step == 3 ? (Swap ? &PixelKernels::blendColourToRgb24 : &PixelKernels::blendColourTo24)
        : Own     ? &PixelKernels::blendColourTo32
        : Swap    ? &PixelKernels::blendColourToRgbx
                  : &PixelKernels::blendColourToBgrx;
    size_t i = 0;
    for (; i + kPixels <= count; i += kPixels, dst += 32 * kPieces) {
        for (size_t k = 0; k < kPieces; ++k) {
            auto* at = reinterpret_cast<__m256i*>(dst + 32 * k);
            const __m256i d = _mm256_loadu_si256(at);
            __m256i out = fill[k];
            if (a != 255) {
                const __m256i low = _mm256_add_epi16(
                    _mm256_mullo_epi16(_mm256_unpacklo_epi8(d, zero), weight), shareLow[k]);
                const __m256i high = _mm256_add_epi16(
                    _mm256_mullo_epi16(_mm256_unpackhi_epi8(d, zero), weight), shareHigh[k]);
                out = _mm256_packus_epi16(_mm256_mulhi_epu16(low, magic),
                                          _mm256_mulhi_epu16(high, magic));
            }
            if constexpr (Step == 4) {
                out = _mm256_blendv_epi8(out, Own ? fill[k] : d, fourth);
            }
            _mm256_storeu_si256(at, out);
        }
    }
    _mm256_zeroupper();
    (ScalarKernels().*kScalar)(dst, bgra, count - i);
}

}  // namespace

const PixelKernels* Avx2Kernels() {
    static const PixelKernels kernels = {
        .name = "avx2",
        .blend32To24 = Blend32To24,
        .blend32To32 = Blend32To32,
        .blend32ToRgb24 = BlendSwapped<3, Blend32To24>,
        .blend32ToBgrx = Blend32ToBgrx,
        .blend32ToRgbx = BlendSwapped<4, Blend32ToBgrx>,
        .copy24To24 = CopyRowBytes24,
        .copy24To32KeepAlpha = Copy24To32KeepAlpha,
        .copy24To32Opaque = Copy24To32Opaque,
        .copy32To24 = Copy32To24,
        .copy32To32 = CopyRowBytes32,
        .blendColourTo24 = BlendColourRow<3, false, false>,
        .blendColourTo32 = BlendColourRow<4, false, true>,
        .blendColourToRgb24 = BlendColourRow<3, true, false>,
        .blendColourToBgrx = BlendColourRow<4, false, false>,
        .blendColourToRgbx = BlendColourRow<4, true, false>,
    };
    static const bool supported = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") != 0;
    }();
    return supported ? &kernels : nullptr;
}

}  // namespace lumets
