// Every SIMD kernel table against the scalar reference, byte for byte: whole
// operations on random geometry, rows wide enough for several steps of every
// variant, with every alpha pattern. The blend arithmetic is also checked for
// every (a, D, S).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <vector>

#include "lumets_common/pixel_kernels.h"

namespace lumets {
namespace {

// Best first.
std::vector<const PixelKernels*> SupportedSimdTables() {
    std::vector<const PixelKernels*> tables;
    for (const PixelKernels* k : {Avx512Kernels(), Avx2Kernels(), Sse41Kernels()}) {
        if (k != nullptr) {
            tables.push_back(k);
        }
    }
    return tables;
}

enum class Alphas { Uniform, TextLike, Transparent, Opaque, ZeroOrFull, PartialOnly };

// Alpha runs of one kind. TextLike is what text gives: mostly transparent,
// some opaque strokes and short anti-aliased edges.
void FillAlphas(uint8_t* pixels, size_t count, Alphas kind, std::mt19937& rng) {
    for (size_t i = 0; i < count;) {
        const uint32_t pick = rng() % 10;
        const bool edge = kind == Alphas::PartialOnly || (kind == Alphas::TextLike && pick == 9);
        size_t run = edge ? 1 + rng() % 3 : 1;
        uint8_t a = static_cast<uint8_t>(rng());  // Uniform
        if (kind == Alphas::Transparent || kind == Alphas::Opaque) {
            a = kind == Alphas::Opaque ? 255 : 0;
        } else if (kind == Alphas::ZeroOrFull || kind == Alphas::TextLike) {
            run = edge ? run : 1 + rng() % (kind == Alphas::TextLike ? 24 : 20);
            a = (kind == Alphas::TextLike ? pick >= 7 : (rng() & 1) != 0) ? 255 : 0;
        }
        for (size_t k = 0; k < run && i < count; ++k, ++i) {
            pixels[4 * i + 3] = edge ? static_cast<uint8_t>(1 + rng() % 254) : a;
        }
    }
}

std::vector<uint8_t> RandomBytes(size_t count, std::mt19937& rng) {
    std::vector<uint8_t> bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&rng] { return static_cast<uint8_t>(rng()); });
    return bytes;
}

// The blend of every source alpha, destination and source value, run through
// long rows of every table and compared with the rule written out.
TEST(PixelKernels, BlendArithmeticIsExactForEveryAlphaAndValue) {
    std::vector<const PixelKernels*> tables = SupportedSimdTables();
    tables.push_back(&ScalarKernels());
    constexpr size_t kCount = 256 * 256;
    constexpr size_t kPiece = 64 + 32 + 16 + 7;
    std::vector<uint8_t> src(kCount * 4);
    std::vector<uint8_t> dst24(kCount * 3);
    std::vector<uint8_t> dst32(kCount * 4);
    for (const PixelKernels* k : tables) {
        SCOPED_TRACE(k->name);
        for (int a = 0; a < 256; ++a) {
            for (size_t i = 0; i < kCount; ++i) {
                const uint8_t d = static_cast<uint8_t>(i & 255);
                const uint8_t s = static_cast<uint8_t>(i >> 8);
                // Blue and red see (D, S), green the pair swapped.
                const uint8_t source[4] = {s, d, s, static_cast<uint8_t>(a)};
                const uint8_t destination[4] = {d, s, d, static_cast<uint8_t>(~i)};
                std::memcpy(&src[4 * i], source, 4);
                std::memcpy(&dst24[3 * i], destination, 3);
                std::memcpy(&dst32[4 * i], destination, 4);
            }
            // Pieces of 119 pixels pass through every step width a variant
            // has (64, 32, 16 and the scalar tail).
            for (size_t at = 0; at < kCount; at += kPiece) {
                const size_t n = std::min(kPiece, kCount - at);
                k->blend32To24(dst24.data() + 3 * at, src.data() + 4 * at, n);
                k->blend32To32(dst32.data() + 4 * at, src.data() + 4 * at, n);
            }
            size_t bad = 0;
            for (size_t i = 0; i < kCount && bad < 5; ++i) {
                const int d = static_cast<int>(i & 255);
                const int s = static_cast<int>(i >> 8);
                const int mixed = ((255 - a) * d + s * a) / 255;
                const int swapped = ((255 - a) * s + d * a) / 255;
                const int alphaOut = a == 0 ? static_cast<uint8_t>(~i) : a;
                const bool ok = dst24[3 * i] == mixed && dst24[3 * i + 1] == swapped &&
                                dst24[3 * i + 2] == mixed && dst32[4 * i] == mixed &&
                                dst32[4 * i + 1] == swapped && dst32[4 * i + 2] == mixed &&
                                dst32[4 * i + 3] == alphaOut;
                if (!ok) {
                    ++bad;
                    ADD_FAILURE() << "a " << a << " D " << d << " S " << s;
                }
            }
            if (bad != 0) {
                return;
            }
        }
    }
}

