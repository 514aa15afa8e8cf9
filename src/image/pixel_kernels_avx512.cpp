// AVX-512 variant of the main path, 32-bit pixels blended into a 24-bit row,
// 64 pixels a step; every other kernel is the AVX2 one. It needs AVX512BW for
// 16-bit arithmetic on 64-byte registers and AVX512VBMI for the two-register
// byte permute that turns 32-bit pixels into 24-bit rows in one instruction.
// CPUs with VBMI do not lower their clock much for 512-bit work, unlike the
// first AVX-512 generation, which lacks it and so never takes this path.
//
// Built without -mavx512*: only the functions marked with the target
// attribute use the instructions. The mix is the 24-bit-layout one of the
// AVX2 main path; the upper state is cleared before returning, as there.
#include <immintrin.h>

#include <array>

#include "image/pixel_kernels.h"

#define LUMETS_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi")))
#define LUMETS_AVX512_INLINE \
    __attribute__((target("avx512f,avx512bw,avx512vbmi"), always_inline)) inline

namespace lumets {
namespace {

constexpr size_t kStep = 64;

// Byte indexes for output register k of a 64-pixel step (bytes 64k .. 64k+63
// of the 192-byte 24-bit run), taken from source registers k and k + 1: the
// colour byte of each position, or the alpha of the pixel it belongs to.
constexpr std::array<uint8_t, 64> PackIndex(int k, bool alpha) {
    std::array<uint8_t, 64> index{};
    for (int j = 0; j < 64; ++j) {
        const int position = 64 * k + j;
        const int pixel = position / 3;
        const int byte = 4 * pixel + (alpha ? 3 : position % 3);
        index[static_cast<size_t>(j)] = static_cast<uint8_t>(byte - 64 * k);
    }
    return index;
}

constexpr std::array<std::array<uint8_t, 64>, 6> kPack = {
    PackIndex(0, false), PackIndex(1, false), PackIndex(2, false),
    PackIndex(0, true),  PackIndex(1, true),  PackIndex(2, true),
};

LUMETS_AVX512_INLINE __m512i Mix64Bytes(__m512i d, __m512i s, __m512i a) {
    const __m512i low = _mm512_set1_epi16(0x00FF);
    const __m512i magic = _mm512_set1_epi16(static_cast<int16_t>(0x8081));
    const __m512i ae = _mm512_and_si512(a, low);
    const __m512i ao = _mm512_srli_epi16(a, 8);
    const __m512i xe =
        _mm512_add_epi16(_mm512_mullo_epi16(_mm512_and_si512(d, low), _mm512_xor_si512(ae, low)),
                         _mm512_mullo_epi16(_mm512_and_si512(s, low), ae));
    const __m512i xo =
        _mm512_add_epi16(_mm512_mullo_epi16(_mm512_srli_epi16(d, 8), _mm512_xor_si512(ao, low)),
                         _mm512_mullo_epi16(_mm512_srli_epi16(s, 8), ao));
    const __m512i qe = _mm512_srli_epi16(_mm512_mulhi_epu16(xe, magic), 7);
    const __m512i qo = _mm512_and_si512(_mm512_slli_epi16(_mm512_mulhi_epu16(xo, magic), 1),
                                        _mm512_set1_epi16(static_cast<int16_t>(0xFF00)));
    return _mm512_or_si512(qe, qo);
}

LUMETS_AVX512 void Blend32To24(uint8_t* dst, const uint8_t* src, size_t count) {
    const __m512i alpha = _mm512_set1_epi32(static_cast<int32_t>(0xFF000000u));
    __m512i index[6];
    for (int k = 0; k < 6; ++k) {
        index[k] = _mm512_loadu_si512(kPack[static_cast<size_t>(k)].data());
    }
    size_t i = 0;
    for (; i + kStep <= count; i += kStep, dst += 3 * kStep, src += 4 * kStep) {
        const __m512i s[4] = {_mm512_loadu_si512(src), _mm512_loadu_si512(src + 64),
                              _mm512_loadu_si512(src + 128), _mm512_loadu_si512(src + 192)};
        const __m512i any =
            _mm512_or_si512(_mm512_or_si512(s[0], s[1]), _mm512_or_si512(s[2], s[3]));
        if (_mm512_test_epi32_mask(any, alpha) == 0) {
            continue;
        }
        // A step mixes its 192 bytes as three registers of about 21 pixels;
        // each is skipped or copied on its own, which pays off on text where
        // a stem or two pass through an otherwise empty step.
        for (int k = 0; k < 3; ++k) {
            const __m512i a = _mm512_permutex2var_epi8(s[k], index[3 + k], s[k + 1]);
            const __mmask64 visible = _mm512_test_epi8_mask(a, a);
            if (visible == 0) {
                continue;
            }
            __m512i out = _mm512_permutex2var_epi8(s[k], index[k], s[k + 1]);
            if (_mm512_cmpneq_epi8_mask(a, _mm512_set1_epi8(-1)) != 0) {
                out = Mix64Bytes(_mm512_loadu_si512(dst + 64 * k), out, a);
            }
            _mm512_storeu_si512(dst + 64 * k, out);
        }
    }
    _mm256_zeroupper();
    Avx2Kernels()->blend32To24(dst, src, count - i);
}

}  // namespace

const PixelKernels* Avx512Kernels() {
    static const bool supported = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi") &&
               Avx2Kernels() != nullptr;
    }();
    if (!supported) {
        return nullptr;
    }
    static const PixelKernels kernels = [] {
        PixelKernels k = *Avx2Kernels();
        k.name = "avx512";
        k.blend32To24 = Blend32To24;
        return k;
    }();
    return &kernels;
}

}  // namespace lumets
