// The scaled, clipped composite of a 32-bit picture into a 24-bit frame,
// checked byte for byte.
#include "lumets_common/scaled_composite.h"

#include "lumets_common/pixel_ops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

namespace lumets {
namespace {

// A picture whose every pixel names its own column and top-down row.
PixelBuffer Picture(int32_t w, int32_t h, uint8_t alpha = 255) {
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
            p[3] = alpha;
        }
    }
    return buffer;
}

struct Frame {
    int32_t width;
    int32_t height;
    std::vector<uint8_t> bytes;
    Frame(int32_t w, int32_t h, uint8_t fill = 0x11)
        : width(w), height(h), bytes(static_cast<size_t>(RowStride(w, 24)) * h + 64, fill) {}
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
        BlendScaledInto24(text, scaled, frame.View(), c.clip, c.pos, 1.0f, &contexts);
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
    // Partial alpha follows the blend rule: R = 200 over 100 at alpha 128 is
    // (127 * 100 + 200 * 128) / 255 = 150.
    PixelBuffer scaled;
    Frame frame(4, 2, 100);
    BlendScaledInto24(Picture(4, 2, 128), scaled, frame.View(), RECT{0, 0, 4, 2}, POINT{0, 0}, 1.0f,
                      nullptr);
    EXPECT_EQ(frame.At(2, 1)[2], 150);
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
        BlendScaledInto24(source, scaled, frame.View(), RECT{-1000, -1000, 1000, 1000}, pos, scale,
                          nullptr, nullptr, 1);
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

// A kept context scales exactly as a fresh one: the same sizes with new
// pixels, other sizes, the old sizes again, whole pictures and some rows.
TEST(ScaledComposite, AKeptContextScalesAsAFreshOne) {
    auto noise = [](int32_t w, int32_t h, uint32_t seed) {
        PixelBuffer buffer = Picture(w, h);
        for (size_t i = 0; i < size_t{4} * w * h; i += 4) {
            const uint32_t v = static_cast<uint32_t>(i / 12 + seed) * 2654435761u;
            std::memcpy(buffer.Data() + i, &v, 4);
        }
        return buffer;
    };
    struct Step {
        int32_t srcW, srcH;
        float scale;
        uint32_t seed;
        int32_t firstRow = 0;  // with rows, only these rows of the result
        int32_t rows = 0;
    };
    const Step steps[] = {
        {97, 31, 1.5f, 1},         {97, 31, 1.5f, 2},       {97, 31, 0.5f, 3},
        {97, 31, 2.0f, 4},         {40, 120, 1.5f, 5},      {97, 31, 1.5f, 6},
        {97, 31, 1.5f, 7, 10, 20}, {97, 31, 1.5f, 8, 0, 3}, {97, 31, 1.5f, 9},
    };
    CScalerCache kept;
    for (const Step& s : steps) {
        const PixelBuffer source = noise(s.srcW, s.srcH, s.seed);
        const int32_t w = static_cast<int32_t>(static_cast<float>(s.srcW) * s.scale);
        const int32_t h = static_cast<int32_t>(static_cast<float>(s.srcH) * s.scale);
        const int32_t rows = s.rows != 0 ? s.rows : h;
        PixelBuffer cached = Picture(w, rows);
        PixelBuffer fresh = Picture(w, rows);
        ASSERT_TRUE(ResizeRows32(source.View(), cached.View(), h, s.firstRow, &kept));
        ASSERT_TRUE(ResizeRows32(source.View(), fresh.View(), h, s.firstRow));
        EXPECT_EQ(0, std::memcmp(cached.Data(), fresh.Data(), size_t{4} * w * rows))
            << s.srcW << "x" << s.srcH << " at " << s.scale << " seed " << s.seed;
    }
    // One context per change of sizes: 1.5, 0.5, 2.0, the tall one, 1.5 again.
    EXPECT_EQ(kept.ContextsMade(), 5u);
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
        BlendScaledInto24(text, scaled,
                          PackedPicture(frame.bytes.data(), c.width, c.height, c.depth), c.clip,
                          c.pos, c.scale, nullptr);
        EXPECT_TRUE(std::all_of(frame.bytes.begin(), frame.bytes.end(), [](uint8_t b) {
            return b == 0x11;
        })) << c.name;
    }
    // A null frame leaves the scaled buffer untouched too.
    PixelBuffer scaled;
    BlendScaledInto24(text, scaled, PictureView{}, RECT{0, 0, 20, 10}, POINT{0, 0}, 2.0f, nullptr);
    EXPECT_EQ(scaled.Data(), nullptr);
    EXPECT_EQ(scaled.width, 0);
}

}  // namespace
}  // namespace lumets
