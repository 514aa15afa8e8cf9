// The virtual scene: an animated PNG played by the host library's real media
// player into the manager's texture on headless OpenGL, in virtual time.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "common/counting_gl_factory.h"
#include "common/gl_context.h"
#include "common/scratch_files.h"
#include "lumets/time_source.h"
#include "lumets/virtual_scene_manager.h"

namespace lumets {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
// B, G, R, A of the movie's three frames, 100 ms each.
constexpr std::array<uint32_t, 3> kFrames = {0xFF0000FFu, 0xFF00FF00u, 0xFFFF0000u};

class SceneTest : public test::GlTest<kWidth, kHeight> {
  protected:
    void SetUp() override {
        test::GlTest<kWidth, kHeight>::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        std::vector<uint8_t> raw;
        for (const uint32_t colour : kFrames) {
            for (int i = 0; i < kWidth * kHeight; ++i) {
                for (int c = 0; c < 4; ++c) {
                    raw.push_back(static_cast<uint8_t>(colour >> (8 * c)));
                }
            }
        }
        ASSERT_TRUE(test::WriteBytes(m_dir.File("frames.bgra"), raw));
        ASSERT_TRUE(test::RunCommand("cd " + test::Quote(m_dir.Path().string()) +
                                     " && ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt bgra "
                                     "-s 64x48 -r 10 -i frames.bgra -plays 0 -f apng scene.apng"));
        SetTimeMode(TimeMode::Virtual);
    }
    void TearDown() override { SetTimeMode(TimeMode::Real); }

    // The first pixel of the scene texture, read back through a buffer object.
    uint32_t TexturePixel(GLuint texture) {
        IPBO* pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        pbo->Resize(kWidth, kHeight);
        std::vector<uint32_t> pixels(kWidth * kHeight);
        EXPECT_TRUE(pbo->Download(texture, pixels.data(), static_cast<uint32_t>(pixels.size() * 4),
                                  GL_BGRA));
        CGLObjectFactory::DestroyPBO(pbo);
        return pixels[0];
    }

    test::ScratchDir m_dir;
};

TEST_F(SceneTest, PlaysTheMovieIntoOneTextureAsTimeGoesOn) {
    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    EXPECT_EQ(scene->GetSceneTexture(), 0u);
    scene->StopScene();  // no player yet: nothing happens
    EXPECT_FALSE(scene->IsScenePlaying());
    scene->OpenScene(m_dir.File16("scene.apng").c_str(), 7);
    WaitUntilSettled();
    EXPECT_TRUE(scene->IsScenePlaying());
    scene->RenderScene(0, 0);
    const GLuint texture = scene->GetSceneTexture();
    ASSERT_NE(texture, 0u);
    std::vector<uint32_t> shown;
    for (int i = 0; i < 4; ++i) {
        scene->RenderScene(1920, 1080);
        EXPECT_EQ(scene->GetSceneTexture(), texture);
        shown.push_back(TexturePixel(texture));
        AdvanceBy(100);
    }
    EXPECT_EQ(shown, (std::vector<uint32_t>{kFrames[0], kFrames[1], kFrames[2], kFrames[0]}));

    // A missing or null path keeps the scene playing; a stop stops it and
    // keeps the last frame in the texture.
    scene->OpenScene(m_dir.File16("missing.apng").c_str(), 0);
    scene->OpenScene(nullptr, 0);
    EXPECT_TRUE(scene->IsScenePlaying());
    scene->StopScene();
    EXPECT_FALSE(scene->IsScenePlaying());
    EXPECT_EQ(TexturePixel(texture), kFrames[0]);
    DeleteVirtualSceneManager(scene);
    EXPECT_EQ(glIsTexture(texture), GL_FALSE);
}

// The GL objects come with the first RenderScene and go with the manager;
// a manager that never rendered makes and destroys none.
TEST_F(SceneTest, MakesItsGlObjectsLazilyAndFreesThem) {
    const test::CountingGlFactory counting;
    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    scene->OpenScene(nullptr, 0);
    EXPECT_FALSE(scene->IsScenePlaying());
    DeleteVirtualSceneManager(scene);
    EXPECT_EQ(counting.textures + counting.buffers, 0);

    scene = CreateVirtualSceneManager();
    scene->RenderScene(0, 0);  // no player: the objects only
    EXPECT_EQ(std::pair(counting.textures.load(), counting.buffers.load()), std::pair(1, 1));
    DeleteVirtualSceneManager(scene);
    EXPECT_EQ(counting.buffers, 0);
}

}  // namespace
}  // namespace lumets
