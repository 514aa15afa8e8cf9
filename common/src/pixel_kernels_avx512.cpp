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

#include "lumets_common/pixel_kernels.h"

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

// ((255 - a) * d + s * a) / 255 for 64 bytes at once. The colour bytes are
// moved into the signed range (c - 128) so that one multiply-add of unsigned
// weights by signed bytes forms (255 - a) * d + a * s - 32640 for each byte
// pair without saturating; adding 32641 gives the exact sum x in [0, 65025]
// plus one, which mulhi(x + 1, 257) divides by 255 exactly. Unpacking
// and packing work within 128-bit lanes, so the byte order comes back as it was.
LUMETS_AVX512_INLINE __m512i Mix64Bytes(__m512i d, __m512i s, __m512i a) {
    const __m512i bias = _mm512_set1_epi8(static_cast<char>(0x80));
    const __m512i offset = _mm512_set1_epi16(32641);
    const __m512i magic = _mm512_set1_epi16(257);
    const __m512i ds = _mm512_xor_si512(d, bias);
    const __m512i ss = _mm512_xor_si512(s, bias);
    const __m512i inverse = _mm512_xor_si512(a, _mm512_set1_epi8(static_cast<char>(0xFF)));
    const __m512i pixelsLow = _mm512_unpacklo_epi8(ds, ss);
    const __m512i pixelsHigh = _mm512_unpackhi_epi8(ds, ss);
    const __m512i weightsLow = _mm512_unpacklo_epi8(inverse, a);
    const __m512i weightsHigh = _mm512_unpackhi_epi8(inverse, a);
    const __m512i sumLow = _mm512_add_epi16(_mm512_maddubs_epi16(weightsLow, pixelsLow), offset);
    const __m512i sumHigh = _mm512_add_epi16(_mm512_maddubs_epi16(weightsHigh, pixelsHigh), offset);
    const __m512i low = _mm512_mulhi_epu16(sumLow, magic);
    const __m512i high = _mm512_mulhi_epu16(sumHigh, magic);
    return _mm512_packus_epi16(low, high);
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
        // A step with anything to show mixes all its 192 bytes as three
        // registers, without branching on their contents: alpha 0 mixes to
        // the destination and 255 to the source exactly, and in text the
        // branches would mispredict more often than the mix costs.
        for (int k = 0; k < 3; ++k) {
            const __m512i a = _mm512_permutex2var_epi8(s[k], index[3 + k], s[k + 1]);
            const __mmask64 shown = _mm512_test_epi8_mask(a, a);
            if (shown == 0) {
                continue;
            }
            const __m512i colour = _mm512_permutex2var_epi8(s[k], index[k], s[k + 1]);
            _mm512_storeu_si512(dst + 64 * k,
                                Mix64Bytes(_mm512_loadu_si512(dst + 64 * k), colour, a));
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
