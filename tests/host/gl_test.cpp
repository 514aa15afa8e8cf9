// Pixel-buffer uploads and the GPU combiner on a real headless OpenGL context:
// what goes up is read back or drawn and compared pixel by pixel.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "common/gl_context.h"
#include "lumets/host/gl_objects.h"
#include "lumets/host/gpu_combiner.h"

namespace lumets::test {
namespace {

constexpr int kTargetWidth = 64;
constexpr int kTargetHeight = 48;

// The first value of a state that may have up to four (the viewport).
GLint GetInteger(GLenum name) {
    GLint values[4] = {};
    glGetIntegerv(name, values);
    return values[0];
}

// B, G, R, A rows stored bottom-up, as OpenGL keeps them; At() takes top-down
// coordinates, as the rectangles do.
struct Picture {
    int width;
    int height;
    std::vector<uint8_t> rows;
    const uint8_t* At(int x, int y) const {
        return &rows[(static_cast<size_t>(height - 1 - y) * width + x) * 4];
    }
};

template <typename Fill>
Picture MakePicture(int width, int height, Fill fill) {
    Picture p{width, height, std::vector<uint8_t>(static_cast<size_t>(width) * height * 4)};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            fill(x, y, &p.rows[(static_cast<size_t>(height - 1 - y) * width + x) * 4]);
        }
    }
    return p;
}

Picture RandomPicture(int width, int height, uint32_t seed) {
    Picture p{width, height, std::vector<uint8_t>(static_cast<size_t>(width) * height * 4)};
    std::generate(p.rows.begin(), p.rows.end(), std::mt19937(seed));
    return p;
}

class GlHostTest : public GlTest<kTargetWidth, kTargetHeight> {
  protected:
    void SetUp() override {
        GlTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        m_texture = CGLObjectFactory::CreateTexture();
        ASSERT_TRUE(m_combiner->Init());
    }
    void TearDown() override {
        CProcessorFactory::DestroyCombiner(m_combiner);
        CGLObjectFactory::DestroyPBO(m_pbo);
    }

    bool Upload(const Picture& picture) {
        m_pbo->Resize(picture.width, picture.height);
        const auto size = static_cast<uint32_t>(picture.rows.size());
        return m_pbo->Upload(m_texture, picture.rows.data(), size, GL_BGRA);
    }
    std::vector<uint8_t> ReadBack(int width, int height) const {
        return host::CHeadlessGl::ReadBackTexture(m_texture, width, height);
    }
    Picture Framebuffer() const { return {kTargetWidth, kTargetHeight, m_gl.ReadPixels()}; }

    GLuint m_texture = 0;
    IPBO* m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
    IGPUCombiner* m_combiner = CProcessorFactory::CreateCombiner();
};

// Odd widths catch row-alignment mistakes; a second size catches a texture
// left at its old size; a second upload of the same size takes the sub-image
// path.
TEST_F(GlHostTest, UploadsReadBackByteForByte) {
    EXPECT_EQ(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 24), nullptr);
    EXPECT_EQ(CGLObjectFactory::CreatePBO(static_cast<EnumPBOType>(2), 32), nullptr);
    EXPECT_EQ(m_pbo->GetBufferName(), 0u);
    const std::tuple<int, int, uint32_t> cases[] = {
        {37, 23, 1}, {37, 23, 2}, {5, 61, 3}, {64, 1, 4}};
    for (const auto& [width, height, seed] : cases) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << " seed " << seed);
        const Picture picture = RandomPicture(width, height, seed);
        const auto size = static_cast<uint32_t>(picture.rows.size());
        m_pbo->Init(width, height);
        EXPECT_NE(m_pbo->GetBufferName(), 0u);
        EXPECT_GE(m_pbo->GetCapacity(), size);
        ASSERT_TRUE(m_pbo->Upload(m_texture, picture.rows.data(), size, GL_BGRA));
        EXPECT_EQ(ReadBack(width, height), picture.rows);
        std::vector<uint8_t> downloaded(size);
        ASSERT_TRUE(m_pbo->Download(m_texture, downloaded.data(), size, GL_BGRA));
        EXPECT_EQ(downloaded, picture.rows);
    }
}

