// CSubtitleBackground: plate geometry, colour and alpha, corner zones,
// rebuilding only on change, the GPU upload, golden pictures and bad input.
#include "subtitle/subtitle_background.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/golden.h"

namespace lumets {
namespace {

// The alpha byte of plate pixel (x, y), y in memory rows (0 = bottom).
uint8_t PlateAlpha(const CSubtitleBackground& plate, uint32_t x, uint32_t y) {
    const PixelBuffer& p = plate.Plate();
    return p.Data()[(size_t{y} * p.width + x) * 4 + 3];
}

std::pair<int32_t, int32_t> PlateSize(const CSubtitleBackground& plate) {
    return {plate.Plate().width, plate.Plate().height};
}

std::tuple<int32_t, int32_t, int32_t, int32_t> Sides(const RECT& r) {
    return {r.left, r.top, r.right, r.bottom};
}

// Records what the plate hands to a pixel-buffer object.
class CRecordingPbo : public IPBO {
  public:
    void Init(int32_t, int32_t) override {}
    void Resize(int32_t width, int32_t height) override { m_size = {width, height}; }
    int32_t GetWidth() const override { return m_size.first; }
    int32_t GetHeight() const override { return m_size.second; }
    uint32_t GetCapacity() const override { return 0; }
    GLuint GetBufferName() const override { return 0; }
    bool Download(GLuint, void*, uint32_t, GLenum) override { return false; }
    bool Upload(GLuint texture, const void* pixels, uint32_t bytes, GLenum format) override {
        m_uploads.push_back({texture, pixels, bytes, format});
        return true;
    }

