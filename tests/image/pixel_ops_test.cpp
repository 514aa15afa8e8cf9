// Buffer sizing, clamping and the rectangle operations' geometry and pixel
// rule. Geometry and guard tests run with every kernel table, since each
// table has its own row loops.
#include "image/pixel_ops.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <initializer_list>
#include <new>
#include <vector>

#include "image/pixel_kernels.h"

namespace lumets {
namespace {

std::vector<const PixelKernels*> AllTables() {
    std::vector<const PixelKernels*> tables = {&ScalarKernels()};
    for (const PixelKernels* k : {Avx512Kernels(), Avx2Kernels(), Sse41Kernels()}) {
        if (k != nullptr) {
            tables.push_back(k);
        }
    }
    return tables;
}

size_t Stride(int32_t width, int32_t bpp) {
    return RowStride(static_cast<uint32_t>(width), static_cast<uint32_t>(bpp));
}

// A picture between two guard zones that no operation may touch.
class Guarded {
  public:
    static constexpr size_t kGuard = 256;
    static constexpr uint8_t kCanary = 0xA5;

    Guarded(int32_t width, int32_t height, int32_t bpp, uint8_t fill)
        : width_(width),
          bpp_(bpp),
          bytes_(Stride(width, bpp) * static_cast<size_t>(height) + 2 * kGuard, kCanary) {
        std::memset(data(), fill, bytes_.size() - 2 * kGuard);
    }

    uint8_t* data() { return bytes_.data() + kGuard; }
    uint8_t* Pixel(int32_t x, int32_t row) {
        return data() + Stride(width_, bpp_) * static_cast<size_t>(row) +
               static_cast<size_t>(x) * static_cast<size_t>(bpp_ / 8);
    }
    bool GuardsIntact() const {
        for (size_t i = 0; i < kGuard; ++i) {
            if (bytes_[i] != kCanary || bytes_[bytes_.size() - 1 - i] != kCanary) {
                return false;
            }
        }
        return true;
    }
    std::vector<uint8_t> Picture() const {
        return {bytes_.begin() + kGuard, bytes_.end() - kGuard};
    }

