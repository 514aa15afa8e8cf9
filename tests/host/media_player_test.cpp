#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "lumets/host/flash_player.h"
#include "lumets/time_source.h"
#include "host/media_files.h"

namespace {

using lumets::test::AlphaAt;
using lumets::test::Bgr;
using lumets::test::kColours;
using lumets::test::kFrames;
using lumets::test::kHalfAlpha;
using lumets::test::kMovieHeight;
using lumets::test::kMovieWidth;
using lumets::test::kPassMs;
using lumets::test::MediaFiles;

[[maybe_unused]] const auto* const kFilesEnvironment =
    ::testing::AddGlobalTestEnvironment(&MediaFiles::Instance());

// Records every end of pass with its time on the time source.
class PassRecorder : public CFlashPlayerEventHandler {
  public:
    void OnPlayEnd(ENUM_FILE_TYPE) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_endsMs.push_back(lumets::MonotonicMs());
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_endsMs.clear();
    }
    std::vector<uint64_t> Ends() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_endsMs;
    }

  private:
    std::mutex m_mutex;
    std::vector<uint64_t> m_endsMs;
};

// A 24-bit bottom-up host frame with rows padded to 4 bytes.
struct HostFrame {
    HostFrame(uint32_t w, uint32_t h, Bgr fill)
        : width(w), height(h), stride((w * 3 + 3) & ~3u), bytes(stride * h, 0xEE) {
        for (uint32_t y = 0; y < h; ++y) {
            for (uint32_t x = 0; x < w; ++x) {
                uint8_t* p = &bytes[y * stride + x * 3];
                p[0] = fill.b;
                p[1] = fill.g;
                p[2] = fill.r;
            }
        }
    }
    // Top-down coordinates.
    const uint8_t* At(int x, int y) const { return &bytes[(height - 1 - y) * stride + x * 3]; }

    uint32_t width;
    uint32_t height;
    uint32_t stride;
    std::vector<uint8_t> bytes;
};

constexpr Bgr kBackground = {10, 20, 30};

bool Same(const uint8_t* p, Bgr c, int tolerance = 0) {
    return std::abs(p[0] - c.b) <= tolerance && std::abs(p[1] - c.g) <= tolerance &&
           std::abs(p[2] - c.r) <= tolerance;
}

Bgr Blend(Bgr s, int a, Bgr d) {
    auto mix = [a](int sc, int dc) {
        return static_cast<uint8_t>(((255 - a) * dc + sc * a) / 255);
    };
    return {mix(s.b, d.b), mix(s.g, d.g), mix(s.r, d.r)};
}

struct PlayerDeleter {
    void operator()(IFlashPlayer* p) const { DeleteFlashPlayer(p); }
};
using PlayerPtr = std::unique_ptr<IFlashPlayer, PlayerDeleter>;

// Every test runs on virtual time: passes end at exact instants, no sleeping.
class MediaPlayerTest : public ::testing::Test {
  protected:
    void SetUp() override { lumets::SetTimeMode(lumets::TimeMode::Virtual); }
    void TearDown() override {
        m_player.reset();
        lumets::SetTimeMode(lumets::TimeMode::Real);
    }

    IFlashPlayer* Open(const std::string& name, bool autoPlay = false) {
        m_player.reset(CreateFlashPlayer());
        EXPECT_NE(m_player, nullptr);
        m_player->SetEventHandler(&m_recorder);
        m_player->Open(MediaFiles::Instance().Path16(name).c_str(), 0, autoPlay);
        return m_player.get();
    }

    // Renders the current frame at 1:1 into a movie-sized frame.
    HostFrame Render(float scale = 1.f, POINT pos = {0, 0}) {
        HostFrame frame(kMovieWidth, kMovieHeight, kBackground);
        const RECT clip{0, 0, kMovieWidth, kMovieHeight};
        m_player->RenderToFrame(frame.bytes.data(), frame.width, frame.height, &clip, &pos, scale);
        return frame;
    }

    // The index of the frame on show, from its colour in the opaque top rows.
    int ShownFrame(int tolerance = 0) {
        const HostFrame frame = Render();
        for (int i = 0; i < kFrames; ++i) {
            if (Same(frame.At(2, 2), kColours[i], tolerance)) {
                return i;
            }
        }
        return -1;
    }

    PassRecorder m_recorder;
    PlayerPtr m_player;
};

