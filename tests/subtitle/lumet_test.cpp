// The subtitle item in virtual time, with a scripted movie player installed
// through the player library's hook: who counts plays, when passes end, how
// layers move, and what the item draws through a recording combiner. Then the
// item's frame drawn for real.
#include "subtitle/lumet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "common/gl_context.h"
#include "common/golden.h"
#include "common/recording_combiner.h"
#include "common/scratch_files.h"
#include "common/scripted_player.h"
#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"

namespace lumets {
namespace {

struct Owner : CLumetEventHandler {
    void OnPlayStarted() override { ++started; }
    void OnPlayedOnce() override {
        ++played;
        playedAt = MonotonicMs();
    }
    void OnPlayStopped() override { ++stopped; }
    std::atomic<int> started{0};
    std::atomic<int> played{0};
    std::atomic<int> stopped{0};
    std::atomic<uint64_t> playedAt{0};
};

void DestroySlots(std::vector<TextureSlot>& slots) {
    for (TextureSlot& slot : slots) {
        CGLObjectFactory::DestroyPBO(slot.pbo);
    }
}

class LumetTest : public testing::Test {
  protected:
    void SetUp() override {
        SetTimeMode(TimeMode::Virtual);
        test::ScriptedPlayer::Install(true);
        ASSERT_TRUE(test::WriteBytes(m_movie, {1, 2, 3}));
        std::copy(m_movie.begin(), m_movie.end(), m_swf.szPath);  // the temp folder is ASCII
        m_swf.rcClip = RECT{0, 0, 200, 100};
        std::memcpy(m_text->text, u"Lumets", sizeof(u"Lumets"));
        m_text->rcClip = RECT{0, 0, 400, 100};
    }
    void TearDown() override {
        m_item.reset();
        test::ScriptedPlayer::Install(false);
        SetTimeMode(TimeMode::Real);
    }

    // Starts an item with the parts given and gives it its first turn.
    bool StartItem(bool swf, bool text, int32_t playCount, bool repeat = false) {
        ItemDescription desc{
            swf ? &m_swf : nullptr, text ? m_text.get() : nullptr, nullptr, playCount, {}};
        m_item = std::make_unique<CLumet>();
        m_item->SetOwner(&m_owner);
        if (!m_item->Start(&desc, false, repeat)) {
            return false;
        }
        m_item->SignalPlay();
        WaitUntilSettled();
        return true;
    }

