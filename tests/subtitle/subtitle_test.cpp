// The subtitle item in virtual time, with a scripted movie player installed
// through the player library's hook: who counts plays, when passes end, how
// layers move, and what the item draws through a recording combiner. Then the
// item's frame drawn for real, and the plate behind an item's text.
#include "subtitle/lumet.h"
#include "subtitle/subtitle_background.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "common/gl_context.h"
#include "common/golden.h"
#include "common/scratch_files.h"
#include "common/scripted_player.h"
#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"

namespace lumets {
namespace {

// A combiner that draws nothing and records what it is asked: the order of
// the calls ("dst<flag>;src;draw;"), and every destination and target size.
struct RecordingCombiner : IGPUCombiner {
    bool Init() override { return true; }
    void Release() override {}
    void SetOpacity(float) override {}
    float GetOpacity() const override { return 1; }
    void Clear(uint32_t) override {}
    uint32_t GetDrawCount() const override { return 0; }
    bool DrawTexture(GLuint, int32_t) override {
        calls += "draw;";
        return true;
    }
    void GetRects(RECT*, RECT*) const override {}
    bool SetDestination(const RECT* rect, int32_t width, int32_t height, int32_t flag) override {
        calls += "dst" + std::to_string(flag) + ";";
        destinations.push_back(*rect);
        targets.push_back(SIZE{width, height});
        return true;
    }
    bool SetSource(const RECT* rect, int32_t, int32_t, int32_t) override {
        calls += "src;";
        sources.push_back(*rect);
        return true;
    }

    std::string calls;
    std::vector<RECT> destinations;
    std::vector<SIZE> targets;
    std::vector<RECT> sources;
};

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
    RecordingCombiner combiner;
    std::vector<TextureSlot> slots;
    for (float scale : {0.0f, -1.0f, nan, inf, 1e30f, 1.0f}) {
        RECT r{};
        m_item->GetBounds(&r, scale);
        m_item->HitTest(INT32_MAX, INT32_MIN, scale);
        m_item->CompositeToFrame(PackedFrame24(frame.data(), 64, 48), INT32_MAX, INT32_MIN, scale);
        m_item->CompositeToFrame(PackedFrame24(nullptr, 64, 48), 0, 0, scale);
        m_item->CompositeToFrame(PackedFrame24(frame.data(), 0, 48), 0, 0, scale);
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

    RecordingCombiner combiner;
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
        RecordingCombiner combiner;
        std::vector<TextureSlot> slots;
        while (!done) {
            item.CompositeToFrame(PackedFrame24(frame.data(), 320, 200), 5, 5, 1.5f);
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
    m_item.CompositeToFrame(PackedFrame24(frame.data(), kWidth, kHeight), 0, 0, 1.0f);
    EXPECT_TRUE(test::MatchesGolden(std::string(LUMETS_TEST_DATA_DIR) + "/item_frame.png",
                                    PackedPicture(frame.data(), kWidth, kHeight, 24),
                                    test::GoldenTolerance{12, 0.01}));
}

// The calls the layers make, in order, and the plate's top edge, which stops
// at the target's top when the plate would start above it.
TEST_F(LumetFrameTest, LayersCallTheCombinerInOrder) {
    RecordingCombiner combiner;
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

// CSubtitleBackground: plate geometry, colour and alpha, corner zones,
// rebuilding only on change, the GPU upload, golden pictures and bad input.

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

// Drawn as what it is, its flat middle as one colour, the plate gives the
// bytes of blending its whole picture: every size, opacity, clip, scale and
// frame layout.
TEST(SubtitleBackground, FlatMiddleGivesTheBytesOfThePicture) {
    std::mt19937 rng(5);
    const auto pick = [&rng](auto... values) {
        const float all[] = {static_cast<float>(values)...};
        return all[rng() % sizeof...(values)];
    };
    for (int i = 0; i < 400; ++i) {
        const int32_t left = static_cast<int32_t>(rng() % 760) - 200;
        const int32_t top = static_cast<int32_t>(rng() % 260) - 60;
        const RECT text{left, top, left + 1 + static_cast<int32_t>(rng() % 600), top + 30};
        const int32_t textHeight = 1 + static_cast<int32_t>(rng() % 60);
        const float opacity = pick(0, 0.004, 0.5, 0.7, 1, 0.01 * (rng() % 100));
        const float scale = pick(1, 1, 0.5, 0.75, 1.5, 2, 0.3 + 0.01 * (rng() % 270));
        const int32_t bpp = rng() % 2 ? 32 : 24;
        std::vector<uint8_t> frame(RowStride(640, bpp) * 200);
        std::generate(frame.begin(), frame.end(), [&rng] { return static_cast<uint8_t>(rng()); });
        std::vector<uint8_t> want = frame;
        const PixelLayout hosts[] = {PixelLayout::Native,
                                     bpp == 24 ? PixelLayout::Rgb : PixelLayout::Bgrx,
                                     bpp == 24 ? PixelLayout::Native : PixelLayout::Rgbx};
        const PixelLayout layout = hosts[rng() % 3];
        const auto view = [&](std::vector<uint8_t>& bytes) {
            PictureView v = PackedPicture(bytes.data(), 640, 200, bpp);
            v.layout = layout;
            v.topDown = i % 3 == 0;
            return v;
        };
        const uint32_t colour = rng() & 0xFFFFFF;
        CSubtitleBackground plate;
        plate.DrawOnFrame(view(frame), &text, textHeight, colour, opacity, scale);
        // The reference: the plate's whole picture, placed as the plate is.
        POINT shift{};
        plate.BuildBackground(text.right - text.left, textHeight, shift);
        const ConstPictureView picture = plate.GetScaledBackground(scale);
        if (picture.data != nullptr) {
            const auto at = [scale](int32_t a, int32_t b) {
                return static_cast<int32_t>(static_cast<float>(a) * scale +
                                            static_cast<float>(b) * scale);
            };
            BlendAt(view(want),
                    POINT{at(text.left, shift.x), 200 - at(text.top, shift.y) - picture.height},
                    picture);
        }
        ASSERT_EQ(frame, want) << "case " << i;
    }
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