TEST_F(MediaPlayerTest, OpensEachFormatWithItsSizeRateAndColours) {
    struct Case {
        const char* name;
        int tolerance;   // lossy colour conversions
        bool halfAlpha;  // the bottom-left quarter is half transparent
        bool hasAlpha;
    };
    for (const Case& c : {Case{"anim.apng", 0, true, true}, Case{"anim.webp", 0, true, true},
                          Case{"alpha.webm", 6, false, true}, Case{"anim.gif", 0, false, false},
                          Case{"movie.mp4", 6, false, false}}) {
        SCOPED_TRACE(c.name);
        IFlashPlayer* player = Open(c.name);
        EXPECT_TRUE(player->IsReady());
        EXPECT_FALSE(player->IsLoading());
        EXPECT_FALSE(player->IsPlaying());
        uint32_t width = 0;
        uint32_t height = 0;
        ASSERT_TRUE(player->GetSize(&width, &height));
        EXPECT_EQ(width, static_cast<uint32_t>(kMovieWidth));
        EXPECT_EQ(height, static_cast<uint32_t>(kMovieHeight));
        EXPECT_DOUBLE_EQ(player->GetFrameRate(), 10.0);

        const HostFrame frame = Render();
        const Bgr red = kColours[0];
        EXPECT_TRUE(Same(frame.At(5, 5), red, c.tolerance));
        EXPECT_TRUE(Same(frame.At(60, 20), red, c.tolerance));
        const Bgr lowerLeft = c.halfAlpha ? Blend(red, kHalfAlpha, kBackground) : red;
        EXPECT_TRUE(Same(frame.At(10, 40), lowerLeft, c.tolerance));
        EXPECT_TRUE(Same(frame.At(50, 40), c.hasAlpha ? kBackground : red, c.tolerance));
    }
}

TEST_F(MediaPlayerTest, PassesEndAtExactTimesAndLoopFromTheFirstFrame) {
    for (const char* name : {"anim.apng", "anim.gif", "alpha.webm", "anim.webp", "movie.mp4"}) {
        SCOPED_TRACE(name);
        m_player.reset();
        m_recorder.Clear();
        lumets::SetTimeMode(lumets::TimeMode::Real);
        lumets::SetTimeMode(lumets::TimeMode::Virtual);  // back to 0
        IFlashPlayer* player = Open(name);
        player->Play();
        EXPECT_TRUE(player->IsPlaying());
        EXPECT_EQ(ShownFrame(6), 0);
        lumets::AdvanceBy(99);
        EXPECT_EQ(ShownFrame(6), 0);
        lumets::AdvanceBy(1);
        EXPECT_EQ(ShownFrame(6), 1);
        lumets::AdvanceBy(kPassMs - 101);
        EXPECT_EQ(ShownFrame(6), kFrames - 1);
        EXPECT_TRUE(m_recorder.Ends().empty());
        lumets::AdvanceBy(1);
        EXPECT_EQ(ShownFrame(6), 0);
        lumets::AdvanceBy(2 * kPassMs + 50);
        EXPECT_EQ(m_recorder.Ends(), (std::vector<uint64_t>{kPassMs, 2 * kPassMs, 3 * kPassMs}));
        EXPECT_TRUE(player->IsPlaying());
    }
}

TEST_F(MediaPlayerTest, PauseHoldsTheFrameAndPlayResumesWhereItStopped) {
    IFlashPlayer* player = Open("anim.apng");
    player->Pause();  // not playing: nothing happens
    player->Play();
    lumets::AdvanceBy(250);
    EXPECT_EQ(ShownFrame(), 2);
    player->Pause();
    EXPECT_FALSE(player->IsPlaying());
    EXPECT_TRUE(player->IsReady());
    lumets::AdvanceBy(10 * kPassMs);
    EXPECT_EQ(ShownFrame(), 2);
    EXPECT_TRUE(m_recorder.Ends().empty());

    player->Play();  // 250 ms into the pass: the rest takes 250 ms
    lumets::AdvanceBy(49);
    EXPECT_EQ(ShownFrame(), 2);
    lumets::AdvanceBy(1);
    EXPECT_EQ(ShownFrame(), 3);
    lumets::AdvanceBy(199);
    EXPECT_TRUE(m_recorder.Ends().empty());
    lumets::AdvanceBy(1);
    EXPECT_EQ(m_recorder.Ends(), std::vector<uint64_t>{10 * kPassMs + 500});
}

TEST_F(MediaPlayerTest, StopGoesBackToTheFirstFrame) {
    IFlashPlayer* player = Open("anim.apng", /*autoPlay=*/true);
    EXPECT_TRUE(player->IsPlaying());
    lumets::AdvanceBy(320);
    EXPECT_EQ(ShownFrame(), 3);
    player->Stop();
    EXPECT_FALSE(player->IsPlaying());
    EXPECT_TRUE(player->IsReady());
    EXPECT_EQ(ShownFrame(), 0);
    lumets::AdvanceBy(2 * kPassMs);
    EXPECT_TRUE(m_recorder.Ends().empty());
    player->Play();
    lumets::AdvanceBy(kPassMs);
    EXPECT_EQ(m_recorder.Ends(), std::vector<uint64_t>{320 + 3 * kPassMs});
}