// Each refused upload leaves the texture as it was. The name 987654 was never
// made by OpenGL, so its bind fails inside GL; sizes whose byte count does not
// fit 32 bits are refused, not wrapped.
TEST_F(GlHostTest, BadTransfersReturnFalseAndLeaveTheTexture) {
    const Picture picture = RandomPicture(8, 4, 7);
    const uint8_t* pixels = picture.rows.data();
    const auto size = static_cast<uint32_t>(picture.rows.size());
    EXPECT_FALSE(m_pbo->Upload(m_texture, pixels, size, GL_BGRA));  // nothing sized yet
    ASSERT_TRUE(Upload(RandomPicture(8, 4, 8)));
    const std::vector<uint8_t> before = ReadBack(8, 4);
    const std::tuple<int, int, GLuint, const uint8_t*, uint32_t, GLenum> cases[] = {
        {8, 4, m_texture, pixels, size - 1, GL_BGRA},
        {8, 4, m_texture, pixels, 0, GL_BGRA},
        {8, 4, m_texture, nullptr, size, GL_BGRA},
        {8, 4, 0, pixels, size, GL_BGRA},
        {8, 4, m_texture, pixels, size, GL_RGB},
        {8, 4, 987654u, pixels, size, GL_BGRA},
        {-3, 4, m_texture, pixels, size, GL_BGRA},
        {65536, 65536, m_texture, pixels, UINT32_MAX, GL_BGRA}};
    for (const auto& [width, height, texture, data, bytes, format] : cases) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << " texture " << texture
                                        << " size " << bytes << " format " << format);
        m_pbo->Resize(width, height);
        EXPECT_GE(m_pbo->GetWidth(), 0);
        EXPECT_FALSE(m_pbo->Upload(texture, data, bytes, format));
    }
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(ReadBack(8, 4), before);

    // Download refuses a buffer smaller than the texture it would read.
    std::vector<uint8_t> back(size);
    m_pbo->Resize(8, 4);
    EXPECT_FALSE(m_pbo->Download(m_texture, back.data(), size - 1, GL_BGRA));
    m_pbo->Resize(4, 4);
    EXPECT_FALSE(m_pbo->Download(m_texture, back.data(), size, GL_BGRA));
}

