// The item's frame drawn for real: a movie played by the host library's
// media player (an animated PNG made with ffmpeg), the plate and an outlined
// text. The CPU composite is a golden picture; here the GPU layers go to a
// recording combiner (the manager's test compares the real combiner's picture
// with the CPU composite at every scale).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/gl_context.h"
#include "common/golden.h"
#include "common/recording_combiner.h"
#include "common/scratch_files.h"
#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"
#include "subtitle/lumet.h"

namespace lumets {
namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 200;
constexpr uint8_t kGrey = 0x40;

class LumetFrameTest : public test::GlTest<kWidth, kHeight> {
  protected:
    void SetUp() override {
        test::GlTest<kWidth, kHeight>::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        SetTimeMode(TimeMode::Virtual);
        const std::string movie = m_dir.File("movie.apng");
        ASSERT_TRUE(test::RunCommand(
            "ffmpeg -nostdin -v error -y -f lavfi -i color=c=0x3060C0:s=80x48:d=1:r=10 "
            "-plays 0 -f apng " +
            test::Quote(movie)));
        std::memset(static_cast<void*>(&m_swf), 0, sizeof m_swf);
        std::copy(movie.begin(), movie.end(), m_swf.szPath);  // the temp folder is ASCII
        m_swf.rcClip = RECT{0, 0, kWidth, kHeight};
        m_swf.x = 20;
        m_swf.y = 20;
        m_text = std::make_unique<TextPart>();
        std::memset(static_cast<void*>(m_text.get()), 0, sizeof(TextPart));
        m_text->style = TextStyle();
        m_text->style.fontSize = 24;
        m_text->style.fillColor1 = m_text->style.fillColor2 = 0xFFFFFF;
        m_text->style.outline = 1;
        m_text->style.outlineWidth = 2;
        std::memcpy(m_text->text, u"Lumets 字幕", sizeof(u"Lumets 字幕"));
        m_text->rcClip = RECT{0, 0, kWidth, kHeight};
        m_text->x = 40;
        m_text->y = 120;
        m_plate = BackgroundPart{0x804020, 80, 0, {}};
        ItemDescription desc{&m_swf, m_text.get(), &m_plate, 0, {}};
        ASSERT_TRUE(m_item.Start(&desc, false, false));
        m_item.SignalPlay();
        AdvanceBy(100);
        ASSERT_EQ(m_item.GetState(), LumetState::Playing);
    }
    void TearDown() override {
        m_item.Stop();
        SetTimeMode(TimeMode::Real);
    }

    test::ScratchDir m_dir;
    SwfPart m_swf;
    std::unique_ptr<TextPart> m_text;
    BackgroundPart m_plate{};
    CLumet m_item;
};

TEST_F(LumetFrameTest, TheCpuCompositeMatchesItsGolden) {
    std::vector<uint8_t> frame(static_cast<size_t>(RowStride(kWidth, 24)) * kHeight, kGrey);
    m_item.CompositeToFrame(frame.data(), kWidth, kHeight, 0, 0, 1.0f);
    EXPECT_TRUE(test::MatchesGolden(std::string(LUMETS_TEST_DATA_DIR) + "/item_frame.png",
                                    PackedPicture(frame.data(), kWidth, kHeight, 24),
                                    test::GoldenTolerance{12, 0.01}));
}

// The calls the layers make, in order, and the plate's top edge, which stops
// at the target's top when the plate would start above it.
TEST_F(LumetFrameTest, LayersCallTheCombinerInOrder) {
    test::RecordingCombiner combiner;
    std::vector<TextureSlot> slots;
    m_item.RenderToTextures(kWidth, kHeight, &combiner, &slots, 0, -200, 1.0f);
    // Moved 200 up, every layer starts above the target: the movie and the
    // text are placed there as they are, the plate's top stops at 0.
    EXPECT_EQ(combiner.calls, "dst0;src;draw;dst1;draw;dst0;src;draw;");
    std::vector<int32_t> tops;
    for (const RECT& dst : combiner.destinations) {
        tops.push_back(dst.top);
    }
    EXPECT_EQ(tops, (std::vector<int32_t>{20 - 200, 0, 120 - 200}));
    EXPECT_EQ(slots.size(), 3u);
    for (TextureSlot& slot : slots) {
        CGLObjectFactory::DestroyPBO(slot.pbo);
        glDeleteTextures(1, &slot.texture);
    }
}

// A steady item drawn at 1.5 scales its text and plate once in 100 frames,
// while its movie plays on; a new text scales both once more.
TEST_F(LumetFrameTest, ASteadyItemIsScaledOncePerChange) {
    std::vector<uint8_t> frame(static_cast<size_t>(RowStride(kWidth, 24)) * kHeight, kGrey);
    for (int i = 0; i < 100; ++i) {
        m_item.CompositeToFrame(frame.data(), kWidth, kHeight, 0, 0, 1.5f);
        AdvanceBy(33);
    }
    EXPECT_EQ(m_item.ScaleCounts(), std::pair(1u, 1u));
    std::memcpy(m_text->text, u"Lumets 字幕!", sizeof(u"Lumets 字幕!"));
    m_item.UpdateText(m_text.get());
    for (int i = 0; i < 100; ++i) {
        m_item.CompositeToFrame(frame.data(), kWidth, kHeight, 0, 0, 1.5f);
        AdvanceBy(33);
    }
    EXPECT_EQ(m_item.ScaleCounts(), std::pair(2u, 2u));
}

}  // namespace
}  // namespace lumets