// The way the subtitle item uses the callback: it pauses the player from
// inside OnPlayEnd once its plays are spent.
TEST_F(MediaPlayerTest, TheHandlerMayPauseThePlayerFromItsCallback) {
    struct PausingHandler : CFlashPlayerEventHandler {
        void OnPlayEnd(ENUM_FILE_TYPE) override {
            if (--playsLeft == 0) {
                player->Pause();
            }
        }
        IFlashPlayer* player = nullptr;
        std::atomic<int> playsLeft{2};
    } handler;
    IFlashPlayer* player = Open("anim.apng");
    handler.player = player;
    player->SetEventHandler(&handler);
    player->Play();
    lumets::AdvanceBy(kPassMs);
    EXPECT_TRUE(player->IsPlaying());
    lumets::AdvanceBy(kPassMs);
    EXPECT_FALSE(player->IsPlaying());
    EXPECT_EQ(handler.playsLeft, 0);
    lumets::AdvanceBy(5 * kPassMs);
    EXPECT_EQ(handler.playsLeft, 0);
    player->SetEventHandler(nullptr);
}

TEST_F(MediaPlayerTest, RenderToFramePlacesClipsAndScales) {
    Open("anim.apng");
    const Bgr red = kColours[0];
    constexpr uint32_t kWidth = 101;  // rows of 303 bytes padded to 304
    constexpr uint32_t kHeight = 80;
    auto render = [&](const RECT* clip, POINT pos, float scale) {
        HostFrame frame(kWidth, kHeight, kBackground);
        m_player->RenderToFrame(frame.bytes.data(), kWidth, kHeight, clip, &pos, scale);
        return frame;
    };
    // Expected colour at top-down (x, y) for the movie at pos, scale 1.
    auto expected = [&](int x, int y, POINT pos) {
        const int mx = x - pos.x;
        const int my = y - pos.y;
        if (mx < 0 || my < 0 || mx >= kMovieWidth || my >= kMovieHeight) {
            return kBackground;
        }
        return Blend(red, AlphaAt(mx, my, true), kBackground);
    };
    auto check = [&](const HostFrame& frame, POINT pos, RECT clip) {
        for (int y = 0; y < static_cast<int>(kHeight); ++y) {
            for (int x = 0; x < static_cast<int>(kWidth); ++x) {
                const bool inClip =
                    x >= clip.left && x < clip.right && y >= clip.top && y < clip.bottom;
                const Bgr want = inClip ? expected(x, y, pos) : kBackground;
                ASSERT_TRUE(Same(frame.At(x, y), want)) << "at " << x << "," << y;
            }
            // The row padding byte is never written.
            ASSERT_EQ(frame.bytes[y * frame.stride + kWidth * 3], 0xEE);
        }
    };

    const RECT whole{0, 0, kWidth, kHeight};
    check(render(&whole, {10, 7}, 1.f), {10, 7}, whole);
    check(render(&whole, {-30, -20}, 1.f), {-30, -20}, whole);
    check(render(&whole, {90, 70}, 1.f), {90, 70}, whole);
    const RECT clip{20, 10, 40, 30};
    check(render(&clip, {10, 7}, 1.f), {10, 7}, clip);
    const RECT reversed{40, 30, 20, 10};
    check(render(&reversed, {10, 7}, 1.f), {10, 7}, clip);
    check(render(nullptr, {10, 7}, 1.f), {10, 7}, whole);

    // Scaled: the covered area is the scaled size, truncated; solid regions
    // stay solid away from their edges.
    for (float scale : {1.5f, 0.5f, 0.7f}) {
        SCOPED_TRACE(testing::Message() << "scale " << scale);
        const auto w = static_cast<int>(kMovieWidth * scale);
        const auto h = static_cast<int>(kMovieHeight * scale);
        const HostFrame frame = render(&whole, {3, 4}, scale);
        EXPECT_TRUE(Same(frame.At(3 + 1, 4 + 1), red, 1));
        EXPECT_TRUE(Same(frame.At(3 + w - 2, 4 + h / 2 - 3), red, 1));
        EXPECT_TRUE(Same(frame.At(3 + w / 4, 4 + h - 2), Blend(red, kHalfAlpha, kBackground), 2));
        EXPECT_TRUE(Same(frame.At(3 + w - 2, 4 + h - 2), kBackground));
        EXPECT_TRUE(Same(frame.At(3 + w, 4 + 1), kBackground));
        EXPECT_TRUE(Same(frame.At(3 + 1, 4 + h), kBackground));
        EXPECT_TRUE(Same(frame.At(2, 4), kBackground));
    }

    // Nothing at all for degenerate input.
    const HostFrame untouched(kWidth, kHeight, kBackground);
    for (float scale : {0.f, -1.f, NAN, 1e9f, 0.001f}) {
        EXPECT_EQ(render(&whole, {0, 0}, scale).bytes, untouched.bytes) << scale;
    }
    EXPECT_EQ(render(&whole, {INT32_MAX - 5, INT32_MAX - 5}, 1.f).bytes, untouched.bytes);
    EXPECT_EQ(render(&whole, {INT32_MIN, 0}, 1.f).bytes, untouched.bytes);
    const RECT outside{-50, -50, -1, -1};
    EXPECT_EQ(render(&outside, {0, 0}, 1.f).bytes, untouched.bytes);
    m_player->RenderToFrame(nullptr, kWidth, kHeight, &whole, nullptr, 1.f);
}