// Every pixel of the target is checked. At scale 1 each pixel samples one
// texel at its centre; scaled draws are bilinear, so a pixel must lie within
// the range of the four texels around its sample point. Texels blend "over"
// the background with straight alpha times the opacity; outside the
// destination the background stays as it was. An empty source stands for
// flag 1, which draws the whole texture and ignores the source set before.
TEST_F(GlHostTest, DrawsTheSourceOverTheDestinationAtAnyScale) {
    // Opaque 4 x 4 blocks of distinct colours: bilinear sampling is exact inside
    // a block, so scaled draws can be checked tightly away from block edges.
    const Picture blocks = MakePicture(16, 12, [](int x, int y, uint8_t* px) {
        const int block = (y / 4) * 16 + x / 4;
        px[0] = static_cast<uint8_t>(block * 37);
        px[1] = static_cast<uint8_t>(255 - block * 23);
        px[2] = static_cast<uint8_t>(block * 71 + 40);
        px[3] = 255;
    });
    const Picture alphas = MakePicture(16, 16, [](int x, int y, uint8_t* px) {
        px[0] = static_cast<uint8_t>(x * 16);
        px[1] = static_cast<uint8_t>(255 - y * 13);
        px[2] = static_cast<uint8_t>(x * y);
        px[3] = static_cast<uint8_t>(y * 16 + x);  // every alpha from 0 to 255
    });
    const std::array<uint8_t, 4> none = {0, 0, 0, 0}, opaque = {200, 100, 50, 255};
    // Picture, scale, destination in item units, source, background, opacity and
    // the tolerance of each channel.
    const std::tuple<const Picture*, double, RECT, RECT, std::array<uint8_t, 4>, float, int>
        cases[] = {{&blocks, 1.0, {10, 5, 18, 11}, {4, 3, 12, 9}, none, 1.f, 0},
                   {&blocks, 2.0, {5, 3, 13, 9}, {4, 4, 12, 10}, none, 1.f, 1},
                   {&blocks, 0.5, {20, 10, 52, 34}, {0, 0, 16, 12}, none, 1.f, 1},
                   {&alphas, 1.0, {3, 2, 19, 18}, {}, opaque, 1.f, 1},
                   {&alphas, 1.0, {3, 2, 19, 18}, {}, none, 0.5f, 1}};
    uint32_t draws = 0;
    for (const auto& [texture, scale, destination, from, background, opacity, tolerance] : cases) {
        SCOPED_TRACE(testing::Message() << "case " << draws);
        const Picture& picture = *texture;
        ASSERT_TRUE(Upload(picture));
        m_gl.Clear(background[0], background[1], background[2], background[3]);
        m_combiner->SetOpacity(opacity);
        EXPECT_EQ(m_combiner->GetOpacity(), opacity);
        const bool whole = from.right == 0;
        const RECT stale{0, 0, 2, 2};
        const RECT source = whole ? RECT{0, 0, picture.width, picture.height} : from;
        ASSERT_TRUE(
            m_combiner->SetSource(whole ? &stale : &source, picture.width, picture.height, 0));
        ASSERT_TRUE(
            m_combiner->SetDestination(&destination, static_cast<int32_t>(kTargetWidth / scale),
                                       static_cast<int32_t>(kTargetHeight / scale), whole ? 1 : 0));
        ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));
        EXPECT_EQ(m_combiner->GetDrawCount(), ++draws);

        const int taps = scale == 1.0 ? 1 : 2;
        const double left = destination.left * scale, right = destination.right * scale;
        const double top = destination.top * scale, bottom = destination.bottom * scale;
        const double kx = (source.right - source.left) / (right - left),
                     ky = (source.bottom - source.top) / (bottom - top);
        const Picture fb = Framebuffer();
        int covered = 0;
        for (int y = 0; y < kTargetHeight; ++y) {
            for (int x = 0; x < kTargetWidth; ++x) {
                const uint8_t* got = fb.At(x, y);
                if (x + 0.5 < left || x + 0.5 > right || y + 0.5 < top || y + 0.5 > bottom) {
                    ASSERT_TRUE(std::equal(got, got + 4, background.begin()))
                        << "outside at " << x << "," << y;
                    continue;
                }
                ++covered;
                const auto sx =
                    static_cast<int>(std::floor(source.left + (x + 0.5 - left) * kx - 0.5));
                const auto sy =
                    static_cast<int>(std::floor(source.top + (y + 0.5 - top) * ky - 0.5));
                for (int ch = 0; ch < 4; ++ch) {
                    double lo = 255;
                    double hi = 0;
                    for (int t = 0; t < taps * taps; ++t) {
                        const uint8_t* s =
                            picture.At(std::clamp(sx + t % taps, 0, picture.width - 1),
                                       std::clamp(sy + t / taps, 0, picture.height - 1));
                        const double a = s[3] / 255.0 * opacity;
                        const double v = (ch < 3 ? s[ch] : 255) * a + background[ch] * (1 - a);
                        lo = std::min(lo, v);
                        hi = std::max(hi, v);
                    }
                    ASSERT_GE(got[ch], lo - tolerance) << "at " << x << "," << y << " ch " << ch;
                    ASSERT_LE(got[ch], hi + tolerance) << "at " << x << "," << y << " ch " << ch;
                }
            }
        }
        EXPECT_EQ(covered, static_cast<int>((right - left) * (bottom - top)));
    }
}

