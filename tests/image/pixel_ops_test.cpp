// Pictures and buffers, clamping, and the rectangle operations' geometry and
// pixel rule. Geometry and guard tests run with every kernel table, since each
// table has its own row loops. Then every SIMD table against the scalar
// reference, byte for byte: whole operations on random geometry, rows wide
// enough for several steps of every variant, with every alpha pattern; and the
// blend arithmetic for every (a, D, S). Last, the scaled composite.
#include "lumets_common/pixel_ops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <new>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "lumets_common/pixel_kernels.h"
#include "lumets_common/scaled_composite.h"

namespace lumets {
namespace {

// The scalar table first, then the SIMD ones this processor runs.
std::vector<const PixelKernels*> AllTables() {
    std::vector<const PixelKernels*> tables = {&ScalarKernels()};
    for (const PixelKernels* k : {Avx512Kernels(), Avx2Kernels(), Sse41Kernels()}) {
        if (k != nullptr) {
            tables.push_back(k);
        }
    }
    return tables;
}

// A picture between two guard zones that no operation may touch. Rows are
// strideBytes apart (the packed stride unless given).
class Guarded {
  public:
    static constexpr size_t kGuard = 256;
    static constexpr uint8_t kCanary = 0xA5;

    Guarded(int32_t width, int32_t height, int32_t bpp, uint8_t fill, size_t stride = 0)
        : view_(PackedPicture<uint8_t>(nullptr, width, height, bpp)) {
        if (stride != 0) {
            view_.strideBytes = stride;
        }
        bytes_.assign(view_.strideBytes * static_cast<size_t>(height) + 2 * kGuard, kCanary);
        view_.data = bytes_.data() + kGuard;
        std::memset(view_.data, fill, bytes_.size() - 2 * kGuard);
    }

    const PictureView& View() const { return view_; }
    uint8_t* Pixel(int32_t x, int32_t row) const {
        return view_.data + view_.strideBytes * static_cast<size_t>(row) +
               static_cast<size_t>(x) * static_cast<size_t>(view_.bitsPerPixel / 8);
    }
    bool GuardsIntact() const {
        const auto canary = [](uint8_t b) { return b == kCanary; };
        return std::all_of(bytes_.begin(), bytes_.begin() + kGuard, canary) &&
               std::all_of(bytes_.end() - kGuard, bytes_.end(), canary);
    }
    std::vector<uint8_t> Picture() const {
        return {bytes_.begin() + kGuard, bytes_.end() - kGuard};
    }

