// The host library. First its media player, on short animations made with
// the ffmpeg command-line tool at test time. Every frame is solid and known:
// frame i has colour kColours[i]; where a format carries alpha, the picture is
// split into an opaque part, a half-transparent part (APNG, WebP) and a
// transparent part, so blending can be checked exactly. Virtual time makes
// pass ends and frame changes exact to the millisecond; only the tests of
// concurrent use run on real time. Then its pixel-buffer objects and GPU
// combiner.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "common/gl_context.h"
#include "common/scratch_files.h"
#include "lumets/host/flash_player.h"
#include "lumets/host/gl_objects.h"
#include "lumets/host/gpu_combiner.h"
#include "lumets/lumets.h"
#include "lumets/time_source.h"

namespace lumets::test {
namespace {

struct Bgr {
    uint8_t b, g, r;
};

// Red, green, blue, yellow, magenta: pure primaries and their sums survive
// every format, GIF's 3-3-2 palette included.
constexpr std::array<Bgr, 5> kColours = {
    {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {0, 255, 255}, {255, 0, 255}}};
constexpr Bgr kRed = kColours[0];
constexpr Bgr kBackground = {10, 20, 30};
constexpr int kMovieWidth = 64;
constexpr int kMovieHeight = 48;
constexpr uint8_t kHalfAlpha = 128;

// Alpha by region, top-down: rows above half the height opaque; below it, the
// left half kHalfAlpha (or opaque where half is false) and the right half 0.
uint8_t AlphaAt(int64_t x, int64_t y, bool half) {
    if (y < kMovieHeight / 2) {
        return 255;
    }
    return x >= kMovieWidth / 2 ? 0 : (half ? kHalfAlpha : 255);
}

class MediaFiles : public ::testing::Environment {
  public:
    std::string Path8(const std::string& name) const { return m_dir.File(name); }
    std::u16string Path16(const std::string& name) const { return m_dir.File16(name); }

    void SetUp() override {
        ASSERT_TRUE(m_dir.Ok());
        WriteRaw("half.bgra", true);
        WriteRaw("cut.bgra", false);
        const auto make = [this](const std::string& arguments) {
            const std::string command = "cd " + Quote(m_dir.Path().string()) +
                                        " && ffmpeg -nostdin -hide_banner -loglevel error -y -f "
                                        "rawvideo -pix_fmt bgra -s 64x48 -r " +
                                        arguments;
            ASSERT_TRUE(RunCommand(command)) << command;
        };
        make("10 -i half.bgra -c:v apng -plays 0 -f apng anim.apng");
        make("10 -i cut.bgra -c:v libvpx-vp9 -pix_fmt yuva420p -lossless 1 alpha.webm");
        make("10 -i half.bgra -c:v libwebp_anim -lossless 1 -loop 0 anim.webp");
        // A palette made from the frames themselves keeps the colours exact.
        make(
            "10 -i cut.bgra -filter_complex 'split[a][b];[a]palettegen=reserve_transparent=0"
            "[p];[b][p]paletteuse=dither=none' -c:v gif -loop 0 anim.gif");
        make("10 -i cut.bgra -c:v libx264 -pix_fmt yuv420p -qp 0 movie.mp4");
        make("50 -i half.bgra -c:v apng -plays 0 -f apng fast.apng");
        // A minute of 1920 x 1080 at 5 fps whose frames show their numbers in
        // nine bars across, white for a 1 bit (the lowest on the left).
        ASSERT_TRUE(RunCommand(
            "cd " + Quote(m_dir.Path().string()) +
            " && ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "
            "\"nullsrc=s=18x2:r=5:d=60,format=gray,geq=lum='if(mod(floor(N/pow(2,floor(X/2))),2),"
            "235,16)',scale=1920:1080:flags=neighbor\" -c:v libx264 -preset ultrafast "
            "-pix_fmt yuv420p -movflags +faststart long.mp4"));
        std::vector<uint8_t> garbage(4096);
        std::generate(garbage.begin(), garbage.end(), std::minstd_rand(12345));
        // The header of a compressed Flash movie, followed by noise.
        std::vector<uint8_t> swf = {'C', 'W', 'S', 10, 0, 0x10, 0, 0};
        swf.insert(swf.end(), garbage.begin(), garbage.begin() + 512);
        const std::string text = "this is not a movie\n";
        // A WebM cut after its headers and first frame or so.
        std::vector<uint8_t> cut = ReadBytes(m_dir.File("alpha.webm"));
        cut.resize(cut.size() / 3);
        WriteBytes("empty.webm", {});
        WriteBytes("garbage.webm", garbage);
        WriteBytes("movie.swf", swf);
        WriteBytes("notes.gif", std::vector<uint8_t>(text.begin(), text.end()));
        WriteBytes("truncated.webm", cut);
    }

