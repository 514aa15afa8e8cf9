// The scaled, clipped composite of a 32-bit picture into a 24-bit frame,
// checked byte for byte.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "image/pixel_ops.h"
#include "image/scaled_composite.h"

namespace {

using lumets::PixelBuffer;
using lumets::RowStride;

// An opaque picture whose every pixel names its own column and top-down row.
struct Picture {
    PixelBuffer buffer;
    explicit Picture(uint32_t w, uint32_t h, uint8_t alpha = 255) {
        lumets::EnsureBuffer(&buffer.data, &buffer.capacity, w, h, 32);
        buffer.width = w;
        buffer.height = h;
        buffer.bitsPerPixel = 32;
        for (uint32_t row = 0; row < h; ++row) {
            for (uint32_t x = 0; x < w; ++x) {
                uint8_t* p = buffer.data + (static_cast<size_t>(h - 1 - row) * w + x) * 4;
                p[0] = static_cast<uint8_t>(x);
                p[1] = static_cast<uint8_t>(row);
                p[2] = 200;
                p[3] = alpha;
            }
        }
    }
    ~Picture() { delete[] buffer.data; }
};

struct Frame {
    int32_t width;
    int32_t height;
    std::vector<uint8_t> bytes;
    Frame(int32_t w, int32_t h)
        : width(w), height(h), bytes(static_cast<size_t>(RowStride(w, 24)) * h + 64, 0x11) {}
    // Top-down access.
    const uint8_t* At(int32_t x, int32_t y) const {
        return bytes.data() + static_cast<size_t>(RowStride(width, 24)) * (height - 1 - y) + x * 3;
    }
    bool Untouched() const {
        for (uint8_t b : bytes) {
            if (b != 0x11) {
                return false;
            }
        }
        return true;
    }
};

TEST(ScaledComposite, UnscaledPlacementIsExactAndMakesNoContext) {
    Picture text(8, 4);
    PixelBuffer scaled;
    Frame frame(20, 10);
    uint32_t contexts = 0;
    lumets::BlendScaledInto24(text.buffer, scaled, frame.bytes.data(), frame.width, frame.height,
                              RECT{0, 0, 20, 10}, POINT{3, 2}, 1.0f, &contexts);
    EXPECT_EQ(contexts, 0u);
    for (int32_t y = 0; y < 10; ++y) {
        for (int32_t x = 0; x < 20; ++x) {
            const uint8_t* p = frame.At(x, y);
            const bool inside = x >= 3 && x < 11 && y >= 2 && y < 6;
            if (inside) {
                EXPECT_EQ(p[0], x - 3);
                EXPECT_EQ(p[1], y - 2);
                EXPECT_EQ(p[2], 200);
            } else {
                EXPECT_EQ(p[0], 0x11) << x << "," << y;
            }
        }
    }
    // The frame's row padding (20 * 3 = 60 bytes, no padding) and the bytes
    // after the frame are left alone.
    for (size_t i = static_cast<size_t>(RowStride(20, 24)) * 10; i < frame.bytes.size(); ++i) {
        EXPECT_EQ(frame.bytes[i], 0x11);
    }
    delete[] scaled.data;
}

TEST(ScaledComposite, ScalingTruncatesSizesAndPositions) {
    Picture text(101, 40);
    PixelBuffer scaled;
    Frame frame(200, 100);
    uint32_t contexts = 0;
    lumets::BlendScaledInto24(text.buffer, scaled, frame.bytes.data(), frame.width, frame.height,
                              RECT{0, 0, 400, 200}, POINT{30, 15}, 0.5f, &contexts);
    EXPECT_EQ(contexts, 1u);
    EXPECT_EQ(scaled.width, 50u);
    EXPECT_EQ(scaled.height, 20u);
    // The 50 x 20 picture lands at (15, 7).
    EXPECT_EQ(frame.At(14, 7)[2], 0x11);
    EXPECT_EQ(frame.At(15, 6)[2], 0x11);
    // Bicubic filtering may ring at the edges; inside, pixels are drawn.
    EXPECT_NE(frame.At(15, 7)[2], 0x11);
    EXPECT_NE(frame.At(64, 26)[2], 0x11);
    EXPECT_EQ(frame.At(65, 26)[2], 0x11);
    EXPECT_EQ(frame.At(64, 27)[2], 0x11);
    delete[] scaled.data;
}

TEST(ScaledComposite, ClipsAgainstClipAndFrameWithoutMovingTheText) {
    struct Case {
        const char* name;
        RECT clip;
        POINT pos;
    };
    const Case cases[] = {
        {"half outside left", {0, 0, 20, 10}, {-4, 2}},
        {"above the clip", {0, 3, 20, 10}, {5, 1}},
        {"above the frame", {0, -50, 20, 10}, {5, -2}},
        {"below the frame", {0, 0, 20, 10}, {5, 8}},
        {"right of the frame", {-100, -100, 100, 100}, {16, 3}},
    };
    for (const Case& c : cases) {
        Picture text(8, 4);
        PixelBuffer scaled;
        Frame frame(20, 10);
        lumets::BlendScaledInto24(text.buffer, scaled, frame.bytes.data(), frame.width,
                                  frame.height, c.clip, c.pos, 1.0f, nullptr);
        RECT visible{std::max({c.clip.left, 0, c.pos.x}), std::max({c.clip.top, 0, c.pos.y}),
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
                } else {
                    ASSERT_EQ(p[0], 0x11) << c.name << " " << x << "," << y;
                }
            }
        }
        delete[] scaled.data;
    }
}