  private:
    int32_t width_;
    int32_t bpp_;
    std::vector<uint8_t> bytes_;
};

TEST(PixelOps, RowStridePadsRowsToFourBytes) {
    EXPECT_EQ(RowStride(3, 24), 12u);
    EXPECT_EQ(RowStride(5, 24), 16u);
    EXPECT_EQ(RowStride(7, 32), 28u);
    EXPECT_EQ(RowStride(4, 24), 12u);
    EXPECT_EQ(RowStride(0, 32), 0u);
}

TEST(PixelOps, EnsureBufferGrowsOnly) {
    uint8_t* data = nullptr;
    uint32_t capacity = 0;
    EnsureBuffer(&data, &capacity, 10, 10, 32);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(capacity, 400u);
    data[399] = 7;
    const uint8_t* first = data;
    EnsureBuffer(&data, &capacity, 5, 5, 32);
    EXPECT_EQ(data, first);
    EXPECT_EQ(capacity, 400u);
    EXPECT_EQ(data[399], 7);
    EnsureBuffer(&data, &capacity, 11, 10, 32);
    EXPECT_EQ(capacity, 440u);
    data[439] = 1;  // the whole block is usable (checked by the sanitizer build)
    delete[] data;
}

TEST(PixelOps, EnsureBufferRefusesSizesBeyond32Bits) {
    uint8_t* data = nullptr;
    uint32_t capacity = 0;
    EnsureBuffer(&data, &capacity, 4, 4, 24);
    uint8_t* const before = data;
    EXPECT_THROW(EnsureBuffer(&data, &capacity, 0x40000000u, 1, 32), std::bad_alloc);
    EXPECT_THROW(EnsureBuffer(&data, &capacity, 65536, 65536, 32), std::bad_alloc);
    EXPECT_EQ(data, before);
    EXPECT_EQ(capacity, 48u);
    delete[] data;
    EnsureBuffer(nullptr, &capacity, 4, 4, 24);  // no crash
}

TEST(PixelOps, ClampRectSwapsReversedBoundsAndTakesExtremes) {
    RECT r = {INT_MIN, -5, INT_MAX, 50};
    ClampRect(&r, 0, 100, 40, 10);  // y bounds reversed
    EXPECT_EQ(r.left, 0);
    EXPECT_EQ(r.right, 100);
    EXPECT_EQ(r.top, 10);
    EXPECT_EQ(r.bottom, 40);
    RECT inside = {3, 4, 5, 6};
    ClampRect(&inside, INT_MIN, INT_MAX, INT_MIN, INT_MAX);
    EXPECT_EQ(inside.left, 3);
    EXPECT_EQ(inside.bottom, 6);
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

TEST(PixelOps, PixelRuleForEachDepthPair) {
    const OnePixelCase cases[] = {
        {"partial mix", 32, {200, 0, 255, 128}, 24, {100, 100, 0}, false, {150, 49, 128}},
        {"alpha 0 leaves all", 32, {9, 9, 9, 0}, 32, {1, 2, 3, 77}, false, {1, 2, 3, 77}},
        {"alpha 255 opaque", 32, {9, 8, 7, 255}, 32, {1, 2, 3, 77}, false, {9, 8, 7, 255}},
        {"alpha 128 sets alpha",
         32,
         {200, 0, 255, 128},
         32,
         {100, 100, 0, 3},
         false,
         {150, 49, 128, 128}},
        {"24 into 32 keeps alpha", 24, {10, 20, 30}, 32, {1, 2, 3, 77}, false, {10, 20, 30, 77}},
        {"24 into 24", 24, {10, 20, 30}, 24, {1, 2, 3}, false, {10, 20, 30}},
        {"copy 32 into 32", 32, {5, 6, 7, 0}, 32, {1, 2, 3, 77}, true, {5, 6, 7, 0}},
        {"copy 32 into 24", 32, {5, 6, 7, 0}, 24, {1, 2, 3}, true, {5, 6, 7}},
        {"copy 24 into 32", 24, {5, 6, 7}, 32, {1, 2, 3, 77}, true, {5, 6, 7, 255}},
    };
    for (const PixelKernels* k : AllTables()) {
        for (const OnePixelCase& c : cases) {
            SCOPED_TRACE(std::string(k->name) + ": " + c.what);
            uint8_t dst[4];
            std::memcpy(dst, c.dst, 4);
            const RECT one = {0, 0, 1, 1};
            if (c.copy) {
                CopyRectPixelsWith(*k, dst, 1, 1, c.dstBpp, one, c.src, 1, 1, c.srcBpp, one);
            } else {
                BlendRectWith(*k, dst, 1, 1, c.dstBpp, one, c.src, 1, 1, c.srcBpp, one);
            }
            EXPECT_EQ(0, std::memcmp(dst, c.expected, static_cast<size_t>(c.dstBpp / 8)));
        }
    }
}

// A 30 x 10 opaque source whose pixel (x, row) is (x + 1, row + 1, 0xCC),
// blended into a 100 x 100 24-bit picture of zeros.
class BlendAtPlacement : public ::testing::TestWithParam<const PixelKernels*> {
  protected:
    static constexpr int32_t kSrcW = 30;
    static constexpr int32_t kSrcH = 10;

    BlendAtPlacement() : src_(kSrcW, kSrcH, 32, 0), dst_(100, 100, 24, 0) {
        for (int32_t row = 0; row < kSrcH; ++row) {
            for (int32_t x = 0; x < kSrcW; ++x) {
                uint8_t* p = src_.Pixel(x, row);
                p[0] = static_cast<uint8_t>(x + 1);
                p[1] = static_cast<uint8_t>(row + 1);
                p[2] = 0xCC;
                p[3] = 255;
            }
        }
    }

    void Place(int32_t x, int32_t y) {
        BlendAtWith(*GetParam(), dst_.data(), 100, 100, 24, POINT{x, y}, src_.data(), kSrcW, kSrcH,
                    32);
        ASSERT_TRUE(dst_.GuardsIntact());
    }

    // Source row of dst row `row` at column x, or -1 where nothing landed.
    int SourceRowAt(int32_t x, int32_t row) {
        const uint8_t* p = dst_.Pixel(x, row);
        return p[2] == 0xCC ? p[1] - 1 : -1;
    }
    int SourceColumnAt(int32_t x, int32_t row) {
        const uint8_t* p = dst_.Pixel(x, row);
        return p[2] == 0xCC ? p[0] - 1 : -1;
    }
    // Rows [first, last] hold source rows from firstSource on, other rows nothing.
    void ExpectRows(int32_t first, int32_t last, int firstSource, int32_t x) {
        for (int32_t row = 0; row < 100; ++row) {
            const int expected = row >= first && row <= last ? firstSource + (row - first) : -1;
            ASSERT_EQ(SourceRowAt(x, row), expected) << "row " << row;
        }
    }

    Guarded src_;
    Guarded dst_;
};

TEST_P(BlendAtPlacement, BottomOverhangMovesSourceBack) {
    Place(10, 95);
    ExpectRows(90, 99, 0, 10);
    EXPECT_EQ(SourceColumnAt(39, 90), 29);
    EXPECT_EQ(SourceColumnAt(40, 90), -1);
    EXPECT_EQ(SourceColumnAt(9, 90), -1);
}

TEST_P(BlendAtPlacement, NegativeYDropsFirstSourceRows) {
    Place(10, -5);
    ExpectRows(0, 4, 5, 10);
}

TEST_P(BlendAtPlacement, BeyondLastRowStillDrawsInLastRows) {
    Place(0, 150);
    ExpectRows(90, 99, 0, 0);
    Place(0, INT_MAX);
    ExpectRows(90, 99, 0, 0);
}

TEST_P(BlendAtPlacement, FullyBelowRowZeroDrawsNothing) {
    Place(0, -10);
    Place(0, INT_MIN);
    EXPECT_EQ(dst_.Picture(), std::vector<uint8_t>(Stride(100, 24) * 100, 0));
}

TEST_P(BlendAtPlacement, NegativeXShiftsRightUncut) {
    Place(-5, 0);
    EXPECT_EQ(SourceColumnAt(0, 0), 0);
    EXPECT_EQ(SourceColumnAt(29, 0), 29);
    EXPECT_EQ(SourceColumnAt(30, 0), -1);
}

TEST_P(BlendAtPlacement, RunIsCutAtRightEdge) {
    Place(80, 0);
    EXPECT_EQ(SourceColumnAt(80, 0), 0);
    EXPECT_EQ(SourceColumnAt(99, 9), 19);
    EXPECT_EQ(SourceRowAt(0, 10), -1);  // the next row up is untouched
    Place(INT_MAX, 20);
    Place(99, 40);
    EXPECT_EQ(SourceColumnAt(99, 40), 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, BlendAtPlacement, ::testing::ValuesIn(AllTables()),
                         [](const auto& info) {
                             std::string name = info.param->name;
                             return name == "sse4.1" ? std::string("sse41") : name;
                         });

TEST(PixelOps, RectRowsPairFromLastRowsBackwards) {
    for (const PixelKernels* k : AllTables()) {
        SCOPED_TRACE(k->name);
        Guarded src(4, 20, 24, 0);
        for (int32_t row = 0; row < 20; ++row) {
            std::memset(src.Pixel(0, row), row + 1, 12);
        }
        Guarded dst(8, 60, 24, 0);
        // The destination top (50) plays no part: 12 source rows end at row 59.
        const RECT dRect = {2, 50, 3, 60};
        const RECT sRect = {1, 4, 3, 16};
        BlendRectWith(*k, dst.data(), 8, 60, 24, dRect, src.data(), 4, 20, 24, sRect);
        ASSERT_TRUE(dst.GuardsIntact());
        for (int32_t row = 0; row < 60; ++row) {
            const uint8_t expected = row >= 48 ? static_cast<uint8_t>(row - 48 + 4 + 1) : 0;
            EXPECT_EQ(dst.Pixel(2, row)[0], expected) << "row " << row;
            EXPECT_EQ(dst.Pixel(3, row)[2], expected) << "row " << row;  // two columns wide
            EXPECT_EQ(dst.Pixel(4, row)[0], 0) << "row " << row;
        }
    }
}

TEST(PixelOps, BadInputLeavesDestinationUnchanged) {
    Guarded src(8, 8, 32, 0xFF);
    Guarded dst(8, 8, 32, 0x11);
    const std::vector<uint8_t> before = dst.Picture();
    const RECT all = {0, 0, 8, 8};
    for (const PixelKernels* k : AllTables()) {
        SCOPED_TRACE(k->name);
        BlendRectWith(*k, dst.data(), 8, 8, 16, all, src.data(), 8, 8, 32, all);
        BlendRectWith(*k, dst.data(), 8, 8, 32, all, src.data(), 8, 8, 16, all);
        CopyRectPixelsWith(*k, dst.data(), 8, 8, 32, all, src.data(), 8, 8, 8, all);
        BlendAtWith(*k, dst.data(), 8, 8, 32, POINT{0, 0}, src.data(), 8, 8, 16);
        BlendAtWith(*k, dst.data(), 8, 8, 32, POINT{0, 0}, nullptr, 8, 8, 32);
        BlendAtWith(*k, nullptr, 8, 8, 32, POINT{0, 0}, src.data(), 8, 8, 32);
        BlendAtWith(*k, dst.data(), 0, 8, 32, POINT{0, 0}, src.data(), 8, 8, 32);
        BlendAtWith(*k, dst.data(), 8, -1, 32, POINT{0, 0}, src.data(), 8, 8, 32);
        BlendAtWith(*k, dst.data(), 8, 8, 32, POINT{0, 0}, src.data(), INT_MIN, 8, 32);
        // Sizes whose row bytes or picture bytes do not fit 32 bits: refused
        // before any address is formed from them.
        BlendAtWith(*k, dst.data(), 8, 8, 32, POINT{0, 0}, src.data(), INT_MAX, 1, 32);
        BlendAtWith(*k, dst.data(), 8, 8, 32, POINT{0, 0}, src.data(), 0x08000000, 1, 32);
        BlendAtWith(*k, dst.data(), 70000, 70000, 32, POINT{0, 0}, src.data(), 8, 8, 32);
        CopyRectPixelsWith(*k, dst.data(), 8, INT_MAX, 24, all, src.data(), 8, 8, 32, all);
        // Reversed rectangles have no rows or no columns.
        const RECT reversedX = {6, 0, 2, 8};
        const RECT reversedY = {0, 6, 8, 2};
        BlendRectWith(*k, dst.data(), 8, 8, 32, all, src.data(), 8, 8, 32, reversedX);
        BlendRectWith(*k, dst.data(), 8, 8, 32, all, src.data(), 8, 8, 32, reversedY);
        EXPECT_EQ(dst.Picture(), before);
        EXPECT_TRUE(dst.GuardsIntact());
    }
}

TEST(PixelOps, ExtremeRectanglesStayInsideBothBuffers) {
    const int32_t values[] = {INT_MIN, INT_MIN + 1, -70000, -1,          0,      1,
                              5,       13,          70000,  INT_MAX - 1, INT_MAX};
    for (const PixelKernels* k : AllTables()) {
        SCOPED_TRACE(k->name);
        for (int32_t dBpp : {24, 32}) {
            Guarded src(13, 5, 32, 0x80);
            Guarded dst(7, 6, dBpp, 0x11);
            for (int32_t a : values) {
                for (int32_t b : values) {
                    const RECT dRect = {a, b, b, a};
                    const RECT sRect = {b, a, a, b};
                    BlendRectWith(*k, dst.data(), 7, 6, dBpp, dRect, src.data(), 13, 5, 32, sRect);
                    CopyRectPixelsWith(*k, dst.data(), 7, 6, dBpp, sRect, src.data(), 13, 5, 32,
                                       dRect);
                    BlendAtWith(*k, dst.data(), 7, 6, dBpp, POINT{a, b}, src.data(), 13, 5, 32);
                    ASSERT_TRUE(dst.GuardsIntact()) << a << ", " << b;
                    ASSERT_TRUE(src.GuardsIntact());
                }
            }
        }
    }
}

TEST(PixelOps, PublicOperationsUseActiveTable) {
    uint8_t dst[4] = {100, 100, 0, 3};
    const uint8_t src[4] = {200, 0, 255, 128};
    BlendAt(dst, 1, 1, 32, POINT{0, 0}, src, 1, 1, 32);
    EXPECT_EQ(dst[0], 150);
    EXPECT_EQ(dst[3], 128);
    const RECT one = {0, 0, 1, 1};
    CopyRectPixels(dst, 1, 1, 32, one, src, 1, 1, 32, one);
    EXPECT_EQ(0, std::memcmp(dst, src, 4));
    uint8_t dst24[4] = {1, 2, 3, 0};
    BlendRect(dst24, 1, 1, 24, one, src, 1, 1, 32, one);
    EXPECT_EQ(dst24[2], 129);  // (127 * 3 + 255 * 128) / 255
}

}  // namespace
}  // namespace lumets