  private:
    void WriteRaw(const std::string& name, bool half) {
        std::vector<uint8_t> bytes;
        for (const Bgr c : kColours) {
            for (int y = 0; y < kMovieHeight; ++y) {
                for (int x = 0; x < kMovieWidth; ++x) {
                    bytes.insert(bytes.end(), {c.b, c.g, c.r, AlphaAt(x, y, half)});
                }
            }
        }
        WriteBytes(name, bytes);
    }

    void WriteBytes(const std::string& name, const std::vector<uint8_t>& bytes) {
        ASSERT_TRUE(lumets::test::WriteBytes(m_dir.File(name), bytes)) << name;
    }

    ScratchDir m_dir;
};

// Google Test owns the environment and sets it up before the first test.
const MediaFiles* const g_files =
    static_cast<MediaFiles*>(::testing::AddGlobalTestEnvironment(new MediaFiles()));

// Records every end of pass with its time, under a lock that stands for the
// subtitle item's own: the item holds it while it calls the player and takes it
// in OnPlayEnd, where it pauses the player once its plays are spent (two, unless
// pauseAfter says otherwise).
class PassRecorder : public CFlashPlayerEventHandler {
  public:
    void OnPlayEnd(ENUM_FILE_TYPE) override {
        entered = true;
        {
            std::lock_guard<std::recursive_mutex> hold(lock);
            endsMs.push_back(MonotonicMs());
            if (endsMs.size() == pauseAfter && player != nullptr) {
                player->Pause();
            }
        }
        left = true;  // the last touch of this object: a test may destroy it once it sees this
    }
    std::vector<uint64_t> Ends() {
        std::lock_guard<std::recursive_mutex> hold(lock);
        return endsMs;
    }

    std::recursive_mutex lock;
    std::vector<uint64_t> endsMs;
    IFlashPlayer* player = nullptr;
    size_t pauseAfter = 2;
    std::atomic<bool> entered{false};
    std::atomic<bool> left{false};
};

using PlayerPtr = std::unique_ptr<IFlashPlayer, decltype(&DeleteFlashPlayer)>;

PlayerPtr OpenMovie(const std::string& name, PassRecorder* handler, bool autoPlay = false) {
    PlayerPtr player(CreateFlashPlayer(), DeleteFlashPlayer);
    player->SetEventHandler(handler);
    player->Open(g_files->Path16(name).c_str(), 0, autoPlay);
    return player;
}

// Virtual time, starting at 0, for as long as this lives.
struct VirtualTime {
    VirtualTime() { SetTimeMode(TimeMode::Virtual); }
    ~VirtualTime() { SetTimeMode(TimeMode::Real); }
};

// A 24-bit bottom-up host frame with rows padded to 4 bytes.
struct HostFrame {
    HostFrame(uint32_t w, uint32_t h)
        : width(w), height(h), stride((w * 3 + 3) & ~3u), bytes(size_t{stride} * h, 0xEE) {
        for (uint32_t i = 0; i < w * h; ++i) {
            std::copy_n(&kBackground.b, 3, &bytes[i / w * stride + i % w * 3]);
        }
    }
    // Top-down coordinates.
    const uint8_t* At(int x, int y) const { return &bytes[(height - 1 - y) * stride + x * 3]; }

    uint32_t width, height, stride;
    std::vector<uint8_t> bytes;
};

bool Same(const uint8_t* p, Bgr c, int tolerance = 0) {
    return std::abs(p[0] - c.b) <= tolerance && std::abs(p[1] - c.g) <= tolerance &&
           std::abs(p[2] - c.r) <= tolerance;
}

Bgr OverBackground(Bgr s, int a) {
    auto mix = [a](int sc, int dc) {
        return static_cast<uint8_t>(((255 - a) * dc + sc * a) / 255);
    };
    return {mix(s.b, kBackground.b), mix(s.g, kBackground.g), mix(s.r, kBackground.r)};
}

class MediaPlayerTest : public ::testing::Test {
  protected:
    IFlashPlayer* Open(const std::string& name, bool autoPlay = false) {
        m_player = OpenMovie(name, &m_recorder, autoPlay);
        m_recorder.player = m_player.get();
        return m_player.get();
    }

