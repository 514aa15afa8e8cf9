#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "common/gl_context.h"
#include "lumets/host/gl_objects.h"
#include "lumets/host/gpu_combiner.h"

namespace {

constexpr int kTargetWidth = 64;
constexpr int kTargetHeight = 48;

// A picture kept top-down for the test's arithmetic, uploaded bottom-up.
struct Picture {
    int width;
    int height;
    std::vector<uint8_t> topDown;  // B, G, R, A

    const uint8_t* At(int x, int y) const {
        return &topDown[(static_cast<size_t>(y) * width + x) * 4];
    }
    std::vector<uint8_t> BottomUp() const {
        std::vector<uint8_t> rows(topDown.size());
        const size_t stride = static_cast<size_t>(width) * 4;
        for (int y = 0; y < height; ++y) {
            std::copy_n(&topDown[y * stride], stride, &rows[(height - 1 - y) * stride]);
        }
        return rows;
    }
};

// Opaque 4 x 4 blocks of distinct colours: bilinear sampling is exact inside a
// block, so scaled draws can be checked tightly away from block edges.
Picture BlockPicture(int width, int height) {
    Picture p{width, height, std::vector<uint8_t>(static_cast<size_t>(width) * height * 4)};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            uint8_t* px = &p.topDown[(static_cast<size_t>(y) * width + x) * 4];
            const int block = (y / 4) * 16 + x / 4;
            px[0] = static_cast<uint8_t>(block * 37);
            px[1] = static_cast<uint8_t>(255 - block * 23);
            px[2] = static_cast<uint8_t>(block * 71 + 40);
            px[3] = 255;
        }
    }
    return p;
}

class GpuCombinerTest : public lumets::test::GlTest<kTargetWidth, kTargetHeight> {
  protected:
    void SetUp() override {
        GlTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        m_combiner = CProcessorFactory::CreateCombiner();
        ASSERT_NE(m_combiner, nullptr);
        ASSERT_TRUE(m_combiner->Init());
        m_texture = CGLObjectFactory::CreateTexture();
        m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
    }
    void TearDown() override {
        CProcessorFactory::DestroyCombiner(m_combiner);
        CGLObjectFactory::DestroyPBO(m_pbo);
        if (m_texture != 0) {
            glDeleteTextures(1, &m_texture);
        }
    }

    void Upload(const Picture& picture) {
        const std::vector<uint8_t> rows = picture.BottomUp();
        m_pbo->Resize(picture.width, picture.height);
        ASSERT_TRUE(
            m_pbo->Upload(m_texture, rows.data(), static_cast<uint32_t>(rows.size()), GL_BGRA));
    }

    // Framebuffer pixel at top-down (x, y): FBO row 0 is the bottom row.
    const uint8_t* Pixel(const std::vector<uint8_t>& fb, int x, int y) const {
        return &fb[(static_cast<size_t>(kTargetHeight - 1 - y) * kTargetWidth + x) * 4];
    }

    IGPUCombiner* m_combiner = nullptr;
    GLuint m_texture = 0;
    IPBO* m_pbo = nullptr;
};

TEST_F(GpuCombinerTest, DrawsASubRectangleExactlyAtScaleOne) {
    const Picture picture = BlockPicture(16, 12);
    Upload(picture);
    const RECT destination{10, 5, 18, 11};
    const RECT source{4, 3, 12, 9};
    ASSERT_TRUE(m_combiner->SetDestination(&destination, kTargetWidth, kTargetHeight, 0));
    ASSERT_TRUE(m_combiner->SetSource(&source, 16, 12, 0));
    ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));
    EXPECT_EQ(m_combiner->GetDrawCount(), 1u);

    const std::vector<uint8_t> fb = m_gl.ReadPixels();
    for (int y = 0; y < kTargetHeight; ++y) {
        for (int x = 0; x < kTargetWidth; ++x) {
            const uint8_t* got = Pixel(fb, x, y);
            const bool inside = x >= 10 && x < 18 && y >= 5 && y < 11;
            const uint8_t none[4] = {0, 0, 0, 0};
            const uint8_t* want = inside ? picture.At(x - 10 + 4, y - 5 + 3) : none;
            ASSERT_TRUE(std::equal(got, got + 4, want)) << "at " << x << "," << y;
        }
    }
}

