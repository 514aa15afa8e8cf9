#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "common/gl_context.h"
#include "lumets/host/flash_player.h"
#include "lumets/host/gl_objects.h"
#include "lumets/time_source.h"
#include "media/media_files.h"

namespace {

using lumets::test::AlphaAt;
using lumets::test::kColours;
using lumets::test::kMovieHeight;
using lumets::test::kMovieWidth;
using lumets::test::MediaFiles;

using RenderToTextureTest = lumets::test::GlTest<4, 4>;

// The current frame lands in the texture bottom-up, straight alpha intact,
// and follows the movie as it plays.
TEST_F(RenderToTextureTest, UploadsTheCurrentFrameThroughThePixelBuffer) {
    lumets::SetTimeMode(lumets::TimeMode::Virtual);
    IFlashPlayer* player = CreateFlashPlayer();
    player->Open(MediaFiles::Instance().Path16("anim.apng").c_str(), 0, false);
    const GLuint texture = CGLObjectFactory::CreateTexture();
    IPBO* pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);

    for (int frame : {0, 1}) {
        uint32_t width = 0;
        uint32_t height = 0;
        ASSERT_TRUE(player->RenderToTexture(texture, &width, &height, pbo));
        EXPECT_EQ(width, static_cast<uint32_t>(kMovieWidth));
        EXPECT_EQ(height, static_cast<uint32_t>(kMovieHeight));
        const std::vector<uint8_t> pixels =
            lumets::host::CHeadlessGl::ReadBackTexture(texture, kMovieWidth, kMovieHeight);
        for (int y = 0; y < kMovieHeight; ++y) {
            for (int x = 0; x < kMovieWidth; ++x) {
                // GL row 0 is the picture's bottom row.
                const uint8_t* p = &pixels[((kMovieHeight - 1 - y) * kMovieWidth + x) * 4];
                const uint8_t alpha = AlphaAt(x, y, true);
                ASSERT_EQ(p[3], alpha) << x << "," << y;
                if (alpha != 0) {
                    ASSERT_EQ(p[0], kColours[frame].b);
                    ASSERT_EQ(p[1], kColours[frame].g);
                    ASSERT_EQ(p[2], kColours[frame].r);
                }
            }
        }
        player->Play();
        lumets::AdvanceBy(100);
        player->Pause();
    }

    uint32_t width = 0;
    uint32_t height = 0;
    EXPECT_FALSE(player->RenderToTexture(0, &width, &height, pbo));
    EXPECT_FALSE(player->RenderToTexture(texture, &width, &height, nullptr));
    EXPECT_EQ(width, static_cast<uint32_t>(kMovieWidth));  // the size is still reported

    DeleteFlashPlayer(player);
    CGLObjectFactory::DestroyPBO(pbo);
    glDeleteTextures(1, &texture);
    lumets::SetTimeMode(lumets::TimeMode::Real);
}

}  // namespace
