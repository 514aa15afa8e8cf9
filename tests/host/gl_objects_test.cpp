#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "common/gl_context.h"
#include "lumets/host/gl_objects.h"

namespace {

using GlObjectsTest = lumets::test::GlTest<8, 8>;

std::vector<uint8_t> RandomPicture(int width, int height, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 4);
    for (uint8_t& byte : pixels) {
        byte = static_cast<uint8_t>(random());
    }
    return pixels;
}

struct PboDeleter {
    void operator()(IPBO* pbo) const { CGLObjectFactory::DestroyPBO(pbo); }
};
using PboPtr = std::unique_ptr<IPBO, PboDeleter>;

GLint GetInteger(GLenum name) {
    GLint value = 0;
    glGetIntegerv(name, &value);
    return value;
}

TEST_F(GlObjectsTest, FactoryAcceptsOnlyTheUnpackTypeAt32Bits) {
    PboPtr pbo(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32));
    ASSERT_NE(pbo, nullptr);
    EXPECT_EQ(pbo->GetBufferName(), 0u);
    EXPECT_EQ(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 24), nullptr);
    EXPECT_EQ(CGLObjectFactory::CreatePBO(static_cast<EnumPBOType>(2), 32), nullptr);
    CGLObjectFactory::DestroyPBO(nullptr);

    const GLuint texture = CGLObjectFactory::CreateTexture();
    ASSERT_NE(texture, 0u);
    EXPECT_TRUE(glIsTexture(texture));
    glDeleteTextures(1, &texture);
}

// Odd widths catch row-alignment mistakes; a second size catches a texture
// that is not re-specified; a second upload of the same size takes the
// sub-image path.
TEST_F(GlObjectsTest, UploadsReadBackByteForByte) {
    const GLuint texture = CGLObjectFactory::CreateTexture();
    PboPtr pbo(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32));
    ASSERT_NE(texture, 0u);
    ASSERT_NE(pbo, nullptr);

    struct Case {
        int width;
        int height;
        uint32_t seed;
    };
    for (const Case& c : {Case{37, 23, 1}, Case{37, 23, 2}, Case{5, 61, 3}, Case{64, 1, 4}}) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " seed " << c.seed);
        const std::vector<uint8_t> picture = RandomPicture(c.width, c.height, c.seed);
        pbo->Resize(c.width, c.height);
        EXPECT_EQ(pbo->GetWidth(), c.width);
        EXPECT_EQ(pbo->GetHeight(), c.height);
        ASSERT_TRUE(
            pbo->Upload(texture, picture.data(), static_cast<uint32_t>(picture.size()), GL_BGRA));
        EXPECT_NE(pbo->GetBufferName(), 0u);
        EXPECT_GE(pbo->GetCapacity(), picture.size());
        // Bottom-up rows in, bottom-up rows out: GL row 0 is the picture's first row.
        EXPECT_EQ(lumets::host::CHeadlessGl::ReadBackTexture(texture, c.width, c.height), picture);

        std::vector<uint8_t> downloaded(picture.size());
        ASSERT_TRUE(pbo->Download(texture, downloaded.data(),
                                  static_cast<uint32_t>(downloaded.size()), GL_BGRA));
        EXPECT_EQ(downloaded, picture);
    }
    glDeleteTextures(1, &texture);
}