// Scaled draws are bilinear: every pixel must lie within the range of the four
// texels around its sample point (plus 1 for rounding), and the area covered
// must be exactly the destination in pixels.
TEST_F(GpuCombinerTest, ScaledDrawsCoverTheScaledDestinationWithinSampleBounds) {
    const Picture picture = BlockPicture(16, 12);
    Upload(picture);
    struct Case {
        float scale;
        RECT destination;  // item units
        RECT source;
    };
    for (const Case& c :
         {Case{2.f, {5, 3, 13, 9}, {4, 4, 12, 10}}, Case{0.5f, {20, 10, 52, 34}, {0, 0, 16, 12}},
          Case{1.f, {0, 0, 16, 12}, {0, 0, 16, 12}}}) {
        SCOPED_TRACE(testing::Message() << "scale " << c.scale);
        m_gl.Clear(0, 0, 0, 0);
        const auto targetWidth = static_cast<int32_t>(kTargetWidth / c.scale);
        const auto targetHeight = static_cast<int32_t>(kTargetHeight / c.scale);
        ASSERT_TRUE(m_combiner->SetDestination(&c.destination, targetWidth, targetHeight, 0));
        ASSERT_TRUE(m_combiner->SetSource(&c.source, 16, 12, 0));
        ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));

        const double left = c.destination.left * c.scale;
        const double top = c.destination.top * c.scale;
        const double right = c.destination.right * c.scale;
        const double bottom = c.destination.bottom * c.scale;
        const double texelsPerPixelX = (c.source.right - c.source.left) / (right - left);
        const double texelsPerPixelY = (c.source.bottom - c.source.top) / (bottom - top);
        const std::vector<uint8_t> fb = m_gl.ReadPixels();
        int covered = 0;
        for (int y = 0; y < kTargetHeight; ++y) {
            for (int x = 0; x < kTargetWidth; ++x) {
                const uint8_t* got = Pixel(fb, x, y);
                if (x + 0.5 < left || x + 0.5 > right || y + 0.5 < top || y + 0.5 > bottom) {
                    ASSERT_EQ(got[3], 0) << "outside at " << x << "," << y;
                    continue;
                }
                ++covered;
                const double sx = c.source.left + (x + 0.5 - left) * texelsPerPixelX - 0.5;
                const double sy = c.source.top + (y + 0.5 - top) * texelsPerPixelY - 0.5;
                for (int ch = 0; ch < 4; ++ch) {
                    int lo = 255;
                    int hi = 0;
                    for (int dy = 0; dy < 2; ++dy) {
                        for (int dx = 0; dx < 2; ++dx) {
                            const int tx = std::clamp(static_cast<int>(std::floor(sx)) + dx, 0, 15);
                            const int ty = std::clamp(static_cast<int>(std::floor(sy)) + dy, 0, 11);
                            lo = std::min<int>(lo, picture.At(tx, ty)[ch]);
                            hi = std::max<int>(hi, picture.At(tx, ty)[ch]);
                        }
                    }
                    ASSERT_GE(got[ch], lo - 1) << "at " << x << "," << y << " channel " << ch;
                    ASSERT_LE(got[ch], hi + 1) << "at " << x << "," << y << " channel " << ch;
                }
            }
        }
        EXPECT_EQ(covered, static_cast<int>((right - left) * (bottom - top)));
    }
}

TEST_F(GpuCombinerTest, BlendsStraightAlphaOverTheFramebuffer) {
    Picture picture{16, 16, std::vector<uint8_t>(16 * 16 * 4)};
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            uint8_t* px = &picture.topDown[(y * 16 + x) * 4];
            px[0] = static_cast<uint8_t>(x * 16);
            px[1] = static_cast<uint8_t>(255 - y * 13);
            px[2] = static_cast<uint8_t>(x * y);
            px[3] = static_cast<uint8_t>(y * 16 + x);  // every alpha from 0 to 255
        }
    }
    Upload(picture);
    const uint8_t background[4] = {200, 100, 50, 255};
    m_gl.Clear(background[0], background[1], background[2], background[3]);
    const RECT destination{3, 2, 19, 18};
    // Flag 1 draws the whole texture: the earlier source must be ignored.
    const RECT staleSource{0, 0, 2, 2};
    ASSERT_TRUE(m_combiner->SetSource(&staleSource, 16, 16, 0));
    ASSERT_TRUE(m_combiner->SetDestination(&destination, kTargetWidth, kTargetHeight, 1));
    ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));

    const std::vector<uint8_t> fb = m_gl.ReadPixels();
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            const uint8_t* s = picture.At(x, y);
            const uint8_t* got = Pixel(fb, x + 3, y + 2);
            const int a = s[3];
            for (int ch = 0; ch < 3; ++ch) {
                const int want = ((255 - a) * background[ch] + s[ch] * a) / 255;
                ASSERT_NEAR(got[ch], want, 1) << "at " << x << "," << y << " alpha " << a;
            }
            ASSERT_EQ(got[3], 255);
        }
    }
    EXPECT_TRUE(std::equal(Pixel(fb, 2, 2), Pixel(fb, 2, 2) + 4, background));

    // Over a transparent framebuffer the alpha that lands is the source's,
    // scaled by the opacity.
    m_gl.Clear(0, 0, 0, 0);
    m_combiner->SetOpacity(0.5f);
    EXPECT_FLOAT_EQ(m_combiner->GetOpacity(), 0.5f);
    ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));
    const std::vector<uint8_t> faded = m_gl.ReadPixels();
    for (int x = 0; x < 16; ++x) {
        EXPECT_NEAR(Pixel(faded, x + 3, 17)[3], picture.At(x, 15)[3] / 2, 1);
    }
}