    std::pair<int32_t, int32_t> m_size{0, 0};
    std::vector<std::tuple<GLuint, const void*, uint32_t, GLenum>> m_uploads;
};

TEST(SubtitleBackground, PlateSizeShiftAndUploadFromTheMask) {
    CSubtitleBackground plate;
    ASSERT_EQ(std::pair(plate.Mask().width, plate.Mask().height), std::pair(40, 36));

    // 20 + 7 = 27 rows, made up to the mask's 36; the top moves up by half of 9.
    CRecordingPbo pbo;
    int32_t w = -1;
    int32_t h = -1;
    POINT shift{};
    plate.DrawToTexture(7, w, h, shift, &pbo, 200, 20, 0x00FF00, 0.5f);
    EXPECT_EQ(PlateSize(plate), std::pair(252, 36));
    EXPECT_EQ(std::tuple(w, h, shift.x, shift.y), std::tuple(252, 36, -26, -7));
    EXPECT_EQ(pbo.m_size, std::pair(252, 36));
    ASSERT_EQ(pbo.m_uploads.size(), 1u);
    EXPECT_EQ(pbo.m_uploads[0],
              std::tuple(7u, static_cast<const void*>(plate.Plate().Data()),
                         static_cast<uint32_t>(plate.Plate().Capacity()), GLenum{GL_BGRA}));

    RECT rect{};
    const RECT text{100, 50, 300, 70};
    EXPECT_EQ(Sides(*plate.GetBackgroundRect(&rect, &text)), std::tuple(74, 43, 326, 79));
    const RECT nearTop{100, 2, 300, 22};
    EXPECT_EQ(Sides(*plate.GetBackgroundRect(&rect, &nearTop)), std::tuple(74, 0, 326, 36));

    plate.BuildBackground(200, 40, shift);
    EXPECT_EQ(PlateSize(plate), std::pair(252, 47));
    EXPECT_EQ(std::pair(shift.x, shift.y), std::pair(-26, -3));

    // The widest text the renderer makes still gets its margins.
    plate.BuildBackground(16384, 20, shift);
    EXPECT_EQ(PlateSize(plate), std::pair(16436, 36));

    // Without the minimum height.
    int32_t width = 200;
    int32_t height = -1;
    plate.GetBackgroundSize(width, height, 20);
    EXPECT_EQ(std::pair(width, height), std::pair(252, 27));

    // Nothing to upload: the caller's sizes stay.
    int32_t keptW = 11;
    int32_t keptH = 12;
    plate.DrawToTexture(7, keptW, keptH, shift, &pbo, -5, 20, 0x00FF00, 0.5f);
    plate.DrawToTexture(7, keptW, keptH, shift, nullptr, 200, 20, 0x00FF00, 0.5f);
    EXPECT_EQ(std::pair(keptW, keptH), std::pair(11, 12));
    EXPECT_EQ(pbo.m_uploads.size(), 1u);
}

// A small mask whose every pixel has its own alpha (10 * row + column + 1)
// shows exactly which mask pixel each corner pixel took; at lower opacity the
// plate's alpha scales the mask's. (The golden pictures check the colour
// bytes.)
TEST(SubtitleBackground, CornerZonesTakeTheirMaskPixels) {
    PixelBuffer mask;
    mask.Ensure(8, 6, 32);
    mask.width = 8;
    mask.height = 6;
    for (uint32_t i = 0; i < 48; ++i) {
        uint8_t* p = mask.Data() + i * 4;
        p[0] = p[1] = p[2] = 0;
        p[3] = static_cast<uint8_t>(10 * (i / 8) + i % 8 + 1);
    }
    CSubtitleBackground plate(mask);
    plate.SetColourAndOpacity(0, 1.0f);
    POINT shift{};
    // (int)(8 * 1.3f) = 10 and (int)(6 * 0.2f) = 1: the plate is 20 x 11.
    plate.BuildBackground(10, 10, shift);
    ASSERT_EQ(PlateSize(plate), std::pair(20, 11));
    // hw = 4, hh = 3. Bottom zones: rows 0..3; top zones: rows above 11 - 3,
    // from mask row y - 5. Left: columns 0..3; right: columns above 20 - 4,
    // from mask column x - 12.
    const uint32_t cases[][3] = {
        {0, 0, 1},    {3, 3, 34},   {4, 3, 255},  {16, 3, 255}, {17, 3, 36},
        {19, 0, 8},   {0, 4, 255},  {0, 8, 255},  {0, 9, 41},   {3, 10, 54},
        {4, 10, 255}, {16, 9, 255}, {17, 10, 56}, {19, 9, 48},  {10, 5, 255},
    };
    for (const auto& [x, y, alpha] : cases) {
        EXPECT_EQ(PlateAlpha(plate, x, y), alpha) << "(" << x << ", " << y << ")";
    }
    plate.SetColourAndOpacity(0, 0.5f);  // alpha 127
    plate.BuildBackground(10, 10, shift);
    EXPECT_EQ(PlateAlpha(plate, 3, 3), 127 * 34 / 255);
    EXPECT_EQ(PlateAlpha(plate, 10, 5), 127);
    // Opacities outside 0..1 are clamped.
    for (const auto& [opacity, alpha] : {std::pair(1.2f, 255), std::pair(-0.5f, 0),
                                         std::pair(std::numeric_limits<float>::infinity(), 255)}) {
        plate.SetColourAndOpacity(0, opacity);
        plate.BuildBackground(10, 10, shift);
        EXPECT_EQ(PlateAlpha(plate, 10, 5), alpha) << opacity;
    }
}

// The plate is rebuilt and rescaled only on a change, with one scaling
// context per pair of sizes, and every frame equals a fresh plate's.
TEST(SubtitleBackground, RebuildsAndRescalesOnlyOnChangeAndMatchesAFreshPlate) {
    CSubtitleBackground plate;
    // Each step: text rectangle, colour, opacity, scale, then the build,
    // scale and context counts after it.
    const struct {
        RECT text;
        uint32_t colour;
        float opacity;
        float scale;
        uint32_t builds;
        uint32_t scales;
        uint32_t contexts;
    } steps[] = {
        {{100, 60, 300, 90}, 0x204080, 0.8f, 1.5f, 1, 1, 1},
        {{100, 60, 300, 90}, 0x204080, 0.8f, 1.5f, 1, 1, 1},
        {{100, 60, 300, 90}, 0x204080, 0.8f + 1e-8f, 1.5f, 1, 1, 1},  // below the threshold
        {{100, 60, 300, 90}, 0x204080, 0.8f, 1.25f, 1, 2, 2},         // new scale: rescale
        {{100, 60, 300, 90}, 0x204081, 0.8f, 1.25f, 2, 3, 2},         // new colour: both
        {{100, 60, 300, 90}, 0x204081, 0.5f, 1.25f, 3, 4, 2},         // new opacity: both
        {{100, 60, 301, 90}, 0x204081, 0.5f, 1.25f, 4, 5, 3},         // new width: both
        {{100, 60, 301, 90}, 0x204081, 0.5f, 2.0f, 4, 6, 4},
        {{100, 60, 301, 90}, 0x204081, 0.5f, 0.5f, 4, 7, 5},
        {{100, 60, 301, 90}, 0x204081, 0.5f, 1.25f, 4, 8, 6},  // the old scale again
        {{100, 60, 301, 90}, 0x204081, 0.5f, 1.25f, 4, 8, 6},
    };
    for (const auto& s : steps) {
        std::vector<uint8_t> frame(RowStride(640, 24) * 200, 0);
        std::vector<uint8_t> freshFrame = frame;
        plate.DrawOnFrame(PackedPicture(frame.data(), 640, 200, 24), &s.text, 30, s.colour,
                          s.opacity, s.scale);
        EXPECT_EQ(std::tuple(plate.BuildCount(), plate.ScaleCount(), plate.ContextCount()),
                  std::tuple(s.builds, s.scales, s.contexts));
        CSubtitleBackground fresh;
        fresh.DrawOnFrame(PackedPicture(freshFrame.data(), 640, 200, 24), &s.text, 30, s.colour,
                          s.opacity, s.scale);
        EXPECT_EQ(frame, freshFrame) << s.scale;
    }
    // Scale 1 hands out the plate itself and leaves the scaled copy alone.
    const ConstPictureView same = plate.GetScaledBackground(1.0f);
    EXPECT_EQ(std::tuple(same.data, same.width, same.height),
              std::tuple(plate.Plate().Data(), 253, 37));
    EXPECT_EQ(plate.ScaleCount(), 8u);
}

TEST(SubtitleBackground, WithoutAMaskNothingIsDrawnOrUploaded) {
    CSubtitleBackground plate(PixelBuffer{});
    int32_t width = 200;
    int32_t height = 0;
    plate.GetBackgroundSize(width, height, 20);
    // No margin: the item leaves the plate out of its bounds.
    EXPECT_EQ(std::pair(width, height), std::pair(200, 20));

    std::vector<uint8_t> frame(RowStride(320, 24) * 100, 77);
    const std::vector<uint8_t> before = frame;
    const RECT text{10, 10, 210, 30};
    const PictureView view = PackedPicture(frame.data(), 320, 100, 24);
    plate.DrawOnFrame(view, &text, 20, 0xFFFFFF, 1.0f, 1.0f);
    plate.DrawOnFrame(view, &text, 20, 0xFFFFFF, 1.0f, 1.5f);
    EXPECT_EQ(frame, before);
    EXPECT_EQ(plate.Plate().Data(), nullptr);

    CRecordingPbo pbo;
    POINT shift{};
    plate.DrawToTexture(3, width, height, shift, &pbo, 200, 20, 0xFFFFFF, 1.0f);
    EXPECT_TRUE(pbo.m_uploads.empty());
    EXPECT_EQ(pbo.m_size, std::pair(0, 0));
}

TEST(SubtitleBackground, BadSizesAndScalesDrawNothing) {
    CSubtitleBackground plate;
    const int32_t width = 320;
    const int32_t height = 100;
    std::vector<uint8_t> frame(RowStride(width, 24) * height, 77);
    const std::vector<uint8_t> before = frame;
    const PictureView view = PackedPicture(frame.data(), width, height, 24);
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const int32_t big = std::numeric_limits<int32_t>::max();
    const int32_t small = std::numeric_limits<int32_t>::min();
    const RECT text{10, 10, 210, 30};
    for (float scale : {0.0f, -1.0f, 1e-8f, nan, inf, -inf, 0.001f, 1e6f}) {
        plate.DrawOnFrame(view, &text, 20, 0xFFFFFF, 1.0f, scale);
    }
    const RECT badRects[] = {{10, 10, 5, 30},
                             {small, 0, big, 10},
                             {0, 0, 20000, 10},
                             {big, big, big, big},
                             {small, small, 10, 10}};
    for (const RECT& r : badRects) {
        plate.DrawOnFrame(view, &r, 20, 0xFFFFFF, 1.0f, 1.0f);
    }
    for (int32_t textHeight : {-1, -100, small, 20000, big}) {
        plate.DrawOnFrame(view, &text, textHeight, 0xFFFFFF, 1.0f, 1.0f);
    }
    plate.DrawOnFrame(view, nullptr, 20, 0xFFFFFF, 1.0f, 1.0f);
    // A real plate with a frame that is not there, or positions far outside.
    plate.DrawOnFrame(PictureView{}, &text, 20, 0xFFFFFF, 1.0f, 1.0f);
    plate.DrawOnFrame(PackedPicture(frame.data(), 0, height, 24), &text, 20, 0xFFFFFF, 1.0f, 1.0f);
    plate.DrawOnFrame(PackedPicture(frame.data(), width, -5, 24), &text, 20, 0xFFFFFF, 1.0f, 1.0f);
    const RECT farLeft{-1000000000, 10, -999999800, 30};
    plate.DrawOnFrame(view, &farLeft, 20, 0xFFFFFF, 1.0f, 3000.0f);
    EXPECT_EQ(frame, before);

    // NaN opacity is no change; the queries survive null and extreme input.
    plate.SetColourAndOpacity(0xFFFFFF, nan);
    RECT out{};
    EXPECT_EQ(plate.GetBackgroundRect(&out, nullptr), &out);
    EXPECT_EQ(out.right, 0);
    EXPECT_EQ(plate.GetBackgroundRect(nullptr, &text), nullptr);
    int32_t w = big;
    int32_t h = 0;
    plate.GetBackgroundSize(w, h, big);
    EXPECT_EQ(std::pair(w, h), std::pair(big, big));
}

// Golden pictures of a plate drawn into a patterned 24-bit frame, at scale 1
// and 1.5. At scale 1 the plate is built and blended in integers, so the
// frame must match byte for byte. At 1.5 libswscale's bicubic resize takes
// part, whose rounding may differ between its SIMD and C paths: every channel
// within 3 of the golden.
TEST(SubtitleBackgroundGolden, PlateOverAPatternAtTwoScales) {
    const struct {
        float scale;
        const char* name;
        test::GoldenTolerance tolerance;
    } cases[] = {{1.0f, "plate_1x.png", {0, 0}}, {1.5f, "plate_1_5x.png", {3, 0}}};
    for (const auto& c : cases) {
        // Diagonal stripes over two gradients: every blended pixel shows both inputs.
        const uint32_t stride = RowStride(400, 24);
        std::vector<uint8_t> frame(size_t{stride} * 160, 0);
        for (int32_t y = 0; y < 160; ++y) {  // top-down
            uint8_t* row = frame.data() + size_t{stride} * (160 - 1 - y);
            for (int32_t x = 0; x < 400; ++x) {
                row[x * 3 + 0] = static_cast<uint8_t>(200 - x / 4);
                row[x * 3 + 1] = static_cast<uint8_t>(40 + y);
                row[x * 3 + 2] = static_cast<uint8_t>((x + y) % 32 < 16 ? 230 : 30);
            }
        }
        CSubtitleBackground plate;
        const RECT text{40, 40, 240, 70};
        const PictureView view = PackedPicture(frame.data(), 400, 160, 24);
        plate.DrawOnFrame(view, &text, 30, 0x3366CC, 0.7f, c.scale);
        EXPECT_TRUE(test::MatchesGolden(std::string(LUMETS_TEST_DATA_DIR) + "/" + c.name, view,
                                        c.tolerance));
    }
}

}  // namespace
}  // namespace lumets