TEST_F(GlObjectsTest, BadUploadsReturnFalseAndLeaveTheTexture) {
    const GLuint texture = CGLObjectFactory::CreateTexture();
    PboPtr pbo(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32));
    const std::vector<uint8_t> picture = RandomPicture(8, 4, 7);
    const auto size = static_cast<uint32_t>(picture.size());

    // Nothing sized yet.
    EXPECT_FALSE(pbo->Upload(texture, picture.data(), size, GL_BGRA));
    pbo->Resize(8, 4);
    ASSERT_TRUE(pbo->Upload(texture, picture.data(), size, GL_BGRA));

    const std::vector<uint8_t> other = RandomPicture(8, 4, 8);
    EXPECT_FALSE(pbo->Upload(texture, other.data(), size - 1, GL_BGRA));
    EXPECT_FALSE(pbo->Upload(texture, other.data(), 0, GL_BGRA));
    EXPECT_FALSE(pbo->Upload(texture, nullptr, size, GL_BGRA));
    EXPECT_FALSE(pbo->Upload(0, other.data(), size, GL_BGRA));
    EXPECT_FALSE(pbo->Upload(texture, other.data(), size, GL_RGB));
    // A name OpenGL never made: the bind fails inside GL and is reported.
    EXPECT_FALSE(pbo->Upload(987654u, other.data(), size, GL_BGRA));
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(lumets::host::CHeadlessGl::ReadBackTexture(texture, 8, 4), picture);

    // Sizes whose byte count does not fit 32 bits are refused, not wrapped.
    pbo->Resize(65536, 65536);
    EXPECT_FALSE(pbo->Upload(texture, other.data(), UINT32_MAX, GL_BGRA));
    pbo->Resize(-3, 4);
    EXPECT_EQ(pbo->GetWidth(), 0);
    EXPECT_FALSE(pbo->Upload(texture, other.data(), size, GL_BGRA));

    // Download refuses a buffer smaller than the texture it would read.
    pbo->Resize(8, 4);
    std::vector<uint8_t> back(picture.size());
    EXPECT_FALSE(pbo->Download(texture, back.data(), size - 1, GL_BGRA));
    pbo->Resize(4, 4);
    EXPECT_FALSE(pbo->Download(texture, back.data(), size, GL_BGRA));
    glDeleteTextures(1, &texture);
}

TEST_F(GlObjectsTest, UploadRestoresTheCallersBindingsAndPixelStore) {
    const GLuint texture = CGLObjectFactory::CreateTexture();
    PboPtr pbo(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32));
    GLuint callerBuffer = 0;
    glGenBuffers(1, &callerBuffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, callerBuffer);
    glBufferData(GL_PIXEL_UNPACK_BUFFER, 16, nullptr, GL_STREAM_DRAW);
    GLuint callerTexture = 0;
    glGenTextures(1, &callerTexture);
    glBindTexture(GL_TEXTURE_2D, callerTexture);
    // Caller pixel-store settings that would garble our rows if we used them.
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 3);

    const std::vector<uint8_t> picture = RandomPicture(5, 3, 9);
    pbo->Resize(5, 3);
    ASSERT_TRUE(
        pbo->Upload(texture, picture.data(), static_cast<uint32_t>(picture.size()), GL_BGRA));

    EXPECT_EQ(GetInteger(GL_PIXEL_UNPACK_BUFFER_BINDING), static_cast<GLint>(callerBuffer));
    EXPECT_EQ(GetInteger(GL_TEXTURE_BINDING_2D), static_cast<GLint>(callerTexture));
    EXPECT_EQ(GetInteger(GL_UNPACK_ALIGNMENT), 8);
    EXPECT_EQ(GetInteger(GL_UNPACK_ROW_LENGTH), 3);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    EXPECT_EQ(lumets::host::CHeadlessGl::ReadBackTexture(texture, 5, 3), picture);

    glDeleteBuffers(1, &callerBuffer);
    glDeleteTextures(1, &callerTexture);
    glDeleteTextures(1, &texture);
}

TEST_F(GlObjectsTest, WithoutACurrentContextEverythingFailsQuietly) {
    PboPtr pbo(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32));
    const std::vector<uint8_t> picture = RandomPicture(4, 4, 10);
    pbo->Resize(4, 4);
    const GLuint texture = CGLObjectFactory::CreateTexture();
    ASSERT_TRUE(pbo->Upload(texture, picture.data(), 64, GL_BGRA));

    m_gl.ReleaseCurrent();
    EXPECT_EQ(CGLObjectFactory::CreateTexture(), 0u);
    EXPECT_FALSE(pbo->Upload(texture, picture.data(), 64, GL_BGRA));
    pbo->Init(4, 4);
    CGLObjectFactory::DestroyPBO(pbo.release());
    ASSERT_TRUE(m_gl.MakeCurrent());
    glDeleteTextures(1, &texture);
}

}  // namespace