  private:
    PictureView view_;
    std::vector<uint8_t> bytes_;
};

TEST(PixelOps, StridesAndBuffersThatGrowOnlyAndNeverViewPastTheirBlock) {
    EXPECT_EQ(std::tuple(RowStride(3, 24), RowStride(5, 24), RowStride(7, 32), RowStride(0, 32)),
              std::tuple(12u, 16u, 28u, 0u));
    // Rows beyond 32-bit arithmetic get stride 0, which every operation refuses.
    EXPECT_EQ(PackedPicture<uint8_t>(nullptr, INT32_MAX, 1, 32).strideBytes, 0u);
    EXPECT_EQ(PackedPicture<uint8_t>(nullptr, -4, 1, 32).strideBytes, 0u);

    PixelBuffer buffer;
    EXPECT_EQ(buffer.View().data, nullptr);
    buffer.Ensure(10, 10, 32);
    ASSERT_NE(buffer.Data(), nullptr);
    EXPECT_EQ(buffer.Capacity(), 400u);
    buffer.Data()[399] = 7;
    const uint8_t* first = buffer.Data();
    buffer.Ensure(5, 5, 32);
    EXPECT_EQ(buffer.Data(), first);
    EXPECT_EQ(buffer.Data()[399], 7);
    buffer.width = 10;
    buffer.height = 10;
    EXPECT_EQ(buffer.View().data, first);
    EXPECT_EQ(buffer.View().strideBytes, 40u);
    buffer.height = 11;  // geometry beyond the block: no view
    EXPECT_EQ(std::as_const(buffer).View().data, nullptr);
    buffer.Ensure(11, 10, 32);
    EXPECT_EQ(buffer.Capacity(), 440u);
    buffer.Data()[439] = 1;  // the whole block is usable (checked by the sanitizer build)

    // Sizes beyond 32-bit arithmetic are refused like a failed allocation.
    EXPECT_THROW(buffer.Ensure(0x40000000u, 1, 32), std::bad_alloc);
    EXPECT_THROW(buffer.Ensure(65536, 65536, 32), std::bad_alloc);
    PixelBuffer moved = std::move(buffer);
    EXPECT_EQ(moved.width, 10);
}

TEST(PixelOps, ClampRectSwapsReversedBoundsAndTakesExtremes) {
    RECT r = {INT_MIN, -5, INT_MAX, 50};
    ClampRect(&r, 0, 100, 40, 10);  // y bounds reversed
    EXPECT_EQ(std::tuple(r.left, r.top, r.right, r.bottom), std::tuple(0, 10, 100, 40));
    RECT inside = {3, 4, 5, 6};
    ClampRect(&inside, INT_MIN, INT_MAX, INT_MIN, INT_MAX);
    EXPECT_EQ(std::tuple(inside.left, inside.top, inside.right, inside.bottom),
              std::tuple(3, 4, 5, 6));
    ClampRect(nullptr, 0, 1, 0, 1);
}

// One pixel of each depth blended or copied with every table.
struct OnePixelCase {
    const char* what;
    int32_t srcBpp;
    uint8_t src[4];
    int32_t dstBpp;
    uint8_t dst[4];
    bool copy;
    uint8_t expected[4];
};

// A 30 x 10 opaque source whose pixel (x, row) is (x + 1, row + 1, 0xCC),
// blended at pos into a 100 x 100 24-bit picture of zeros: which destination
// rows receive which source rows, and where a row's run starts and ends.
struct PlacementCase {
    POINT pos;
    int32_t firstRow;     // destination rows firstRow..lastRow are drawn,
    int32_t lastRow;      // -1: nothing at all
    int firstSourceRow;   // receiving source rows from this one up
    int32_t firstColumn;  // columns firstColumn..lastColumn, from source column 0 up
    int32_t lastColumn;
};

TEST(PixelOps, BlendAtPlacesRowsFromTheBottomAndCutsAtTheRightEdge) {
    const PlacementCase cases[] = {
        {{10, 95}, 90, 99, 0, 10, 39},     // overhang at the top moves the source back
        {{10, -5}, 0, 4, 5, 10, 39},       // negative y drops the first source rows
        {{0, 150}, 90, 99, 0, 0, 29},      // beyond the last row: still the last rows
        {{0, INT_MAX}, 90, 99, 0, 0, 29},  //
        {{0, -10}, -1, -1, 0, 0, 0},       // wholly below row 0: nothing
        {{0, INT_MIN}, -1, -1, 0, 0, 0},   //
        {{-5, 0}, 0, 9, 0, 0, 29},         // negative x shifts right, uncut
        {{80, 0}, 0, 9, 0, 80, 99},        // cut at the right edge
        {{INT_MAX, 20}, -1, -1, 0, 0, 0},  //
        {{99, 40}, 40, 49, 0, 99, 99},     //
    };
    Guarded src(30, 10, 32, 0);
    for (int32_t row = 0; row < 10; ++row) {
        for (int32_t x = 0; x < 30; ++x) {
            const uint8_t pixel[4] = {static_cast<uint8_t>(x + 1), static_cast<uint8_t>(row + 1),
                                      0xCC, 255};
            std::memcpy(src.Pixel(x, row), pixel, 4);
        }
    }
    for (const PixelKernels* k : AllTables()) {
        for (const PlacementCase& c : cases) {
            SCOPED_TRACE(testing::Message() << k->name << " at " << c.pos.x << ", " << c.pos.y);
            Guarded dst(100, 100, 24, 0);
            BlendAtWith(*k, dst.View(), c.pos, src.View());
            ASSERT_TRUE(dst.GuardsIntact());
            for (int32_t row = 0; row < 100; ++row) {
                for (int32_t x = 0; x < 100; ++x) {
                    const uint8_t* p = dst.Pixel(x, row);
                    const bool inside = row >= c.firstRow && row <= c.lastRow &&
                                        x >= c.firstColumn && x <= c.lastColumn;
                    const int column = inside ? x - c.firstColumn : -1;
                    const int sourceRow = inside ? c.firstSourceRow + (row - c.firstRow) : -1;
                    ASSERT_EQ(p[2] == 0xCC ? p[0] - 1 : -1, column) << x << ", " << row;
                    ASSERT_EQ(p[2] == 0xCC ? p[1] - 1 : -1, sourceRow) << x << ", " << row;
                }
            }
        }
    }
}

TEST(PixelOps, RectRowsPairFromLastRowsBackwardsAndHonourStrides) {
    for (const PixelKernels* k : AllTables()) {
        SCOPED_TRACE(k->name);
        // Padded strides on both sides: rows must be found by stride, not width.
        Guarded src(4, 20, 24, 0, 20);
        for (int32_t row = 0; row < 20; ++row) {
            std::memset(src.Pixel(0, row), row + 1, 12);
        }
        Guarded dst(8, 60, 24, 0, 40);
        // The destination top (50) plays no part: 12 source rows end at row 59.
        const RECT dRect = {2, 50, 3, 60};
        const RECT sRect = {1, 4, 3, 16};
        BlendRectWith(*k, dst.View(), dRect, src.View(), sRect);
        ASSERT_TRUE(dst.GuardsIntact());
        for (int32_t row = 0; row < 60; ++row) {
            const uint8_t expected = row >= 48 ? static_cast<uint8_t>(row - 48 + 4 + 1) : 0;
            EXPECT_EQ(dst.Pixel(2, row)[0], expected) << "row " << row;
            EXPECT_EQ(dst.Pixel(3, row)[2], expected) << "row " << row;  // two columns wide
            EXPECT_EQ(dst.Pixel(4, row)[0], 0) << "row " << row;
        }
    }
}

// One picture as source and destination, the rectangles overlapping in every
// direction: the result equals working from a copy of the source.
TEST(PixelOps, OverlappingRectanglesActAsIfTheSourceWereCopiedFirst) {
    std::mt19937 rng(7);
    const POINT shifts[] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}, {3, 2}, {-2, -3}};
    for (const PixelKernels* k : AllTables()) {
        for (int32_t bpp : {24, 32}) {
            for (const POINT shift : shifts) {
                for (bool copy : {true, false}) {
                    std::vector<uint8_t> bytes(RowStride(16, bpp) * 12);
                    std::generate(bytes.begin(), bytes.end(), [&] { return rng(); });
                    std::vector<uint8_t> expected = bytes;
                    const std::vector<uint8_t> source = bytes;
                    const RECT from{2, 2, 12, 9};
                    const RECT to{2 + shift.x, 2 + shift.y, 12 + shift.x, 9 + shift.y};
                    auto run = [&](std::vector<uint8_t>& dst, const uint8_t* src) {
                        const PictureView d = PackedPicture(dst.data(), 16, 12, bpp);
                        const ConstPictureView s = PackedPicture(src, 16, 12, bpp);
                        copy ? CopyRectPixelsWith(*k, d, to, s, from)
                             : BlendRectWith(*k, d, to, s, from);
                    };
                    run(expected, source.data());
                    run(bytes, bytes.data());
                    ASSERT_EQ(bytes, expected) << k->name << " " << bpp << " " << shift.x << ","
                                               << shift.y << (copy ? " copy" : " blend");
                }
            }
        }
    }
}