    HostFrame Render(const RECT* clip = nullptr, POINT pos = {0, 0}, float scale = 1.f,
                     uint32_t width = kMovieWidth, uint32_t height = kMovieHeight) {
        HostFrame frame(width, height);
        m_player->RenderToFrame(frame.bytes.data(), width, height, clip, &pos, scale);
        return frame;
    }

    // The index of the frame on show, from its colour in the opaque top rows.
    int ShownFrame(int tolerance = 0) {
        const HostFrame frame = Render();
        const auto shown = std::find_if(kColours.begin(), kColours.end(),
                                        [&](Bgr c) { return Same(frame.At(2, 2), c, tolerance); });
        return shown == kColours.end() ? -1 : static_cast<int>(shown - kColours.begin());
    }

    VirtualTime m_time;
    PassRecorder m_recorder;
    PlayerPtr m_player{nullptr, DeleteFlashPlayer};
};

// A file, the tolerance of its lossy colour conversions, whether the
// bottom-left quarter is half transparent and whether it has alpha at all.
using Format = std::tuple<const char*, int, bool, bool>;

class FormatTest : public MediaPlayerTest, public ::testing::WithParamInterface<Format> {};

TEST_P(FormatTest, OpensWithItsSizeAndColoursAndPlaysToTheMillisecond) {
    const auto& [file, tolerance, halfAlpha, hasAlpha] = GetParam();
    IFlashPlayer* player = Open(file);
    EXPECT_TRUE(player->IsReady());
    EXPECT_FALSE(player->IsLoading());
    uint32_t width = 0, height = 0;
    ASSERT_TRUE(player->GetSize(&width, &height));
    EXPECT_EQ(std::pair(width, height), std::pair(uint32_t{kMovieWidth}, uint32_t{kMovieHeight}));
    EXPECT_DOUBLE_EQ(player->GetFrameRate(), 10.0);
    const HostFrame frame = Render();
    EXPECT_TRUE(Same(frame.At(5, 5), kRed, tolerance));
    EXPECT_TRUE(Same(frame.At(60, 20), kRed, tolerance));
    EXPECT_TRUE(
        Same(frame.At(10, 40), halfAlpha ? OverBackground(kRed, kHalfAlpha) : kRed, tolerance));
    EXPECT_TRUE(Same(frame.At(50, 40), hasAlpha ? kBackground : kRed, tolerance));

    // A control (or none), then time moves on; then the frame on show, whether
    // it plays and every end of pass so far.
    const std::tuple<void (IFlashPlayer::*)(), uint64_t, int, bool, std::vector<uint64_t>>
        timeline[] = {
            // Pause does nothing when not playing. Each frame shows for exactly
            // 100 ms; the last one ends the pass at 500.
            {&IFlashPlayer::Pause, 0, 0, false, {}},
            {&IFlashPlayer::Play, 99, 0, true, {}},
            {nullptr, 1, 1, true, {}},
            {nullptr, 399, 4, true, {}},
            {nullptr, 1, 0, true, {500}},
            // Paused at 750, 250 ms into the pass, the frame holds; playing again
            // at 5750, the rest of the pass takes 250 ms. At the end of the second
            // pass the handler pauses the player.
            {nullptr, 250, 2, true, {500}},
            {&IFlashPlayer::Pause, 5000, 2, false, {500}},
            {&IFlashPlayer::Play, 49, 2, true, {500}},
            {nullptr, 1, 3, true, {500}},
            {nullptr, 199, 4, true, {500}},
            {nullptr, 1, 0, false, {500, 6000}},
            {nullptr, 2500, 0, false, {500, 6000}},
            // Stop goes back to the first frame and the start of the pass.
            {&IFlashPlayer::Play, 320, 3, true, {500, 6000}},
            {&IFlashPlayer::Stop, 1000, 0, false, {500, 6000}},
            {&IFlashPlayer::Play, 500, 0, true, {500, 6000, 10320}},
        };
    for (const auto& [control, advanceMs, shown, playing, endsMs] : timeline) {
        if (control != nullptr) {
            (player->*control)();
        }
        AdvanceBy(advanceMs);
        SCOPED_TRACE(testing::Message() << "at " << MonotonicMs() << " ms");
        EXPECT_EQ(ShownFrame(tolerance), shown);
        EXPECT_EQ(player->IsPlaying(), playing);
        EXPECT_EQ(m_recorder.Ends(), endsMs);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, FormatTest,
                         ::testing::Values(Format{"anim.apng", 0, true, true},
                                           Format{"anim.webp", 0, true, true},
                                           Format{"alpha.webm", 6, false, true},
                                           Format{"anim.gif", 0, false, false},
                                           Format{"movie.mp4", 6, false, false}),
                         [](const auto& info) {
                             const std::string file = std::get<0>(info.param);
                             return file.substr(file.find('.') + 1);
                         });

// The movie lands at its position and inside the clip only; degenerate input
// draws nothing at all.
TEST_F(MediaPlayerTest, RenderToFramePlacesClipsAndScales) {
    Open("anim.apng");
    constexpr uint32_t kWidth = 101;  // rows of 303 bytes padded to 304
    constexpr uint32_t kHeight = 80;
    const RECT whole{0, 0, kWidth, kHeight}, clip{20, 10, 40, 30}, reversed{40, 30, 20, 10},
        outside{-50, -50, -1, -1}, none{0, 0, 0, 0};
    // Clip, position, where the movie may show and scale.
    const std::tuple<const RECT*, POINT, RECT, float> placements[] = {
        {&whole, {10, 7}, whole, 1.f},   {&whole, {-30, -20}, whole, 1.f},
        {&whole, {90, 70}, whole, 1.f},  {&clip, {10, 7}, clip, 1.f},
        {&reversed, {10, 7}, clip, 1.f}, {nullptr, {10, 7}, whole, 1.f},
        {&outside, {0, 0}, none, 1.f},   {&whole, {INT32_MIN, 0}, none, 1.f},
        {&whole, {0, 0}, none, 0.f},     {&whole, {0, 0}, none, -1.f},
        {&whole, {0, 0}, none, NAN},     {&whole, {0, 0}, none, 1e9f},
        {&whole, {0, 0}, none, 0.001f},  {&whole, {INT32_MAX - 5, INT32_MAX - 5}, none, 1.f}};
    for (const auto& [area, pos, visible, scale] : placements) {
        SCOPED_TRACE(testing::Message() << "at " << pos.x << "," << pos.y << " scale " << scale);
        const HostFrame frame = Render(area, pos, scale, kWidth, kHeight);
        for (int y = 0; y < static_cast<int>(kHeight); ++y) {
            for (int x = 0; x < static_cast<int>(kWidth); ++x) {
                const int64_t mx = int64_t{x} - pos.x;
                const int64_t my = int64_t{y} - pos.y;
                const bool shown = x >= visible.left && x < visible.right && y >= visible.top &&
                                   y < visible.bottom && mx >= 0 && my >= 0 && mx < kMovieWidth &&
                                   my < kMovieHeight;
                const Bgr want = shown ? OverBackground(kRed, AlphaAt(mx, my, true)) : kBackground;
                ASSERT_TRUE(Same(frame.At(x, y), want)) << "at " << x << "," << y;
            }
            // The row padding byte is never written.
            ASSERT_EQ(frame.bytes[y * frame.stride + kWidth * 3], 0xEE);
        }
    }
    m_player->RenderToFrame(nullptr, kWidth, kHeight, &whole, nullptr, 1.f);

    // Scaled: the position, the clip and the size all scale (truncated), as
    // the text's and the plate's do; solid regions stay solid away from their
    // edges.
    for (float scale : {1.5f, 0.5f, 0.7f}) {
        SCOPED_TRACE(testing::Message() << "scale " << scale);
        const auto w = static_cast<int>(kMovieWidth * scale);
        const auto h = static_cast<int>(kMovieHeight * scale);
        const int x = static_cast<int>(3 * scale);
        const int y = static_cast<int>(4 * scale);
        const RECT narrow{0, 0, 3 + kMovieWidth / 2, kHeight};
        const HostFrame frame = Render(&narrow, {3, 4}, scale, kWidth, kHeight);
        EXPECT_TRUE(Same(frame.At(x + 1, y + 1), kRed, 1));
        EXPECT_TRUE(Same(frame.At(x + w / 4, y + h - 2), OverBackground(kRed, kHalfAlpha), 2));
        const int clipRight = static_cast<int>((3 + kMovieWidth / 2) * scale);
        EXPECT_TRUE(Same(frame.At(clipRight - 1, y + 1), kRed, 1));
        EXPECT_TRUE(Same(frame.At(clipRight, y + 1), kBackground));
        EXPECT_TRUE(Same(frame.At(x + 1, y + h), kBackground));
        EXPECT_TRUE(Same(frame.At(x - 1, y), kBackground));
    }
}

// Each file replaces the movie before it, a playing one first.
TEST_F(MediaPlayerTest, FilesItCannotPlayOpenAsNoMovie) {
    IFlashPlayer* player = Open("anim.apng", /*autoPlay=*/true);
    AdvanceBy(150);
    for (const std::string name : {"missing.webm", "empty.webm", "garbage.webm", "movie.swf",
                                   "notes.gif", "truncated.webm"}) {
        SCOPED_TRACE(name);
        player->Open(g_files->Path16(name).c_str(), 0, true);
        uint32_t width = 7, height = 7;
        const bool ready = player->IsReady();
        EXPECT_EQ(player->GetSize(&width, &height), ready);
        EXPECT_FALSE(player->IsLoading());
        if (name == "truncated.webm") {
            continue;  // may keep the frames before the cut; only consistency counts
        }
        EXPECT_FALSE(ready);
        EXPECT_EQ(width + height, 0u);
        EXPECT_EQ(player->GetFrameRate(), 0.0);
        player->Play();
        EXPECT_FALSE(player->IsPlaying());
        EXPECT_EQ(Render().bytes, HostFrame(kMovieWidth, kMovieHeight).bytes);
        EXPECT_FALSE(player->RenderToTexture(1, &width, &height, nullptr));
        AdvanceBy(500);
    }
    player->Open(nullptr, 0, true);
    EXPECT_FALSE(player->IsReady());
    player->Open(g_files->Path16("anim.gif").c_str(), 0, false);
    EXPECT_TRUE(player->IsReady());
    EXPECT_EQ(ShownFrame(), 0);
    AdvanceBy(500);
    EXPECT_TRUE(m_recorder.Ends().empty());
}

// The current frame lands in the texture bottom-up, straight alpha intact,
// and follows the movie as it plays.
using PlayerTextureTest = GlTest<4, 4>;

TEST_F(PlayerTextureTest, UploadsTheCurrentFrameThroughThePixelBuffer) {
    const VirtualTime time;
    const PlayerPtr player = OpenMovie("anim.apng", nullptr);
    const GLuint texture = CGLObjectFactory::CreateTexture();
    const std::unique_ptr<IPBO, void (*)(IPBO*)> pbo(CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32),
                                                     CGLObjectFactory::DestroyPBO);
    uint32_t width = 0, height = 0;
    for (const Bgr c : {kColours[0], kColours[1]}) {
        ASSERT_TRUE(player->RenderToTexture(texture, &width, &height, pbo.get()));
        ASSERT_EQ(std::pair(width, height),
                  std::pair(uint32_t{kMovieWidth}, uint32_t{kMovieHeight}));
        const std::vector<uint8_t> pixels =
            host::CHeadlessGl::ReadBackTexture(texture, kMovieWidth, kMovieHeight);
        for (int y = 0; y < kMovieHeight; ++y) {
            for (int x = 0; x < kMovieWidth; ++x) {
                const uint8_t* p =
                    &pixels[static_cast<size_t>((kMovieHeight - 1 - y) * kMovieWidth + x) * 4];
                ASSERT_EQ(p[3], AlphaAt(x, y, true)) << x << "," << y;
                ASSERT_TRUE(p[3] == 0 || (p[0] == c.b && p[1] == c.g && p[2] == c.r))
                    << x << "," << y;
            }
        }
        player->Play();
        AdvanceBy(100);
        player->Pause();
    }
    width = height = 0;
    EXPECT_FALSE(player->RenderToTexture(0, &width, &height, pbo.get()));
    EXPECT_FALSE(player->RenderToTexture(texture, &width, &height, nullptr));
    EXPECT_EQ(width, static_cast<uint32_t>(kMovieWidth));  // the size is still reported
}

// Concurrent use, on real time: threads really overlap here, in runs bounded
// by short waits.
bool WaitFor(const std::atomic<bool>& flag,
             std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return flag;
}

// First the callback pauses the player while the owner's lock is held across
// Open; then the owner deletes its player while the player's thread is inside
// OnPlayEnd, blocked: the deletion returns only after the callback has left,
// so a handler outlives every callback to it.
TEST(PlayerThreads, DeletionWaitsForACallbackInProgress) {
    PassRecorder handler;
    handler.pauseAfter = 1;
    PlayerPtr player{nullptr, DeleteFlashPlayer};
    {
        std::lock_guard<std::recursive_mutex> hold(handler.lock);
        player = OpenMovie("fast.apng", &handler, /*autoPlay=*/true);
        handler.player = player.get();
    }
    ASSERT_TRUE(WaitFor(handler.left));
    std::atomic<bool> deleted{false};
    std::atomic<bool> leftFirst{false};
    std::thread deleter;
    {
        std::lock_guard<std::recursive_mutex> hold(handler.lock);
        EXPECT_FALSE(player->IsPlaying());
        handler.entered = handler.left = false;
        player->Play();
        ASSERT_TRUE(WaitFor(handler.entered));
        handler.player = nullptr;
        deleter = std::thread([&] {
            player.reset();
            leftFirst = handler.left.load();
            deleted = true;
        });
        EXPECT_FALSE(WaitFor(deleted, std::chrono::milliseconds(100)));
    }
    deleter.join();
    EXPECT_TRUE(leftFirst);
    EXPECT_EQ(handler.Ends().size(), 2u);
}

// One thread renders and queries, another plays, pauses, stops and reopens,
// while the player's own thread advances frames and reports passes.
TEST(PlayerThreads, RenderingWhileAnotherThreadControlsThePlayer) {
    PassRecorder handler;
    PlayerPtr player = OpenMovie("fast.apng", &handler, /*autoPlay=*/true);
    std::atomic<bool> done{false};
    std::thread renderer([&] {
        std::vector<uint8_t> frame(size_t{160} * 120 * 3);
        const RECT clip{0, 0, 160, 120};
        const POINT pos{5, 5};
        while (!done) {
            std::lock_guard<std::recursive_mutex> hold(handler.lock);
            uint32_t w = 0;
            if (player->GetSize(&w, nullptr)) {
                EXPECT_EQ(w, 64u);
            }
            player->RenderToFrame(frame.data(), 160, 120, &clip, &pos, 1.f);
            player->RenderToFrame(frame.data(), 160, 120, &clip, &pos, 1.5f);
            player->IsReady();
            player->IsLoading();
        }
    });
    std::thread controller([&] {
        const std::u16string other = g_files->Path16("anim.gif");
        for (int i = 0; i < 40; ++i) {
            player->Play();
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            player->Pause();
            player->Play();
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            if (i % 10 == 9) {
                player->Stop();
                player->Open(other.c_str(), 0, true);
            }
        }
    });
    controller.join();
    done = true;
    renderer.join();
}

// Streaming: a movie of any length plays at bounded memory, and nothing that
// draws waits for its decoding.

// The process's resident memory in KiB: now, or the most since ResetPeak.
long StatusKiB(const std::string& field) {
    const std::vector<uint8_t> bytes = ReadBytes("/proc/self/status");
    const std::string status(bytes.begin(), bytes.end());
    const size_t at = status.find(field + ":");
    return at == std::string::npos ? 0 : std::atol(status.c_str() + at + field.size() + 1);
}

// The number the long movie's frame shows, read from its bars in a 1080p
// host frame (-1 when a bar is neither white nor black).
int FrameNumber(const HostFrame& frame) {
    int number = 0;
    for (int bit = 0; bit < 9; ++bit) {
        const uint8_t grey = frame.At(1920 * (2 * bit + 1) / 18, 540)[1];
        if (grey > 80 && grey < 176) {
            return -1;
        }
        number |= grey >= 176 ? 1 << bit : 0;
    }
    return number;
}

// Every frame of a minute of full HD at its time, then the pass's end at the
// minute and the first frame again; memory stays at a few frames.
TEST_F(MediaPlayerTest, AMinuteOfFullHdPlaysEveryFrameAtItsTime) {
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts from now
    [[maybe_unused]] const long before = StatusKiB("VmRSS");
    IFlashPlayer* player = Open("long.mp4", /*autoPlay=*/true);
    uint32_t width = 0, height = 0;
    ASSERT_TRUE(player->GetSize(&width, &height));
    ASSERT_EQ(width, 1920u);
    HostFrame frame(1920, 1080);
    const RECT band{0, 530, 1920, 550};  // only the bars' middle is blended
    for (int i = 0; i < 300; ++i) {
        AdvanceBy(i == 0 ? 100 : 200);  // the middle of frame i
        m_player->RenderToFrame(frame.bytes.data(), 1920, 1080, &band, nullptr, 1.f);
        ASSERT_EQ(FrameNumber(frame), i) << "at " << MonotonicMs() << " ms";
    }
    AdvanceBy(200);
    m_player->RenderToFrame(frame.bytes.data(), 1920, 1080, &band, nullptr, 1.f);
    EXPECT_EQ(FrameNumber(frame), 0);
    EXPECT_EQ(m_recorder.Ends(), std::vector<uint64_t>{60000});
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they keep freed memory
    // The whole movie decoded would be 2.4 GB; a few frames are 10 MB each.
    EXPECT_LT(StatusKiB("VmHWM") - before, 128 * 1024);
#endif
}

// A file cut short plays its frames and loops; a file replaced by noise while
// it plays holds its last frame and goes on ending passes: no stall, no crash.
TEST_F(MediaPlayerTest, BrokenAndReplacedFilesPlayWhatTheyCan) {
    std::vector<uint8_t> bytes = ReadBytes(g_files->Path8("long.mp4"));
    bytes.resize(bytes.size() / 2);
    ASSERT_TRUE(WriteBytes(g_files->Path8("half.mp4"), bytes));
    Open("half.mp4", /*autoPlay=*/true);
    HostFrame frame(1920, 1080);
    const RECT band{0, 530, 1920, 550};
    AdvanceBy(20000);
    m_player->RenderToFrame(frame.bytes.data(), 1920, 1080, &band, nullptr, 1.f);
    EXPECT_GT(FrameNumber(frame), 0);
    AdvanceBy(100000);
    ASSERT_EQ(m_recorder.Ends().size(), 2u);  // paused at its second end
    EXPECT_LT(m_recorder.Ends()[0], 60000u);

    ASSERT_TRUE(
        WriteBytes(g_files->Path8("replaced.apng"), ReadBytes(g_files->Path8("anim.apng"))));
    m_recorder.endsMs.clear();
    m_recorder.pauseAfter = 4;
    Open("replaced.apng", /*autoPlay=*/true);
    AdvanceBy(300);
    std::vector<uint8_t> noise(4096, 0x5A);
    ASSERT_TRUE(WriteBytes(g_files->Path8("replaced.apng"), noise));
    AdvanceBy(1700);
    EXPECT_EQ(m_recorder.Ends().size(), 4u);
    EXPECT_GE(ShownFrame(), 0);
}

// AddSubtitle of a subtitle with a full HD movie returns soon, and a render
// thread drawing at 60 fps meanwhile never waits long for the manager.
TEST(PlayerStreaming, AddingAMovieNeverStallsDrawing) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr double kSlowdown = 6;
#else
    constexpr double kSlowdown = 1;
#endif
    const auto bound = std::chrono::milliseconds(static_cast<int>(150 * kSlowdown));
    SwfPart swf{};
    const std::u16string path = g_files->Path16("long.mp4");
    std::copy(path.begin(), path.end(), swf.szPath);
    swf.rcClip = RECT{0, 0, 320, 180};
    const ItemDescription item{&swf, nullptr, nullptr, 0, {}};
    ILumetManager* manager = CreateLumetManager();
    std::atomic<bool> done{false};
    std::chrono::steady_clock::duration worst{};
    std::thread render([&] {
        std::vector<uint8_t> frame(size_t{1920} * 3 * 1080);
        while (!done) {
            const auto start = std::chrono::steady_clock::now();
            manager->DrawToBuffer(frame.data(), 1920, 1080, 1.f);
            worst = std::max(worst, std::chrono::steady_clock::now() - start);
            std::this_thread::sleep_for(std::chrono::milliseconds(16));
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto start = std::chrono::steady_clock::now();
    manager->AddSubtitle(u"movie", u"g", &item, 1, 0, 0, false, 0);
    const auto adding = std::chrono::steady_clock::now() - start;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    done = true;
    render.join();
    DeleteLumetManager(manager);
    EXPECT_LT(adding, bound);
    EXPECT_LT(worst, bound);
}

// Pixel-buffer uploads and the GPU combiner on a real headless OpenGL context:
// what goes up is read back or drawn and compared pixel by pixel.

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