TEST_F(MediaPlayerTest, FilesItCannotPlayOpenAsNoMovie) {
    for (const char* name : {"missing.webm", "empty.webm", "garbage.webm", "movie.swf", "notes.gif",
                             "truncated.webm"}) {
        SCOPED_TRACE(name);
        IFlashPlayer* player = Open(name, /*autoPlay=*/true);
        uint32_t width = 7;
        uint32_t height = 7;
        const bool ready = player->IsReady();
        EXPECT_EQ(player->GetSize(&width, &height), ready);
        EXPECT_FALSE(player->IsLoading());
        if (std::string(name) == "truncated.webm") {
            continue;  // may keep the frames before the cut; only consistency counts
        }
        EXPECT_FALSE(ready);
        EXPECT_FALSE(player->IsPlaying());
        EXPECT_EQ(width, 0u);
        EXPECT_EQ(height, 0u);
        EXPECT_EQ(player->GetFrameRate(), 0.0);
        player->Play();
        EXPECT_FALSE(player->IsPlaying());
        const HostFrame untouched(kMovieWidth, kMovieHeight, kBackground);
        EXPECT_EQ(Render().bytes, untouched.bytes);
        EXPECT_FALSE(player->RenderToTexture(1, &width, &height, nullptr));
        lumets::AdvanceBy(kPassMs);
        EXPECT_TRUE(m_recorder.Ends().empty());
    }
    m_player->Open(nullptr, 0, true);
    EXPECT_FALSE(m_player->IsReady());
}

TEST_F(MediaPlayerTest, OpeningAnotherMovieReplacesTheFirst) {
    IFlashPlayer* player = Open("anim.apng", /*autoPlay=*/true);
    lumets::AdvanceBy(150);
    player->Open(MediaFiles::Instance().Path16("garbage.webm").c_str(), 0, true);
    EXPECT_FALSE(player->IsReady());
    EXPECT_FALSE(player->IsPlaying());
    player->Open(MediaFiles::Instance().Path16("anim.gif").c_str(), 0, false);
    EXPECT_TRUE(player->IsReady());
    EXPECT_EQ(ShownFrame(), 0);
    lumets::AdvanceBy(kPassMs);
    EXPECT_TRUE(m_recorder.Ends().empty());
}

int g_scriptedDeleted = 0;

TEST(FlashPlayerFactory, TheHookReplacesAndRestoresTheFactory) {
    static IFlashPlayer* const kMarker = reinterpret_cast<IFlashPlayer*>(0x1000);
    g_scriptedDeleted = 0;
    lumets::host::SetFlashPlayerFactory([]() { return kMarker; },
                                        [](IFlashPlayer* p) { g_scriptedDeleted += p == kMarker; });
    EXPECT_EQ(CreateFlashPlayer(), kMarker);
    DeleteFlashPlayer(kMarker);
    DeleteFlashPlayer(nullptr);
    EXPECT_EQ(g_scriptedDeleted, 1);
    lumets::host::SetFlashPlayerFactory(nullptr, nullptr);
    IFlashPlayer* real = CreateFlashPlayer();
    ASSERT_NE(real, nullptr);
    EXPECT_NE(real, kMarker);
    EXPECT_FALSE(real->IsPlaying());
    DeleteFlashPlayer(real);
    EXPECT_EQ(g_scriptedDeleted, 1);
}

}  // namespace