// Whole operations on random geometry, rectangles and positions often far
// outside the pictures, rows starting at every alignment: every table gives
// the scalar bytes, so none writes outside its row, and no table touches a
// byte outside the exact-size buffers (the sanitizer build sees it).
TEST(PixelKernels, OperationsMatchScalarOnRandomGeometry) {
    const std::vector<const PixelKernels*> tables = SupportedSimdTables();
    std::mt19937 rng(99);
    auto coord = [&rng](int32_t size) {
        // Mostly near the picture, sometimes far outside it.
        if (rng() % 16 == 0) {
            const int32_t far[] = {INT32_MIN, INT32_MIN + 1, -100000,
                                   100000,    INT32_MAX - 1, INT32_MAX};
            return far[rng() % 6];
        }
        return static_cast<int32_t>(rng() % static_cast<uint32_t>(size + 41)) - 20;
    };
    const Alphas patterns[] = {Alphas::Uniform, Alphas::TextLike,   Alphas::Transparent,
                               Alphas::Opaque,  Alphas::ZeroOrFull, Alphas::PartialOnly};
    for (int iteration = 0; iteration < 3000; ++iteration) {
        // Up to 200 pixels: the 64-pixel steps run more than once, then a tail.
        const int32_t dW = 1 + static_cast<int32_t>(rng() % 200);
        const int32_t dH = 1 + static_cast<int32_t>(rng() % 24);
        const int32_t sW = 1 + static_cast<int32_t>(rng() % 200);
        const int32_t sH = 1 + static_cast<int32_t>(rng() % 24);
        const int32_t dBpp = (rng() & 1) ? 32 : 24;
        const int32_t sBpp = (rng() & 1) ? 32 : 24;
        std::vector<uint8_t> src = RandomBytes(RowStride(sW, sBpp) * static_cast<size_t>(sH), rng);
        if (sBpp == 32) {
            FillAlphas(src.data(), src.size() / 4, patterns[rng() % 6], rng);
        }
        const std::vector<uint8_t> initial =
            RandomBytes(RowStride(dW, dBpp) * static_cast<size_t>(dH), rng);
        const RECT dRect = {coord(dW), coord(dH), coord(dW), coord(dH)};
        const RECT sRect = {coord(sW), coord(sH), coord(sW), coord(sH)};
        const POINT pos = {coord(dW), coord(dH)};
        const int op = static_cast<int>(rng() % 3);
        auto run = [&](const PixelKernels& k) {
            std::vector<uint8_t> dst = initial;
            const PictureView d = PackedPicture(dst.data(), dW, dH, dBpp);
            const ConstPictureView s = PackedPicture(src.data(), sW, sH, sBpp);
            if (op == 0) {
                BlendRectWith(k, d, dRect, s, sRect);
            } else if (op == 1) {
                BlendAtWith(k, d, pos, s);
            } else {
                CopyRectPixelsWith(k, d, dRect, s, sRect);
            }
            return dst;
        };
        const std::vector<uint8_t> expected = run(ScalarKernels());
        for (const PixelKernels* k : tables) {
            ASSERT_EQ(run(*k), expected) << k->name << " iteration " << iteration << " op " << op;
        }
    }
}

}  // namespace
}  // namespace lumets