TEST_F(GpuCombinerTest, LeavesTheCallersStateAsFound) {
    const Picture picture = BlockPicture(16, 12);
    Upload(picture);

    GLuint vertexArray = 0;
    GLuint buffer = 0;
    GLuint texture0 = 0;
    GLuint texture3 = 0;
    glGenVertexArrays(1, &vertexArray);
    glGenBuffers(1, &buffer);
    glGenTextures(1, &texture0);
    glGenTextures(1, &texture3);
    const GLuint program = glCreateProgram();
    glBindVertexArray(vertexArray);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture0);
    glActiveTexture(GL_TEXTURE3);
    glBindTexture(GL_TEXTURE_2D, texture3);
    glDisable(GL_BLEND);
    glBlendFuncSeparate(GL_ONE, GL_ZERO, GL_DST_COLOR, GL_SRC_ALPHA);
    glEnable(GL_DEPTH_TEST);
    glViewport(0, 0, kTargetWidth, kTargetHeight);

    const RECT destination{0, 0, 16, 12};
    ASSERT_TRUE(m_combiner->SetDestination(&destination, kTargetWidth, kTargetHeight, 1));
    ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));
    // The caller's depth test did not hide the quad.
    EXPECT_EQ(m_gl.PixelAt(0, kTargetHeight - 1) >> 24, 255u);

    auto integer = [](GLenum name) {
        GLint value = 0;
        glGetIntegerv(name, &value);
        return value;
    };
    EXPECT_EQ(integer(GL_CURRENT_PROGRAM), 0);  // an unlinked program cannot be current
    EXPECT_EQ(integer(GL_VERTEX_ARRAY_BINDING), static_cast<GLint>(vertexArray));
    EXPECT_EQ(integer(GL_ARRAY_BUFFER_BINDING), static_cast<GLint>(buffer));
    EXPECT_EQ(integer(GL_ACTIVE_TEXTURE), GL_TEXTURE3);
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), static_cast<GLint>(texture3));
    glActiveTexture(GL_TEXTURE0);
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), static_cast<GLint>(texture0));
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    EXPECT_TRUE(glIsEnabled(GL_DEPTH_TEST));
    EXPECT_EQ(integer(GL_BLEND_SRC_RGB), GL_ONE);
    EXPECT_EQ(integer(GL_BLEND_DST_RGB), GL_ZERO);
    EXPECT_EQ(integer(GL_BLEND_SRC_ALPHA), GL_DST_COLOR);
    EXPECT_EQ(integer(GL_BLEND_DST_ALPHA), GL_SRC_ALPHA);
    GLint viewport[4] = {};
    glGetIntegerv(GL_VIEWPORT, viewport);
    EXPECT_EQ(viewport[2], kTargetWidth);
    EXPECT_EQ(viewport[3], kTargetHeight);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));

    glDisable(GL_DEPTH_TEST);
    glDeleteProgram(program);
    glDeleteVertexArrays(1, &vertexArray);
    glDeleteBuffers(1, &buffer);
    glDeleteTextures(1, &texture0);
    glDeleteTextures(1, &texture3);
}

TEST_F(GpuCombinerTest, RefusesDrawsWithoutTextureOrRectangles) {
    const RECT empty{5, 5, 5, 9};
    const RECT valid{0, 0, 4, 4};
    EXPECT_FALSE(m_combiner->DrawTexture(m_texture, 1));  // nothing set yet
    EXPECT_FALSE(m_combiner->SetDestination(nullptr, kTargetWidth, kTargetHeight, 0));
    EXPECT_FALSE(m_combiner->SetDestination(&empty, kTargetWidth, kTargetHeight, 0));
    EXPECT_FALSE(m_combiner->SetDestination(&valid, 0, kTargetHeight, 0));
    ASSERT_TRUE(m_combiner->SetDestination(&valid, kTargetWidth, kTargetHeight, 0));
    EXPECT_FALSE(m_combiner->DrawTexture(m_texture, 1));  // flag 0 needs a source
    EXPECT_FALSE(m_combiner->SetSource(&valid, 0, 4, 0));
    ASSERT_TRUE(m_combiner->SetSource(&valid, 4, 4, 0));
    EXPECT_FALSE(m_combiner->DrawTexture(0, 1));
    RECT gotDestination{};
    RECT gotSource{};
    m_combiner->GetRects(&gotDestination, &gotSource);
    EXPECT_EQ(gotDestination.right, 4);
    EXPECT_EQ(gotSource.bottom, 4);
    EXPECT_EQ(m_combiner->GetDrawCount(), 0u);

    m_combiner->Clear(0x80FF0000u);
    EXPECT_EQ(m_gl.PixelAt(1, 1), 0x80FF0000u);

    // After Release, drawing needs a new Init.
    Upload(BlockPicture(4, 4));
    m_combiner->Release();
    EXPECT_FALSE(m_combiner->DrawTexture(m_texture, 1));
    ASSERT_TRUE(m_combiner->Init());
    EXPECT_TRUE(m_combiner->DrawTexture(m_texture, 1));
}

}  // namespace