// The host's own bindings, pixel-store settings (which would garble our rows if
// we used them) and draw state survive an upload and a draw.
TEST_F(GlHostTest, UploadsAndDrawsLeaveTheCallersStateAsFound) {
    GLuint buffers[2] = {}, textures[2] = {}, vertexArray = 0;
    glGenBuffers(2, buffers);
    glGenTextures(2, textures);
    glGenVertexArrays(1, &vertexArray);
    glBindVertexArray(vertexArray);
    glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, buffers[1]);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glActiveTexture(GL_TEXTURE3);
    glBindTexture(GL_TEXTURE_2D, textures[1]);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 3);
    glBlendFuncSeparate(GL_ONE, GL_ZERO, GL_DST_COLOR, GL_SRC_ALPHA);
    glEnable(GL_DEPTH_TEST);
    glViewport(1, 2, kTargetWidth, kTargetHeight);
    const std::vector<GLenum> names(
        {GL_PIXEL_UNPACK_BUFFER_BINDING, GL_ARRAY_BUFFER_BINDING, GL_VERTEX_ARRAY_BINDING,
         GL_ACTIVE_TEXTURE, GL_TEXTURE_BINDING_2D, GL_UNPACK_ALIGNMENT, GL_UNPACK_ROW_LENGTH,
         GL_CURRENT_PROGRAM, GL_BLEND_SRC_RGB, GL_BLEND_DST_RGB, GL_BLEND_SRC_ALPHA,
         GL_BLEND_DST_ALPHA, GL_BLEND, GL_DEPTH_TEST, GL_VIEWPORT});
    std::vector<GLint> before(names.size());
    std::transform(names.begin(), names.end(), before.begin(), GetInteger);

    const Picture picture = RandomPicture(5, 3, 9);
    ASSERT_TRUE(Upload(picture));
    const RECT destination{0, 0, 16, 12};
    ASSERT_TRUE(m_combiner->SetDestination(&destination, kTargetWidth, kTargetHeight, 1));
    ASSERT_TRUE(m_combiner->DrawTexture(m_texture, 1));
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(GetInteger(names[i]), before[i]) << "GL state 0x" << std::hex << names[i];
    }
    glActiveTexture(GL_TEXTURE0);
    EXPECT_EQ(GetInteger(GL_TEXTURE_BINDING_2D), static_cast<GLint>(textures[0]));
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(ReadBack(5, 3), picture.rows);
}

// Refusals: draws without texture or rectangles, a combiner after Release, and
// everything without a current context.
TEST_F(GlHostTest, RefusesWhatItCannotDo) {
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
    RECT gotDestination{}, gotSource{};
    m_combiner->GetRects(&gotDestination, &gotSource);
    EXPECT_EQ(gotDestination.right, 4);
    EXPECT_EQ(gotSource.bottom, 4);
    EXPECT_EQ(m_combiner->GetDrawCount(), 0u);
    m_combiner->Clear(0x80FF0000u);
    EXPECT_EQ(m_gl.PixelAt(1, 1), 0x80FF0000u);

    // After Release, drawing needs a new Init.
    const Picture picture = RandomPicture(4, 4, 11);
    ASSERT_TRUE(Upload(picture));
    m_combiner->Release();
    EXPECT_FALSE(m_combiner->DrawTexture(m_texture, 1));
    ASSERT_TRUE(m_combiner->Init());
    EXPECT_TRUE(m_combiner->DrawTexture(m_texture, 1));

    m_gl.ReleaseCurrent();
    EXPECT_EQ(CGLObjectFactory::CreateTexture(), 0u);
    EXPECT_FALSE(Upload(picture));
    EXPECT_FALSE(m_combiner->Init());
    m_combiner->Clear(0xFFFFFFFFu);
    m_pbo->Init(4, 4);
    CGLObjectFactory::DestroyPBO(m_pbo);
    m_pbo = nullptr;
    ASSERT_TRUE(m_gl.MakeCurrent());
    EXPECT_EQ(m_gl.PixelAt(1, 1), 0x80FF0000u);  // the clear without a context did nothing
}

}  // namespace
}  // namespace lumets::test