    test::ScratchDir m_dir;
    std::string m_movie = m_dir.File("movie.swf");
    SwfPart m_swf{};
    // Value-initialised: zeroed, with the style's own defaults.
    std::unique_ptr<TextPart> m_text = std::make_unique<TextPart>();
    Owner m_owner;
    std::unique_ptr<CLumet> m_item;
};

TEST(LumetMotion, StepsMovesAndEnds) {
    EXPECT_FLOAT_EQ(StepFromSpeed(30), 0.99f);
    EXPECT_FLOAT_EQ(StepFromSpeed(1000), 33.0f);
    // Speed 30 alone: still in the first step and every hundredth after it.
    float remainder = 0;
    int moved = 0;
    int still = 0;
    for (int i = 0; i < 100; ++i) {
        const int32_t n = TakeWholePixels(remainder, 0.99f);
        moved += n;
        still += n == 0 ? 1 : 0;
    }
    EXPECT_EQ(moved, 99);
    EXPECT_EQ(still, 1);

    // Leftwards through a 0..400 clip with a 100 px layer.
    const RECT clip{0, 0, 400, 50};
    const SIZE extent{100, 20};
    POINT pos{900, 0};
    MovePosition(pos, 1, Heading::Left, clip, extent, false);
    EXPECT_EQ(pos.x, 400);  // enters from just outside the right side
    pos.x = -99;
    EXPECT_FALSE(IsScrollFinished(pos, 1, Heading::Left, clip, extent, false));
    MovePosition(pos, 1, Heading::Left, clip, extent, false);
    EXPECT_EQ(pos.x, -100);
    EXPECT_TRUE(IsScrollFinished(pos, 1, Heading::Left, clip, extent, false));
    pos.x = -99;
    MovePosition(pos, 1, Heading::Left, clip, extent, true);
    EXPECT_EQ(pos.x, 400);  // wraps, and never finishes
    EXPECT_FALSE(IsScrollFinished(POINT{-500, 0}, 1, Heading::Left, clip, extent, true));
    // Hostile clips saturate instead of overflowing.
    pos = POINT{INT32_MIN + 1, 0};
    MovePosition(pos, 50, Heading::Left, RECT{INT32_MIN, 0, INT32_MAX, 10}, extent, false);
    EXPECT_EQ(pos.x, INT32_MIN);
}

// Only the movie scrolls: the thread counts, and each pass ends when the
// movie has left its clip: 33 px a step from 0 to 200 is 7 steps.
TEST_F(LumetTest, AScrollingMovieIsCountedByTheThread) {
    m_swf.nDirection = 1;
    m_swf.nSpeed = 1000;
    ASSERT_TRUE(StartItem(true, false, 2));
    AdvanceBy(1000);
    EXPECT_EQ(m_owner.played.load(), 1);
    EXPECT_EQ(m_owner.playedAt.load(), 13u * 33);  // 14 steps, the first without a wait
    EXPECT_EQ(m_owner.stopped.load(), 1);          // no repeat: the thread ends
    EXPECT_EQ(m_item->GetState(), LumetState::Idle);
}

// Nothing scrolls: the player counts through OnPlayEnd.
TEST_F(LumetTest, AStillMovieIsCountedByThePlayer) {
    ASSERT_TRUE(StartItem(true, false, 3, true));
    test::ScriptedPlayer* player = test::ScriptedPlayer::last;
    ASSERT_NE(player, nullptr);
    EXPECT_EQ(m_item->GetState(), LumetState::Playing);
    player->EndPass();
    player->EndPass();
    EXPECT_EQ(m_owner.played.load(), 0);
    player->EndPass();
    EXPECT_EQ(m_owner.played.load(), 1);
    EXPECT_EQ(player->pauses.load(), 1);
    EXPECT_EQ(m_item->GetState(), LumetState::Starting);  // paused: not playing
    m_item->Stop();
    EXPECT_EQ(m_owner.stopped.load(), 1);
    EXPECT_EQ(m_item->GetState(), LumetState::Idle);
}

TEST_F(LumetTest, CountsAndStops) {
    // A negative count plays no pass: the thread ends the turn at once.
    m_swf.nDirection = 1;
    m_swf.nSpeed = 1000;
    const uint64_t start = MonotonicMs();
    ASSERT_TRUE(StartItem(true, false, -1));
    WaitUntilSettled();
    EXPECT_EQ(m_owner.played.load(), 1);
    EXPECT_EQ(m_owner.playedAt.load(), start);

    // A count of 0 never runs out: stopped inside a pass.
    m_owner.played = 0;
    ASSERT_TRUE(StartItem(true, false, 0));
    AdvanceBy(5000);
    EXPECT_EQ(m_owner.played.load(), 0);
    m_item->Stop();
    EXPECT_EQ(m_owner.played.load(), 1);  // the stopped turn still reports
    EXPECT_EQ(m_item->GetState(), LumetState::Idle);

    // Stopped while waiting for its turn.
    ItemDescription desc{&m_swf, nullptr, nullptr, 1, {}};
    CLumet waiting;
    ASSERT_TRUE(waiting.Start(&desc, false, true));
    waiting.Stop();
    EXPECT_EQ(waiting.GetState(), LumetState::Idle);

    // A missing movie: false, and no thread.
    m_swf.szPath[0] = u'?';
    Owner quiet;
    CLumet missing;
    missing.SetOwner(&quiet);
    EXPECT_FALSE(missing.Start(&desc, false, false));
    WaitUntilSettled();
    EXPECT_EQ(quiet.started.load(), 0);
    EXPECT_TRUE(missing.Start(&desc, false, false));  // Starting already
}

// The rest of the ways plays are counted, and repeat turns.
TEST_F(LumetTest, WhoCountsWhenTheTextScrollsOrTheMovieEndIsIgnored) {
    // A movie whose own end is ignored: the thread counts, and with nothing
    // scrolling its pass never ends; the item plays until stopped.
    m_swf.bIgnoreMovieEnd = 1;
    ASSERT_TRUE(StartItem(true, false, 1));
    test::ScriptedPlayer::last.load()->EndPass();
    AdvanceBy(2000);
    EXPECT_EQ(m_owner.played.load(), 0);
    m_item->Stop();
    EXPECT_EQ(m_owner.played.load(), 1);

    // Only the text scrolls, downwards out of its 100 px clip at 33 px a
    // step: the thread counts, the pass ends after 4 steps, and a repeating
    // item plays again at its next turn. The first step of a thread does not
    // wait, so step k comes (k - 2) x 33 ms after the turn begins.
    m_owner.played = 0;
    m_owner.stopped = 0;
    m_swf.bIgnoreMovieEnd = 0;
    m_text->nDirection = 3;
    m_text->nSpeed = 1000;
    const uint64_t turn = MonotonicMs();
    ASSERT_TRUE(StartItem(false, true, 1, true));
    AdvanceBy(1000);
    EXPECT_EQ(m_owner.played.load(), 1);
    EXPECT_EQ(m_owner.playedAt.load() - turn, 3u * 33);
    EXPECT_EQ(m_owner.stopped.load(), 0);  // waits for its next turn
    const uint64_t nextTurn = MonotonicMs();
    m_item->SignalPlay();
    AdvanceBy(1000);
    EXPECT_EQ(m_owner.played.load(), 2);
    EXPECT_EQ(m_owner.playedAt.load() - nextTurn, 3u * 33);  // no wait at the turn's start
}

// Both layers in one direction at one speed move as one block and end their
// pass together; reversed clip sides are put in order.
TEST_F(LumetTest, LayersInLockStepFinishTogether) {
    m_swf.rcClip = RECT{200, 100, 0, 0};
    m_swf.nDirection = m_text->nDirection = 1;
    m_swf.nSpeed = m_text->nSpeed = 1000;
    m_text->rcClip = RECT{400, 100, 0, 0};
    ASSERT_TRUE(StartItem(true, true, 1));
    RECT bounds{};
    ASSERT_TRUE(m_item->GetBounds(&bounds, 1.0f));
    EXPECT_EQ(bounds.left, 66);  // both moved two steps from the clips' corner
    AdvanceBy(2000);
    EXPECT_EQ(m_owner.played.load(), 1);
    // The pass ends when both have left their clips, the text's 400 px one
    // last: 13 steps.
    EXPECT_EQ(m_owner.playedAt.load(), 12u * 33);
}

TEST_F(LumetTest, HostileDescriptionsAndFrames) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    // Unterminated path and text, extreme clips, speeds and directions.
    std::fill(std::begin(m_swf.szPath), std::end(m_swf.szPath), u'x');
    std::fill(std::begin(m_text->text), std::end(m_text->text), u'W');
    m_text->rcClip = RECT{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX};
    m_text->x = INT32_MAX;
    m_text->nDirection = 1;
    m_text->nSpeed = 0xFFFFFFFFu;
    ItemDescription none{};
    CLumet empty;
    EXPECT_TRUE(empty.Start(&none, false, false));
    EXPECT_FALSE(CLumet().Start(nullptr, false, false));
    EXPECT_FALSE(StartItem(true, false, 1));  // no such file
    m_text->nDirection = 9;                   // stands still
    ASSERT_TRUE(StartItem(false, true, 1));
    AdvanceBy(200);
    m_text->nDirection = 1;
    ASSERT_TRUE(StartItem(false, true, 1));
    AdvanceBy(200);
    std::vector<uint8_t> frame(RowStride(64, 24) * 48, 7);
    test::RecordingCombiner combiner;
    std::vector<TextureSlot> slots;
    for (float scale : {0.0f, -1.0f, nan, inf, 1e30f, 1.0f}) {
        RECT r{};
        m_item->GetBounds(&r, scale);
        m_item->HitTest(INT32_MAX, INT32_MIN, scale);
        m_item->CompositeToFrame(frame.data(), 64, 48, INT32_MAX, INT32_MIN, scale);
        m_item->CompositeToFrame(nullptr, 64, 48, 0, 0, scale);
        m_item->CompositeToFrame(frame.data(), 0, 48, 0, 0, scale);
        m_item->RenderToTextures(64, 48, &combiner, &slots, INT32_MIN, INT32_MAX, scale);
    }
    DestroySlots(slots);
    m_item->Stop();
}

TEST_F(LumetTest, BoundsHitTestsAndSlots) {
    m_swf.x = 10;
    m_swf.y = 5;
    ASSERT_TRUE(StartItem(true, true, 0));
    RECT bounds{};
    ASSERT_TRUE(m_item->GetBounds(&bounds, 1.0f));
    EXPECT_EQ(bounds.left, 0);  // the text at the clip's corner
    EXPECT_GE(bounds.right, 110);
    RECT twice{};
    ASSERT_TRUE(m_item->GetBounds(&twice, 2.0f));
    EXPECT_EQ(twice.left, bounds.left);  // sizes double, not positions
    EXPECT_GT(twice.right, bounds.right);
    EXPECT_TRUE(m_item->HitTest(50, 20, 1.0f));
    EXPECT_FALSE(m_item->HitTest(500, 20, 1.0f));

    test::RecordingCombiner combiner;
    std::vector<TextureSlot> slots;
    m_item->RenderToTextures(400, 200, &combiner, &slots, 100, 50, 2.0f);
    // Without a GL context the text upload fails, so only the movie is drawn.
    EXPECT_EQ(combiner.calls, "dst0;src;draw;");
    ASSERT_EQ(combiner.destinations.size(), 1u);
    const RECT& dst = combiner.destinations[0];
    EXPECT_EQ(std::tuple(dst.left, dst.top, dst.right, dst.bottom), std::tuple(110, 55, 210, 95));
    EXPECT_EQ(std::pair(combiner.targets[0].cx, combiner.targets[0].cy), std::pair(200, 100));
    EXPECT_EQ(combiner.sources[0].right - combiner.sources[0].left, 100);
    EXPECT_EQ(slots.size(), 2u);

    BackgroundPart plate{0x204080, 80, 1, {}};
    m_item->UpdateBackground(&plate);
    combiner.calls.clear();
    m_item->RenderToTextures(400, 200, &combiner, &slots, 0, 0, 1.0f);
    EXPECT_EQ(slots.size(), 3u);
    m_item->RenderToTextures(400, 200, nullptr, &slots, 0, 0, 1.0f);
    // A movie alone takes one slot.
    ASSERT_TRUE(StartItem(true, false, 0));
    std::vector<TextureSlot> alone;
    m_item->RenderToTextures(400, 200, &combiner, &alone, 0, 0, 1.0f);
    EXPECT_EQ(alone.size(), 1u);
    DestroySlots(slots);
    DestroySlots(alone);
}

// A render thread draws the item in a loop while the host starts it, updates
// its text and plate, ends passes and stops it; the end of a pass also
// arrives from inside a drawing call that holds the player lock.
TEST_F(LumetTest, RenderingWhileTheItemStartsUpdatesPlaysAndStops) {
    m_swf.nDirection = 2;
    m_swf.nSpeed = 3000;
    m_text->nDirection = 4;
    m_text->nSpeed = 500;
    BackgroundPart plate{0x102030, 70, 0, {}};
    CLumet item;
    item.SetOwner(&m_owner);
    std::atomic<bool> done{false};
    std::thread render([&] {
        std::vector<uint8_t> frame(RowStride(320, 24) * 200);
        test::RecordingCombiner combiner;
        std::vector<TextureSlot> slots;
        while (!done) {
            item.CompositeToFrame(frame.data(), 320, 200, 5, 5, 1.5f);
            RECT r{};
            item.GetBounds(&r, 1.0f);
            item.RenderToTextures(320, 200, &combiner, &slots, 0, 0, 1.0f);
            (void)item.GetState();
        }
        DestroySlots(slots);
    });
    for (int round = 0; round < 4; ++round) {
        const bool still = round == 3;  // nothing scrolls: the player counts
        m_swf.nDirection = still ? 0 : 2;
        m_text->nDirection = still ? 0 : 4;
        ItemDescription desc{&m_swf, m_text.get(), &plate, 1, {}};
        ASSERT_TRUE(item.Start(&desc, false, true));
        item.SignalPlay();
        AdvanceBy(100);
        const std::u16string update = round % 2 ? u"odd" : u"even";
        std::copy(update.c_str(), update.c_str() + update.size() + 1, m_text->text);
        item.UpdateText(m_text.get());
        plate.nOpacity = round % 2 ? 0 : 90;
        item.UpdateBackground(&plate);
        const int played = m_owner.played;
        if (still) {
            test::ScriptedPlayer::last.load()->endPassWhileDrawing = true;
            for (int spin = 0; spin < 10'000'000 && m_owner.played == played; ++spin) {
                std::this_thread::yield();
            }
        }
        AdvanceBy(500);
        item.Stop();
        EXPECT_GT(m_owner.played.load(), played) << round;
    }
    done = true;
    render.join();
}

// The item's frame drawn for real: a movie played by the host library's
// media player (an animated PNG made with ffmpeg), the plate and an outlined
// text. The CPU composite is a golden picture; here the GPU layers go to a
// recording combiner (the manager's test compares the real combiner's picture
// with the CPU composite at every scale). The scripted player is not
// installed for these.
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
        std::copy(movie.begin(), movie.end(), m_swf.szPath);  // the temp folder is ASCII
        m_swf.rcClip = RECT{0, 0, kWidth, kHeight};
        m_swf.x = 20;
        m_swf.y = 20;
        m_text = std::make_unique<TextPart>();  // zeroed, with the style's own defaults
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
    SwfPart m_swf{};
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