TEST(PixelOps, BadInputLeavesDestinationUnchanged) {
    Guarded src(8, 8, 32, 0xFF);
    Guarded dst(8, 8, 32, 0x11);
    const std::vector<uint8_t> before = dst.Picture();
    const RECT all = {0, 0, 8, 8};
    const PictureView d = dst.View();
    const PictureView s = src.View();
    auto with = [&s](int32_t w, int32_t h, int32_t bpp, size_t stride = 0) {
        PictureView out = PackedPicture(s.data, w, h, bpp);
        out.strideBytes = stride != 0 ? stride : out.strideBytes;
        return out;
    };
    // Views no operation may use: other depths, no pixels, empty or negative
    // sizes, strides narrower than a row, and sizes whose bytes do not fit 32
    // bits (refused before any address is formed from them).
    const PictureView badSources[] = {
        with(8, 8, 16),         with(8, 8, 8),           PictureView{nullptr, 8, 8, 32, 32},
        with(0, 8, 32),         with(8, -1, 32),         with(INT_MIN, 8, 32),
        with(INT_MAX, 1, 32),   with(0x08000000, 1, 32), with(8, 8, 32, 31),
        with(70000, 70000, 32),
    };
    for (const PixelKernels* k : AllTables()) {
        SCOPED_TRACE(k->name);
        for (const PictureView& bad : badSources) {
            BlendRectWith(*k, d, all, bad, all);
            CopyRectPixelsWith(*k, d, all, bad, all);
            BlendAtWith(*k, d, POINT{0, 0}, bad);
            // The same views as destinations (they point at the real one).
            PictureView badDst = bad;
            badDst.data = bad.data == nullptr ? nullptr : d.data;
            BlendAtWith(*k, badDst, POINT{0, 0}, s);
        }
        // Reversed rectangles have no rows or no columns.
        BlendRectWith(*k, d, all, s, RECT{6, 0, 2, 8});
        BlendRectWith(*k, d, all, s, RECT{0, 6, 8, 2});
        EXPECT_EQ(dst.Picture(), before);
        EXPECT_TRUE(dst.GuardsIntact());
    }
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
    constexpr size_t kCount = 256 * 256;
    constexpr size_t kPiece = 64 + 32 + 16 + 7;
    std::vector<uint8_t> src(kCount * 4);
    std::vector<uint8_t> dst24(kCount * 3);
    std::vector<uint8_t> dst32(kCount * 4);
    // Hosts' layouts: R, G, B and 32-bit B, G, R, x and R, G, B, x.
    std::vector<uint8_t> rgb(kCount * 3);
    std::vector<uint8_t> bgrx(kCount * 4);
    std::vector<uint8_t> rgbx(kCount * 4);
    for (const PixelKernels* k : AllTables()) {
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
                std::memcpy(&rgb[3 * i], destination, 3);
                std::memcpy(&bgrx[4 * i], destination, 4);
                std::memcpy(&rgbx[4 * i], destination, 4);
            }
            // Pieces of 119 pixels pass through every step width a variant
            // has (64, 32, 16 and the scalar tail).
            for (size_t at = 0; at < kCount; at += kPiece) {
                const size_t n = std::min(kPiece, kCount - at);
                k->blend32To24(dst24.data() + 3 * at, src.data() + 4 * at, n);
                k->blend32To32(dst32.data() + 4 * at, src.data() + 4 * at, n);
                k->blend32ToRgb24(rgb.data() + 3 * at, src.data() + 4 * at, n);
                k->blend32ToBgrx(bgrx.data() + 4 * at, src.data() + 4 * at, n);
                k->blend32ToRgbx(rgbx.data() + 4 * at, src.data() + 4 * at, n);
            }
            size_t bad = 0;
            for (size_t i = 0; i < kCount && bad < 5; ++i) {
                const int d = static_cast<int>(i & 255);
                const int s = static_cast<int>(i >> 8);
                const int mixed = ((255 - a) * d + s * a) / 255;
                const int swapped = ((255 - a) * s + d * a) / 255;
                const int alphaOut = a == 0 ? static_cast<uint8_t>(~i) : a;
                bool ok = dst24[3 * i] == mixed && dst24[3 * i + 1] == swapped &&
                          dst24[3 * i + 2] == mixed && dst32[4 * i] == mixed &&
                          dst32[4 * i + 1] == swapped && dst32[4 * i + 2] == mixed &&
                          dst32[4 * i + 3] == alphaOut;
                // Blue and red mix alike, so the swapped orders give the same
                // bytes; the host's fourth byte stays.
                const uint8_t host = static_cast<uint8_t>(~i);
                for (const uint8_t* p : {&rgb[3 * i], &bgrx[4 * i], &rgbx[4 * i]}) {
                    ok = ok && p[0] == mixed && p[1] == swapped && p[2] == mixed;
                }
                ok = ok && bgrx[4 * i + 3] == host && rgbx[4 * i + 3] == host;
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

// A run of one colour gives what the row blend gives for a row of that
// colour: every alpha, destinations at random, every layout, counts through
// every step width.
TEST(PixelKernels, ColourRunsBlendAsARowOfTheirColour) {
    using Pair = std::pair<RowKernel PixelKernels::*, ColourKernel PixelKernels::*>;
    const std::pair<Pair, size_t> layouts[] = {
        {{&PixelKernels::blend32To24, &PixelKernels::blendColourTo24}, 3},
        {{&PixelKernels::blend32To32, &PixelKernels::blendColourTo32}, 4},
        {{&PixelKernels::blend32ToRgb24, &PixelKernels::blendColourToRgb24}, 3},
        {{&PixelKernels::blend32ToBgrx, &PixelKernels::blendColourToBgrx}, 4},
        {{&PixelKernels::blend32ToRgbx, &PixelKernels::blendColourToRgbx}, 4}};
    std::mt19937 rng(7);
    for (const PixelKernels* k : AllTables()) {
        for (uint32_t a = 0; a < 256; ++a) {
            const uint32_t bgra = (rng() & 0xFFFFFF) | a << 24;
            const size_t count = 256 + rng() % 120;
            std::vector<uint8_t> row(count * 4);
            for (size_t i = 0; i < count; ++i) {
                std::memcpy(&row[4 * i], &bgra, 4);
            }
            for (const auto& [kernels, bytes] : layouts) {
                std::vector<uint8_t> want = RandomBytes(count * bytes, rng);
                std::vector<uint8_t> got = want;
                (ScalarKernels().*kernels.first)(want.data(), row.data(), count);
                (k->*kernels.second)(got.data(), bgra, count);
                ASSERT_EQ(got, want) << k->name << " alpha " << a << " bytes " << bytes;
            }
        }
    }
}

// Whole operations on random geometry, rectangles and positions often far
// outside the pictures, rows starting at every alignment: every table gives
// the scalar bytes, so none writes outside its row, and no table touches a
// byte outside the exact-size buffers (the sanitizer build sees it).
TEST(PixelKernels, OperationsMatchScalarOnRandomGeometry) {
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
        // Blends now and then go through the source's runs, found with a
        // colour planted in random spans of its rows: the plain blend's bytes.
        const int op = static_cast<int>(rng() % 3);
        const bool viaRuns = op != 2 && sBpp == 32 && rng() % 2 == 0;
        PictureRuns runs;
        if (viaRuns) {
            const auto colour = static_cast<uint32_t>(rng());
            for (int32_t row = 0; row < sH; ++row) {
                const int32_t first = static_cast<int32_t>(rng() % (sW + 1));
                const int32_t second = first + static_cast<int32_t>(rng() % (sW - first + 1));
                for (int32_t x = first; x < second; ++x) {
                    std::memcpy(&src[RowStride(sW, 32) * row + 4 * x], &colour, 4);
                }
            }
            runs = FindRuns(PackedPicture(src.data(), sW, sH, 32), colour);
        }
        // Now and then a host's frame: its own order, rows either way.
        const PixelLayout hostLayouts[2][2] = {{PixelLayout::Native, PixelLayout::Rgb},
                                               {PixelLayout::Bgrx, PixelLayout::Rgbx}};
        const PixelLayout layout =
            rng() % 3 == 0 ? hostLayouts[dBpp / 32][rng() & 1] : PixelLayout::Native;
        const bool topDown = rng() % 3 == 0;
        auto run = [&](const PixelKernels& k, bool throughRuns) {
            std::vector<uint8_t> dst = initial;
            PictureView d = PackedPicture(dst.data(), dW, dH, dBpp);
            d.layout = layout;
            d.topDown = topDown;
            const ConstPictureView s = PackedPicture(src.data(), sW, sH, sBpp);
            if (op == 0 && throughRuns) {
                BlendRectRunsWith(k, d, dRect, s, sRect, runs);
            } else if (op == 0) {
                BlendRectWith(k, d, dRect, s, sRect);
            } else if (op == 1 && throughRuns) {
                BlendRunsAtWith(k, d, pos, s, runs);
            } else if (op == 1) {
                BlendAtWith(k, d, pos, s);
            } else {
                CopyRectPixelsWith(k, d, dRect, s, sRect);
            }
            return dst;
        };
        const std::vector<uint8_t> expected = run(ScalarKernels(), false);
        for (const PixelKernels* k : AllTables()) {
            ASSERT_EQ(run(*k, viaRuns), expected)
                << k->name << " iteration " << iteration << " op " << op << " runs " << viaRuns;
        }
    }
}

// The scaled, clipped composite of a 32-bit picture into a 24-bit frame,
// checked byte for byte.

// A picture whose every pixel names its own column and top-down row.
PixelBuffer Picture(int32_t w, int32_t h) {
    PixelBuffer buffer;
    EnsureScalable(buffer, w, h);
    buffer.width = w;
    buffer.height = h;
    for (int32_t row = 0; row < h; ++row) {
        for (int32_t x = 0; x < w; ++x) {
            uint8_t* p = buffer.Data() + (static_cast<size_t>(h - 1 - row) * w + x) * 4;
            p[0] = static_cast<uint8_t>(x);
            p[1] = static_cast<uint8_t>(row);
            p[2] = 200;
            p[3] = 255;
        }
    }
    return buffer;
}

struct Frame {
    int32_t width;
    int32_t height;
    std::vector<uint8_t> bytes;
    Frame(int32_t w, int32_t h)
        : width(w), height(h), bytes(static_cast<size_t>(RowStride(w, 24)) * h + 64, 0x11) {}
    PictureView View() { return PackedPicture(bytes.data(), width, height, 24); }
    // Top-down access.
    const uint8_t* At(int32_t x, int32_t y) const {
        return bytes.data() + static_cast<size_t>(RowStride(width, 24)) * (height - 1 - y) + x * 3;
    }
};

TEST(ScaledComposite, UnscaledPlacementIsExactClippedAndMakesNoContext) {
    struct Case {
        const char* name;
        RECT clip;
        POINT pos;
    };
    const Case cases[] = {
        {"inside", {0, 0, 20, 10}, {3, 2}},
        {"half outside left", {0, 0, 20, 10}, {-4, 2}},
        {"above the clip", {0, 3, 20, 10}, {5, 1}},
        {"above the frame", {0, -50, 20, 10}, {5, -2}},
        {"below the frame", {0, 0, 20, 10}, {5, 8}},
        {"right of the frame", {-100, -100, 100, 100}, {16, 3}},
    };
    for (const Case& c : cases) {
        const PixelBuffer text = Picture(8, 4);
        PixelBuffer scaled;
        Frame frame(20, 10);
        uint32_t contexts = 0;
        BlendScaledIntoFrame(text, scaled, frame.View(), c.clip, c.pos, 1.0f, &contexts);
        EXPECT_EQ(contexts, 0u);
        const RECT visible{std::max({c.clip.left, 0, c.pos.x}), std::max({c.clip.top, 0, c.pos.y}),
                           std::min({c.clip.right, 20, c.pos.x + 8}),
                           std::min({c.clip.bottom, 10, c.pos.y + 4})};
        for (int32_t y = 0; y < 10; ++y) {
            for (int32_t x = 0; x < 20; ++x) {
                const uint8_t* p = frame.At(x, y);
                if (x >= visible.left && x < visible.right && y >= visible.top &&
                    y < visible.bottom) {
                    // Each visible pixel is the text's own pixel at that place.
                    ASSERT_EQ(p[0], x - c.pos.x) << c.name;
                    ASSERT_EQ(p[1], y - c.pos.y) << c.name;
                    ASSERT_EQ(p[2], 200) << c.name;
                } else {
                    ASSERT_EQ(p[0], 0x11) << c.name << " " << x << "," << y;
                }
            }
        }
        // Nothing after the frame's last row changes.
        EXPECT_TRUE(std::all_of(frame.bytes.end() - 64, frame.bytes.end(),
                                [](uint8_t b) { return b == 0x11; }));
    }
}

// Only the visible part of a picture is scaled, and its pixels are exactly
// those of scaling the whole picture: for a scale whose sampling grid repeats
// every source pixel (2), one that never repeats within the row (1.37 of 601),
// and a shrink. Sizes and positions (negative ones too) truncate.
TEST(ScaledComposite, TheVisiblePartMatchesScalingTheWhole) {
    // Blocks of random colour and opacity: edges everywhere, like text.
    PixelBuffer source;
    EnsureScalable(source, 601, 300);
    source.width = 601;
    source.height = 300;
    for (int32_t y = 0; y < 300; ++y) {
        for (int32_t x = 0; x < 601; ++x) {
            const uint32_t cell = static_cast<uint32_t>((y / 5) * 1000 + x / 3) * 2654435761u;
            std::memcpy(source.Data() + (static_cast<size_t>(y) * 601 + x) * 4, &cell, 4);
        }
    }
    for (float scale : {2.0f, 1.37f, 0.61f}) {
        const POINT pos{-150, -80};
        Frame frame(200, 120);
        PixelBuffer scaled;
        // A limit of one pixel makes even this picture scale its part only.
        BlendScaledIntoFrame(source, scaled, frame.View(), RECT{-1000, -1000, 1000, 1000}, pos,
                             scale, nullptr, nullptr, 1);
        const int32_t sw = static_cast<int32_t>(601 * scale);
        const int32_t sh = static_cast<int32_t>(300 * scale);
        EXPECT_LT(scaled.height, sh) << scale;
        if (scale == 2.0f) {
            EXPECT_LT(scaled.width, sw);
        }
        PixelBuffer whole;
        EnsureScalable(whole, sw, sh);
        whole.width = sw;
        whole.height = sh;
        ASSERT_TRUE(ResizePicture32(source.View(), whole.View()));
        Frame expected(200, 120);
        const POINT p{static_cast<int32_t>(pos.x * scale), static_cast<int32_t>(pos.y * scale)};
        const int32_t bottom = std::min(120, p.y + sh);
        const int32_t right = std::min(200, p.x + sw);
        BlendRect(expected.View(), RECT{0, 120 - bottom, right, 120}, whole.View(),
                  RECT{-p.x, sh - (bottom - p.y), right - p.x, sh + p.y});

        EXPECT_EQ(frame.bytes, expected.bytes) << scale;
        EXPECT_NE(frame.bytes, Frame(200, 120).bytes) << scale;
    }
}

// A picture kept through ScaledReuse is blended through its runs from its
// second unchanged blend on: every blend, moved, clipped, rescaled or after
// the picture changed, gives the bytes of a blend without reuse.
TEST(ScaledComposite, ReusedPicturesBlendAsWithoutReuse) {
    std::mt19937 rng(5);
    PixelBuffer source;
    EnsureScalable(source, 300, 40);
    source.width = 300;
    source.height = 40;
    const auto paint = [&] {
        for (size_t i = 0; i < size_t{300} * 40; ++i) {
            const uint32_t v = static_cast<uint32_t>(rng());
            // Mostly transparent, in stretches, with strokes of any alpha.
            const bool shows = (i % 300) / 20 % 3 == 0 || v % 7 == 0;
            const uint32_t pixel = shows ? v : (v & 0xFFFFFFu);
            std::memcpy(source.Data() + i * 4, &pixel, 4);
        }
    };
    paint();
    ScaledReuse reuse;
    reuse.source = 1;
    PixelBuffer scaled;
    PixelBuffer plainScaled;
    Frame frame(320, 60);
    Frame plain(320, 60);
    const struct {
        float scale;
        POINT pos;
        RECT clip;
        bool repaint;
    } steps[] = {
        {1.0f, {5, 3}, {0, 0, 320, 60}, false},
        {1.0f, {5, 3}, {0, 0, 320, 60}, false},
        {1.0f, {-7, 9}, {10, 0, 250, 60}, false},
        {1.0f, {40, 30}, {0, 0, 320, 60}, true},
        {1.5f, {2, 1}, {0, 0, 320, 60}, false},
        {1.5f, {2, 1}, {0, 0, 320, 60}, false},
        {1.5f, {-30, 5}, {5, 5, 300, 50}, false},
        {1.5f, {2, 1}, {0, 0, 320, 60}, true},
        {1.5f, {2, 1}, {0, 0, 320, 60}, false},
        {0.7f, {0, 0}, {0, 0, 320, 60}, false},
        {0.7f, {0, 0}, {0, 0, 320, 60}, false},
        {1.0f, {5, 3}, {0, 0, 320, 60}, false},
        // Taller than the frame: parts of one size from other rows.
        {2.0f, {0, -5}, {0, 0, 320, 60}, false},
        {2.0f, {0, -5}, {0, 0, 320, 60}, false},
        {2.0f, {0, -8}, {0, 0, 320, 60}, false},
        {2.0f, {0, -8}, {0, 0, 320, 60}, false},
    };
    // Scaled whole, then (a limit of one pixel) only in the part that shows.
    for (const int64_t wholeLimit : {kMaxPicturePixels, int64_t{1}}) {
        for (const auto& step : steps) {
            if (step.repaint) {
                paint();
                ++reuse.source;
            }
            BlendScaledIntoFrame(source, scaled, frame.View(), step.clip, step.pos, step.scale,
                                 nullptr, &reuse, wholeLimit);
            BlendScaledIntoFrame(source, plainScaled, plain.View(), step.clip, step.pos, step.scale,
                                 nullptr, nullptr, wholeLimit);
            ASSERT_EQ(frame.bytes, plain.bytes) << step.scale << " at " << step.pos.x;
        }
        EXPECT_NE(reuse.runsOf.first, 0u);
    }
}

TEST(ScaledComposite, NothingHappensForDegenerateInput) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        const char* name;
        RECT clip{0, 0, 20, 10};
        POINT pos{0, 0};
        float scale = 1.0f;
        int32_t width = 20;
        int32_t height = 10;
        int32_t depth = 24;
    };
    const Case cases[] = {
        {.name = "scale to zero", .scale = 0.01f},
        {.name = "scale zero", .scale = 0.0f},
        {.name = "negative scale", .scale = -1.0f},
        {.name = "NaN scale", .scale = nan},
        {.name = "infinite scale", .scale = inf},
        {.name = "huge scale", .scale = 1e6f},
        {.name = "empty clip", .clip = {5, 5, 5, 9}},
        {.name = "clip outside", .clip = {30, 0, 40, 10}},
        {.name = "text outside clip", .clip = {0, 0, 5, 5}, .pos = {6, 6}},
        {.name = "empty frame", .width = 0},
        {.name = "negative frame", .width = -20, .height = -10},
        {.name = "32-bit frame", .height = 7, .depth = 32},
        {.name = "extreme positions",
         .clip = {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX},
         .pos = {INT32_MAX, INT32_MAX}},
    };
    const PixelBuffer text = Picture(50, 4);
    for (const Case& c : cases) {
        PixelBuffer scaled;
        Frame frame(20, 10);
        BlendScaledIntoFrame(text, scaled,
                             PackedPicture(frame.bytes.data(), c.width, c.height, c.depth), c.clip,
                             c.pos, c.scale, nullptr);
        EXPECT_TRUE(std::all_of(frame.bytes.begin(), frame.bytes.end(), [](uint8_t b) {
            return b == 0x11;
        })) << c.name;
    }
    // A null frame leaves the scaled buffer untouched too.
    PixelBuffer scaled;
    BlendScaledIntoFrame(text, scaled, PictureView{}, RECT{0, 0, 20, 10}, POINT{0, 0}, 2.0f,
                         nullptr);
    EXPECT_EQ(scaled.Data(), nullptr);
    EXPECT_EQ(scaled.width, 0);
}

}  // namespace
}  // namespace lumets