TEST(ScaledComposite, NothingHappensForDegenerateInput) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        const char* name;
        RECT clip;
        POINT pos;
        float scale;
        int32_t width;
        int32_t height;
    };
    const Case cases[] = {
        {"scale to zero", {0, 0, 20, 10}, {0, 0}, 0.01f, 20, 10},
        {"scale zero", {0, 0, 20, 10}, {0, 0}, 0.0f, 20, 10},
        {"negative scale", {0, 0, 20, 10}, {0, 0}, -1.0f, 20, 10},
        {"NaN scale", {0, 0, 20, 10}, {0, 0}, nan, 20, 10},
        {"infinite scale", {0, 0, 20, 10}, {0, 0}, inf, 20, 10},
        {"huge scale", {0, 0, 20, 10}, {0, 0}, 1e6f, 20, 10},
        {"empty clip", {5, 5, 5, 9}, {0, 0}, 1.0f, 20, 10},
        {"clip outside", {30, 0, 40, 10}, {0, 0}, 1.0f, 20, 10},
        {"text outside clip", {0, 0, 5, 5}, {6, 6}, 1.0f, 20, 10},
        {"empty frame", {0, 0, 20, 10}, {0, 0}, 1.0f, 0, 10},
        {"negative frame", {0, 0, 20, 10}, {0, 0}, 1.0f, -20, -10},
        {"extreme positions",
         {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX},
         {INT32_MAX, INT32_MAX},
         1.0f,
         20,
         10},
    };
    for (const Case& c : cases) {
        Picture text(50, 4);
        PixelBuffer scaled;
        Frame frame(20, 10);
        lumets::BlendScaledInto24(text.buffer, scaled, frame.bytes.data(), c.width, c.height,
                                  c.clip, c.pos, c.scale, nullptr);
        EXPECT_TRUE(frame.Untouched()) << c.name;
        delete[] scaled.data;
    }
    // A null frame leaves the scaled buffer untouched too.
    Picture text(8, 4);
    PixelBuffer scaled;
    lumets::BlendScaledInto24(text.buffer, scaled, nullptr, 20, 10, RECT{0, 0, 20, 10}, POINT{0, 0},
                              2.0f, nullptr);
    EXPECT_EQ(scaled.data, nullptr);
    EXPECT_EQ(scaled.width, 0u);
}

TEST(ScaledComposite, PartialAlphaFollowsTheBlendRule) {
    Picture text(4, 2, 128);
    PixelBuffer scaled;
    Frame frame(4, 2);
    std::fill(frame.bytes.begin(), frame.bytes.end(), 100);
    lumets::BlendScaledInto24(text.buffer, scaled, frame.bytes.data(), 4, 2, RECT{0, 0, 4, 2},
                              POINT{0, 0}, 1.0f, nullptr);
    // R = 200 over 100 at alpha 128: (127 * 100 + 200 * 128) / 255 = 150.
    EXPECT_EQ(frame.At(2, 1)[2], 150);
    delete[] scaled.data;
}

}  // namespace
