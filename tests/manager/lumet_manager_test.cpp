// The subtitle manager with scripted players in virtual time: the registry,
// groups, start-time order, mouse geometry, and the GPU objects it keeps per
// id; then its play queue; then, through the public interface with the real
// player, subtitles ended without outliving their owners.
#include "manager/lumet_manager.h"

#include <epoxy/gl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "common/counting_gl_factory.h"
#include "common/golden.h"
#include "common/scratch_files.h"
#include "common/scripted_player.h"
#include "lumets/host/headless_gl.h"
#include "lumets/lumet_manager.h"
#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"
#include "manager/lumet_objs_player.h"

namespace lumets {
namespace {

// Aborts the test program, naming the case, when a case has not ended within
// its limit. One at a time: it takes the process's alarm.
class Watchdog {
  public:
    explicit Watchdog(const std::string& what, unsigned seconds = 300) {
        std::snprintf(s_message, sizeof s_message, "hung: %s\n", what.c_str());
        std::signal(SIGALRM, [](int) {
            (void)!write(STDERR_FILENO, s_message, std::strlen(s_message));
            std::abort();
        });
        alarm(seconds);
    }
    ~Watchdog() { alarm(0); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    static inline char s_message[512];
};

// Draws on two host threads, to a buffer and (where EGL opens) to a target,
// until it goes.
class Drawers {
  public:
    Drawers(ILumetManager* manager, int32_t width, int32_t height, float scale) {
        m_threads.emplace_back([=, this] {
            std::vector<uint8_t> frame(size_t{RowStride(width, 24)} * height);
            while (!m_stop) {
                manager->DrawToBuffer(frame.data(), width, height, scale);
            }
        });
        m_threads.emplace_back([=, this] {
            host::CHeadlessGl gl;
            if (!gl.OpenDisplay() || !gl.CreateContext() || !gl.CreateFramebuffer(width, height)) {
                return;
            }
            while (!m_stop) {
                manager->DrawToTarget(width, height, scale);
            }
            manager->ReleaseGpuResources();
        });
    }
    ~Drawers() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

  private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

class ManagerTest : public testing::Test {
  protected:
    void SetUp() override {
        SetTimeMode(TimeMode::Virtual);
        test::ScriptedPlayer::Install(true);
        ASSERT_TRUE(test::WriteBytes(m_movie, {1}));
        std::copy(m_movie.begin(), m_movie.end(), m_swf.szPath);  // the temp folder is ASCII
        m_swf.rcClip = RECT{0, 0, 200, 100};  // a still 100 x 40 movie at (0, 0)
    }
    void TearDown() override {
        m_manager.reset();
        test::ScriptedPlayer::Install(false);
        SetTimeMode(TimeMode::Real);
    }
    // Adds a subtitle that plays until removed, a second after the last one.
    void Add(const char16_t* id, const char16_t* group, int32_t x, int32_t y) {
        AdvanceBy(1000);
        ItemDescription item{&m_swf, nullptr, nullptr, 0, {}};
        m_manager->AddSubtitle(id, group, &item, 1, x, y, false, 0);
        WaitUntilSettled();
    }
    uint32_t Playing(const char16_t* group) {
        std::vector<SubtitleRectEntry> entries(8);
        uint32_t count = 99;
        return m_manager->GetPlayingInGroup(group, entries.data(), &count) ? count : 0;
    }

    test::ScratchDir m_dir;
    std::string m_movie = m_dir.File("movie.swf");
    SwfPart m_swf{};
    std::unique_ptr<CLumetManager> m_manager = std::make_unique<CLumetManager>();
};

TEST_F(ManagerTest, RegistryGroupsAndOrder) {
    Add(u"a", u"Chat", 0, 0);
    Add(u"b", u"CHAT", 50, 0);
    Add(u"A", u"chat", 100, 0);  // ids are case-sensitive, groups are not
    EXPECT_EQ(Playing(u"chat"), 3u);
    // The same id again while it plays changes nothing.
    Add(u"a", u"other", 500, 500);
    POINT position{};
    ASSERT_TRUE(m_manager->GetSubtitlePosition(u"a", &position));
    EXPECT_EQ(position.x, 0);
    // Nothing to play: registered, idle, never listed.
    m_manager->AddSubtitle(u"empty", u"chat", nullptr, 0, 0, 0, false, 0);
    EXPECT_EQ(Playing(u"chat"), 3u);
    std::vector<SubtitleRectEntry> entries(8);
    uint32_t count = 99;
    EXPECT_FALSE(m_manager->GetPlayingInGroup(u"none", entries.data(), &count));
    EXPECT_EQ(count, 99u);  // left alone
    // The newest wins a hit test where all three overlap.
    char16_t id[260] = {};
    RECT rect{};
    ASSERT_TRUE(m_manager->HitTestGroup(u"chat", 120, 10, id, &rect));
    EXPECT_EQ(std::u16string(id), u"A");
    // Dragging: the reported rectangle's corner goes where the mouse is.
    m_manager->MoveSubtitle(u"A", 300, 200);
    ASSERT_TRUE(m_manager->GetSubtitleRect(u"A", &rect));
    EXPECT_EQ(std::pair(rect.left, rect.top), std::pair(300, 200));
    // Unknown and empty ids; a failed lookup clears the position.
    position = POINT{7, 9};
    EXPECT_FALSE(m_manager->GetSubtitlePosition(u"zz", &position));
    EXPECT_EQ(std::pair(position.x, position.y), std::pair(0, 0));
    EXPECT_FALSE(m_manager->GetSubtitleRect(nullptr, &rect));
    m_manager->AddSubtitle(u"", u"chat", nullptr, 0, 0, 0, false, 0);
    m_manager->RemoveSubtitle(u"");
    EXPECT_TRUE(m_manager->GetSubtitlePosition(u"", &position));
    // Trimming keeps the newest: the idle "empty" and "" (start time 0) and
    // the oldest "a" go first.
    m_manager->TrimGroup(u"chat", 5);
    EXPECT_EQ(Playing(u"chat"), 3u);
    m_manager->TrimGroup(u"CHAT", 2);
    EXPECT_FALSE(m_manager->GetSubtitlePosition(u"empty", &position));
    EXPECT_TRUE(m_manager->GetSubtitlePosition(u"", &position));  // not removable by id
    EXPECT_EQ(Playing(u"chat"), 2u);
    EXPECT_FALSE(m_manager->GetSubtitlePosition(u"a", &position));
    m_manager->TrimGroup(u"chat", 0);
    EXPECT_EQ(Playing(u"chat"), 0u);
    // Two managers share nothing.
    CLumetManager other;
    EXPECT_FALSE(other.GetSubtitlePosition(u"", &position));
}

TEST_F(ManagerTest, HostileCalls) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const std::u16string longId(100000, u'x');
    Add(longId.c_str(), u"g", 0, 0);
    char16_t id[260];
    std::fill(std::begin(id), std::end(id), u'?');
    ASSERT_TRUE(m_manager->HitTestGroup(u"g", 10, 10, id, nullptr));
    EXPECT_EQ(std::u16string(id), longId.substr(0, 259));  // truncated, terminated
    ItemDescription item{&m_swf, nullptr, nullptr, 0, {}};
    m_manager->AddSubtitle(nullptr, u"g", &item, 1, 0, 0, false, 0);
    m_manager->AddSubtitle(u"x", nullptr, &item, 1, 0, 0, false, 0);
    m_manager->RemoveSubtitle(nullptr);
    m_manager->TrimGroup(nullptr, 0);
    EXPECT_FALSE(m_manager->GetPlayingInGroup(nullptr, nullptr, nullptr));
    EXPECT_FALSE(m_manager->GetPlayingInGroup(u"g", nullptr, nullptr));
    EXPECT_FALSE(m_manager->HitTestGroup(nullptr, 0, 0, nullptr, nullptr));
    EXPECT_TRUE(m_manager->HitTestGroup(u"g", 10, 10, nullptr, nullptr));
    EXPECT_TRUE(m_manager->GetSubtitleRect(longId.c_str(), nullptr));
    EXPECT_TRUE(m_manager->GetSubtitlePosition(longId.c_str(), nullptr));
    m_manager->MoveSubtitle(nullptr, 1, 1);
    m_manager->MoveSubtitle(longId.c_str(), INT32_MIN, INT32_MAX);
    m_manager->UpdateSubtitleText(longId.c_str(), nullptr);
    m_manager->UpdateSubtitleBackground(nullptr, nullptr);
    std::vector<uint8_t> frame(RowStride(64, 24) * 48, 7);
    for (float scale : {0.0f, -1.0f, nan, inf, 1.0f}) {
        m_manager->DrawToBuffer(nullptr, 64, 48, scale);
        m_manager->DrawToBuffer(frame.data(), 0, 0, scale);
        m_manager->DrawToBuffer(frame.data(), 64, 48, scale);
        m_manager->DrawToTarget(0, 0, scale);
        m_manager->DrawToTarget(-5, -5, scale);
    }
    m_manager->ReleaseGpuResources();
    m_manager->RemoveSubtitle(longId.c_str());
    EXPECT_FALSE(m_manager->GetSubtitlePosition(longId.c_str(), nullptr));
}

// The GPU objects of an id live as long as the id: a removed id's textures
// and buffer objects go at the next DrawToTarget, the others stay.
class ManagerGpuTest : public ManagerTest {
  protected:
    void SetUp() override {
        if (!m_gl.OpenDisplay()) {
            GTEST_SKIP() << "no EGL display for headless OpenGL: " << m_gl.Error();
        }
        ASSERT_TRUE(m_gl.CreateContext() && m_gl.CreateFramebuffer(320, 200)) << m_gl.Error();
        m_counting.emplace();
        ManagerTest::SetUp();
    }
    void TearDown() override {
        ManagerTest::TearDown();
        m_counting.reset();
    }

    // Draws to the target at the scale and counts the pixels more than 24
    // per channel away from the CPU's frame.
    int DifferingFromTarget(const std::vector<uint8_t>& cpu, float scale) {
        m_gl.Clear(0x30, 0x30, 0x30, 255);
        m_manager->DrawToTarget(320, 200, scale);
        const std::vector<uint8_t> gpu = m_gl.ReadPixels();
        int differing = 0;
        for (int y = 0; y < 200; ++y) {
            for (int x = 0; x < 320; ++x) {
                const uint8_t* c = &cpu[static_cast<size_t>(RowStride(320, 24)) * y + x * 3];
                const uint8_t* g = &gpu[(static_cast<size_t>(y) * 320 + x) * 4];
                differing += std::abs(c[0] - g[0]) > 24 || std::abs(c[1] - g[1]) > 24 ||
                             std::abs(c[2] - g[2]) > 24;
            }
        }
        return differing;
    }

    std::optional<test::CountingGlFactory> m_counting;
    static inline std::atomic<int>& textures = test::CountingGlFactory::textures;
    static inline std::atomic<int>& buffers = test::CountingGlFactory::buffers;
    host::CHeadlessGl m_gl;
};

TEST_F(ManagerGpuTest, MoreTexturesThanOneBatchAreAllDeleted) {
    std::vector<GLuint> names(kDeleteBatch + 100);
    glGenTextures(static_cast<GLsizei>(names.size()), names.data());
    for (GLuint name : names) {
        glBindTexture(GL_TEXTURE_2D, name);  // a name becomes a texture when bound
    }
    glBindTexture(GL_TEXTURE_2D, 0);
    DeleteTexturesInBatches(names);
    EXPECT_EQ(std::count_if(names.begin(), names.end(), [](GLuint n) { return glIsTexture(n); }),
              0);
}

// Two overlapping subtitles: the newer is painted over the older, on the CPU
// (a golden picture) and on the GPU (the same picture within 24 per channel
// on at most 2 % of the pixels).
TEST_F(ManagerGpuTest, TheNewerSubtitleIsPaintedOverTheOlder) {
    auto text = std::make_unique<TextPart>();  // zeroed, with the style's own defaults
    text->style.fontSize = 20;
    text->style.fillColor1 = text->style.fillColor2 = 0xFFFFFF;
    text->rcClip = RECT{0, 0, 320, 200};
    BackgroundPart plate{0xC02020, 100, 0, {}};
    for (const auto& [id, colour, at] :
         {std::tuple(u"older", 0xC02020u, POINT{20, 20}), {u"newer", 0x2040C0u, POINT{60, 40}}}) {
        const std::u16string words = std::u16string(u"subtitle ") + id;
        std::copy(words.c_str(), words.c_str() + words.size() + 1, text->text);
        plate.crColor = colour;
        ItemDescription item{nullptr, text.get(), &plate, 0, {}};
        AdvanceBy(1000);
        m_manager->AddSubtitle(id, u"g", &item, 1, at.x, at.y, false, 0);
    }
    WaitUntilSettled();
    std::vector<uint8_t> cpu(RowStride(320, 24) * 200, 0x30);
    m_manager->DrawToBuffer(cpu.data(), 320, 200, 1.0f);
    EXPECT_TRUE(test::MatchesGolden(std::string(LUMETS_TEST_DATA_DIR) + "/two_subtitles.png",
                                    PackedPicture(cpu.data(), 320, 200, 24),
                                    test::GoldenTolerance{12, 0.01}));
    // Where the plates overlap, the newer one's blue shows.
    const uint8_t* overlap =
        &cpu[static_cast<size_t>(RowStride(320, 24)) * (200 - 1 - 48) + 200 * 3];
    EXPECT_GT(overlap[0], overlap[2]);
    EXPECT_LE(DifferingFromTarget(cpu, 1.0f), 320 * 200 / 50);
    m_manager->ReleaseGpuResources();
}

// One item with all three layers lands in one place on the CPU and on the
// GPU at every scale: the movie's position and clip scale as the text's and
// the plate's do.
TEST_F(ManagerGpuTest, CpuAndGpuAgreeAtEveryScale) {
    test::ScriptedPlayer::Install(false);  // the real player, on a real movie
    const std::string movie = m_dir.File("blue.apng");
    ASSERT_TRUE(
        test::RunCommand("ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "
                         "color=c=0x3070D0:s=64x48:r=10 -t 0.3 -plays 0 -f apng " +
                         test::Quote(movie)));
    SwfPart swf{};
    std::copy(movie.begin(), movie.end(), swf.szPath);
    swf.rcClip = RECT{0, 0, 50, 80};
    swf.x = 10;
    swf.y = 10;
    auto text = std::make_unique<TextPart>();
    std::copy_n(u"scaled", 7, text->text);
    text->style.fontSize = 16;
    text->style.fillColor1 = text->style.fillColor2 = 0xFFFFFF;
    text->rcClip = RECT{0, 60, 160, 90};
    text->x = 20;
    text->y = 62;
    BackgroundPart plate{0xC02020, 100, 0, {}};
    ItemDescription item{&swf, text.get(), &plate, 0, {}};
    m_manager->AddSubtitle(u"all", u"g", &item, 1, 30, 20, false, 0);
    WaitUntilSettled();
    for (const float scale : {1.0f, 0.5f, 1.5f, 2.0f}) {
        SCOPED_TRACE(scale);
        std::vector<uint8_t> cpu(RowStride(320, 24) * 200, 0x30);
        m_manager->DrawToBuffer(cpu.data(), 320, 200, scale);
        EXPECT_LE(DifferingFromTarget(cpu, scale), 320 * 200 / 50);
    }
    m_manager->ReleaseGpuResources();
}

// The GPU objects of an id live as long as the id: a removed id's textures
// and buffer objects go at the next DrawToTarget, the others stay. A GL
// trace of the releases: a frame with nothing stale deletes nothing, a
// release deletes its list in one call even when it is empty, and a slot
// without a buffer object destroys none.
PFNGLDELETETEXTURESPROC g_deleteTextures = nullptr;
std::vector<GLsizei> g_deleted;
void RecordDeletes(GLsizei n, const GLuint* names) {
    g_deleted.push_back(n);
    g_deleteTextures(n, names);
}

TEST_F(ManagerGpuTest, ARemovedIdsObjectsGoAtTheNextDraw) {
    glDeleteTextures(0, nullptr);  // the entry point resolves itself on its first call
    g_deleteTextures = epoxy_glDeleteTextures;
    epoxy_glDeleteTextures = RecordDeletes;
    Add(u"one", u"g", 0, 0);
    Add(u"two", u"g", 50, 50);
    m_manager->DrawToTarget(320, 200, 1.0f);
    EXPECT_EQ(std::pair(textures.load(), buffers.load()), std::pair(2, 2));  // a movie each
    m_manager->DrawToTarget(320, 200, 1.0f);
    EXPECT_EQ(textures.load(), 2);  // reused
    m_manager->RemoveSubtitle(u"one");
    EXPECT_EQ(buffers.load(), 2);  // not yet
    m_manager->DrawToTarget(320, 200, 1.0f);
    EXPECT_EQ(buffers.load(), 1);
    m_manager->ReleaseGpuResources();
    m_manager->ReleaseGpuResources();
    EXPECT_EQ(buffers.load(), 0);
    EXPECT_EQ(g_deleted, (std::vector<GLsizei>{1, 1, 0}));
    test::CountingGlFactory::refuseBuffers = true;  // "two" draws again, without one
    m_manager->DrawToTarget(320, 200, 1.0f);
    m_manager->ReleaseGpuResources();
    epoxy_glDeleteTextures = g_deleteTextures;
    EXPECT_EQ(g_deleted, (std::vector<GLsizei>{1, 1, 0, 1}));
    EXPECT_EQ(test::CountingGlFactory::nullDestroyed.load(), 0);
}

// A host that loses its GL context without ReleaseGpuResources hears of it,
// once, in the log.
TEST_F(ManagerGpuTest, ALostContextIsLoggedOnce) {
    Add(u"one", u"g", 0, 0);
    m_manager->DrawToTarget(320, 200, 1.0f);
    m_gl.Close();
    ASSERT_TRUE(m_gl.OpenDisplay() && m_gl.CreateContext() && m_gl.CreateFramebuffer(320, 200));
    const std::string log = test::CaptureStdout(m_dir.File("stdout.txt"), [&] {
        m_manager->DrawToTarget(320, 200, 1.0f);
        m_manager->DrawToTarget(320, 200, 1.0f);
    });
    const size_t first = log.find("is no longer a texture");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find("is no longer a texture", first + 1), std::string::npos) << log;
    m_manager->ReleaseGpuResources();
}

// Removing many subtitles costs about one frame, not one per subtitle: every
// item is asked to stop before any is waited for, and a stop ends a frame
// step's wait at once.
TEST_F(ManagerTest, RemovingManyCostsAboutOneFrame) {
    m_swf.nDirection = 1;
    m_swf.nSpeed = 100;
    ItemDescription item{&m_swf, nullptr, nullptr, 0, {}};
    for (char16_t i = 0; i < 60; ++i) {
        const char16_t id[] = {u'A', static_cast<char16_t>(u'A' + i), 0};
        m_manager->AddSubtitle(id, i % 2 ? u"odd" : u"even", &item, 1, 0, 0, false, 0);
        AdvanceBy(7);  // frame steps due at every phase
    }
    uint64_t before = MonotonicMs();
    m_manager->TrimGroup(u"odd", 0);
    EXPECT_LE(MonotonicMs() - before, 33u);
    before = MonotonicMs();
    m_manager->RemoveAllSubtitles();
    EXPECT_LE(MonotonicMs() - before, 33u);
}

// Bounded, in real time: four host threads add, remove, trim, hit-test, move
// and update 50 ids at random while a fifth draws to a buffer and a GL thread
// draws to a target. A watchdog fails the run on a deadlock.
TEST_F(ManagerTest, ManyThreadsAtOnceInRealTime) {
    SetTimeMode(TimeMode::Real);
    SwfPart& swf = m_swf;
    swf.nDirection = 1;
    swf.nSpeed = 2000;
    CLumetManager& manager = *m_manager;
    Watchdog watchdog("many threads at once");
    auto host = [&](uint32_t seed) {
        std::minstd_rand random(seed);
        BackgroundPart plate{0x204080, 60, 0, {}};
        for (int i = 0; i < 150; ++i) {
            const std::u16string id = u"id" + std::u16string(1, u'A' + random() % 50);
            const char16_t* group = random() % 2 ? u"one" : u"TWO";
            ItemDescription items[2] = {{&swf, nullptr, &plate, 1, {}},
                                        {&swf, nullptr, nullptr, 2, {}}};
            RECT rect{};
            switch (random() % 7) {
                case 0:
                case 1:
                    manager.AddSubtitle(id.c_str(), group, items, 1 + random() % 2, random() % 300,
                                        random() % 200, random() % 2, random() % 200);
                    break;
                case 2:
                    manager.RemoveSubtitle(id.c_str());
                    break;
                case 3:
                    manager.TrimGroup(group, random() % 5);
                    break;
                case 4:
                    manager.HitTestGroup(group, random() % 300, random() % 200, nullptr, &rect);
                    break;
                case 5:
                    manager.GetSubtitleRect(id.c_str(), &rect);
                    manager.MoveSubtitle(id.c_str(), random() % 300, random() % 200);
                    break;
                default:
                    plate.nOpacity = random() % 100;
                    manager.UpdateSubtitleBackground(id.c_str(), &plate);
                    break;
            }
        }
    };
    std::vector<std::thread> threads;
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        threads.emplace_back(host, seed);
    }
    {
        Drawers drawers(&manager, 320, 200, 1.5f);
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    manager.RemoveAllSubtitles();
}

// The play queue in virtual time, with scripted players: turns in order,
// repeat pauses to the millisecond, stops that end a pause, and a Setup that
// lands in a pause.
using Journal = std::vector<std::pair<uint64_t, int>>;

// A movie crossing its 200 px clip at 33 px a step: a turn of one play takes
// 7 steps, 198 ms.
class PlayQueueTest : public ManagerTest {
  protected:
    void SetUp() override {
        ManagerTest::SetUp();
        {
            std::lock_guard<std::mutex> lock(test::ScriptedPlayer::journalMutex);
            test::ScriptedPlayer::journal.clear();
        }
        test::ScriptedPlayer::made = 0;
        m_swf.nDirection = 1;
        m_swf.nSpeed = 1000;
    }
    void TearDown() override {
        m_queue.reset();
        ManagerTest::TearDown();
    }

    void Start(size_t count, bool loop, int32_t interval, TextPart* text = nullptr) {
        std::vector<ItemDescription> items(count,
                                           ItemDescription{&m_swf, nullptr, nullptr, m_plays, {}});
        if (text != nullptr && count > 1) {
            items[1].pText = text;
        }
        m_queue = std::make_unique<CLumetObjsPlayer>();
        m_queue->Setup(u"group", items.data(), static_cast<uint32_t>(count), 0, 0, loop, interval);
    }
    static Journal Plays() {
        std::lock_guard<std::mutex> lock(test::ScriptedPlayer::journalMutex);
        return test::ScriptedPlayer::journal;
    }

    int32_t m_plays = 1;
    std::unique_ptr<CLumetObjsPlayer> m_queue;
};

TEST_F(PlayQueueTest, ThreeItemsPlayInOrderThenTheQueueEnds) {
    Start(3, false, 5000);
    WaitUntilSettled();
    EXPECT_EQ(m_queue->GetState(), LumetState::Playing);
    AdvanceBy(2000);
    EXPECT_EQ(Plays(), (Journal{{0, 0}, {198, 1}, {396, 2}}));
    EXPECT_EQ(m_queue->GetState(), LumetState::Idle);
    EXPECT_TRUE(m_queue->IsInGroup(u"GROUP"));
    EXPECT_FALSE(m_queue->IsInGroup(nullptr));
}

// A looping queue of one item pauses before each repeat: intervals up to
// 100 ms sleep once, longer ones in 100 ms steps (rounded up), none at all for
// 0 or less; the first Setup never pauses.
TEST_F(PlayQueueTest, RepeatPauses) {
    const std::pair<int32_t, uint64_t> cases[] = {
        {250, 300}, {100, 100}, {101, 200}, {0, 0}, {-5, 0}};
    for (const auto& [interval, pause] : cases) {
        SetUp();
        const uint64_t start = MonotonicMs();
        Start(1, true, interval);
        AdvanceBy(198 + pause / 2);
        if (pause > 0) {
            EXPECT_EQ(m_queue->GetState(), LumetState::Idle) << interval;  // nothing to draw
        }
        AdvanceBy(1000);
        const Journal plays = Plays();
        ASSERT_GE(plays.size(), 2u) << interval;
        EXPECT_EQ(plays[0].first - start, 0u) << interval;
        EXPECT_EQ(plays[1].first - plays[0].first, 198 + pause) << interval;
        m_queue->Stop();
        TearDown();
    }
}

// Removing a looping queue during its repeat pause starts nothing: no item
// gets a new player, and the stop ends even a long pause at once.
TEST_F(PlayQueueTest, AStopInAPauseStartsNothing) {
    Start(2, true, 5000);
    AdvanceBy(2 * 198 + 50);
    ASSERT_EQ(test::ScriptedPlayer::made.load(), 2);
    const uint64_t stoppedAt = MonotonicMs();
    m_queue->Stop();
    EXPECT_EQ(MonotonicMs(), stoppedAt);
    EXPECT_EQ(m_queue->GetState(), LumetState::Idle);
    AdvanceBy(6000);
    EXPECT_EQ(test::ScriptedPlayer::made.load(), 2);
}

// An ended queue set up again while its movie file has gone is idle, not
// busy for ever: the failed item goes, and a later Setup plays once the file
// is back.
TEST_F(PlayQueueTest, ARestartWithoutItsFileFailsAndALaterOneRetries) {
    Start(1, false, 0);
    AdvanceBy(500);
    ASSERT_EQ(m_queue->GetState(), LumetState::Idle);
    ItemDescription item{&m_swf, nullptr, nullptr, 1, {}};
    std::remove(m_movie.c_str());
    m_queue->Setup(u"group", &item, 1, 0, 0, false, 0);
    EXPECT_EQ(m_queue->GetState(), LumetState::Idle);
    ASSERT_TRUE(test::WriteBytes(m_movie, {1}));
    m_queue->Setup(u"group", &item, 1, 0, 0, false, 0);
    AdvanceBy(500);
    EXPECT_EQ(Plays().size(), 2u);
}

// Turns without a single step (a count below 0) end in the millisecond they
// begin; only a looping round made of nothing else waits, one frame a round.
TEST_F(PlayQueueTest, TurnsWithoutAStepTakeNoTime) {
    m_plays = -1;
    Start(2, false, 0);
    AdvanceBy(100);
    EXPECT_EQ(Plays(), (Journal{{0, 0}, {0, 1}}));
    m_queue->Stop();
    TearDown();
    SetUp();
    m_plays = -1;
    Start(1, true, 0);
    AdvanceBy(100);
    EXPECT_EQ(Plays(), (Journal{{0, 0}, {33, 0}, {66, 0}, {99, 0}}));
}

// A Setup that lands in a repeat pause finds the queue busy: position 0 gets
// one turn when the pause ends, not a second one beside it.
TEST_F(PlayQueueTest, ASetupInAPauseChangesNothing) {
    Start(1, true, 500);
    AdvanceBy(300);
    ItemDescription other{&m_swf, nullptr, nullptr, 1, {}};
    m_queue->Setup(u"other", &other, 1, 50, 50, false, 0);
    POINT position{};
    ASSERT_TRUE(m_queue->GetPosition(&position));
    EXPECT_EQ(position.x, 0);
    AdvanceBy(500);
    EXPECT_EQ(Plays(), (Journal{{0, 0}, {698, 0}}));
}

// The text update goes to the first position with a text part, here the
// second, and applies while that item plays. (Dragging is in the manager's
// registry test.)
TEST_F(PlayQueueTest, UpdatesReachTheFirstText) {
    auto text = std::make_unique<TextPart>();  // zeroed, with the style's own defaults
    std::memcpy(text->text, u"A", sizeof(u"A"));
    text->rcClip = RECT{0, 0, 2000, 100};
    Start(2, false, 0, text.get());
    AdvanceBy(250);  // the second item plays
    RECT before{};
    ASSERT_TRUE(m_queue->GetRect(&before, 1.0f));
    const char16_t longer[] = u"A text much wider than the movie's clip of 200 px";
    std::memcpy(text->text, longer, sizeof longer);
    m_queue->UpdateText(text.get());
    RECT after{};
    ASSERT_TRUE(m_queue->GetRect(&after, 1.0f));
    EXPECT_GT(after.right, before.right);
}

// Each finished turn leaves its record, with the next position.
TEST_F(PlayQueueTest, ATurnLeavesItsLogRecord) {
    const std::string text = test::CaptureStdout(m_dir.File("stdout.txt"), [&] {
        Start(1, true, 250);
        AdvanceBy(300);
    });
    EXPECT_NE(text.find("Lumet Played one time, next=1"), std::string::npos) << text;
}

// Subtitles end without outliving their owners: every kind of item, ended in
// every phase of its play, in every way a host ends one, through the public
// interface with the real movie player. In virtual time each phase is hit
// exactly (drawing threads run in real time), and time goes on after the end
// so that any thread left behind runs into freed memory where the sanitizers
// see it. A watchdog fails a case that hangs.
struct Kind {
    const char* name;
    bool movie;
    int32_t movieDirection;
    uint32_t movieSpeed;
    bool text;
    int32_t textDirection;
    uint32_t textSpeed;
    int32_t plays;
    bool loop;
    int32_t intervalMs;
};

// The movie lasts 300 ms: a still one's pass ends then, and a looping one
// pauses 300..500 ms.
const Kind kKinds[] = {
    {"still movie counted by the player", true, 0, 0, false, 0, 0, 2, false, 0},
    {"looping still movie", true, 0, 0, false, 0, 0, 1, true, 150},
    {"text only", false, 0, 0, true, 2, 1000, 1, true, 50},
    {"movie and text scrolling", true, 2, 600, true, 1, 900, 1, true, 0},
    {"layers in lock-step", true, 2, 900, true, 2, 900, 1, true, 120},
};

struct Phase {
    const char* name;
    uint64_t atMs;
    bool drawing;
};

const Phase kPhases[] = {
    {"starting", 0, false},        {"inside a pass", 100, false},
    {"at a pass end", 300, false}, {"in the repeat pause", 350, false},
    {"while drawing", 120, true},
};

enum class Ending { Remove, Trim, RemoveAll, Delete };
const std::pair<Ending, const char*> kEndings[] = {{Ending::Remove, "RemoveSubtitle"},
                                                   {Ending::Trim, "TrimGroup"},
                                                   {Ending::RemoveAll, "RemoveAllSubtitles"},
                                                   {Ending::Delete, "DeleteLumetManager"}};

class LifetimeTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        s_dir = new test::ScratchDir;
        s_movie = s_dir->File("still.apng");
        ASSERT_TRUE(
            test::RunCommand("ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "
                             "color=c=0x3070D0:s=64x48:r=10 -t 0.3 -plays 0 -f apng " +
                             test::Quote(s_movie)));
    }
    static void TearDownTestSuite() {
        delete s_dir;
        s_dir = nullptr;
    }
    void TearDown() override { SetTimeMode(TimeMode::Real); }

    // Plays one subtitle of the kind in virtual time, ends it in the phase and
    // the way given, and lets time go on.
    void Run(const Kind& kind, const Phase& phase, Ending ending) {
        SetTimeMode(TimeMode::Virtual);
        SwfPart swf{};
        std::copy(s_movie.begin(), s_movie.end(), swf.szPath);  // the temp folder is ASCII
        swf.rcClip = RECT{0, 0, 200, 100};
        swf.nDirection = kind.movieDirection;
        swf.nSpeed = kind.movieSpeed;
        auto text = std::make_unique<TextPart>();
        std::copy_n(u"Lifetimes", 10, text->text);
        text->style.fontSize = 18;
        text->rcClip = RECT{0, 0, 200, 40};
        text->nDirection = kind.textDirection;
        text->nSpeed = kind.textSpeed;
        BackgroundPart plate{0x204060, 80, 0, {}};
        ItemDescription item{
            kind.movie ? &swf : nullptr, kind.text ? text.get() : nullptr, &plate, kind.plays, {}};

        ILumetManager* manager = CreateLumetManager();
        ASSERT_NE(manager, nullptr);
        manager->AddSubtitle(u"id", u"group", &item, 1, 10, 10, kind.loop, kind.intervalMs);
        {
            std::unique_ptr<Drawers> drawers;
            if (phase.drawing) {
                drawers = std::make_unique<Drawers>(manager, 640, 360, 1.5f);
            }
            AdvanceBy(phase.atMs);
            switch (ending) {
                case Ending::Remove:
                    manager->RemoveSubtitle(u"id");
                    break;
                case Ending::Trim:
                    manager->TrimGroup(u"GROUP", 0);
                    break;
                case Ending::RemoveAll:
                    manager->RemoveAllSubtitles();
                    break;
                case Ending::Delete:
                    break;
            }
        }
        uint32_t count = 0;
        SubtitleRectEntry entry{};
        EXPECT_TRUE(ending == Ending::Delete ||
                    !manager->GetPlayingInGroup(u"group", &entry, &count));
        DeleteLumetManager(manager);
        AdvanceBy(1000);
    }

    static inline test::ScratchDir* s_dir = nullptr;
    static inline std::string s_movie;
};

TEST_F(LifetimeTest, EveryKindEndedInEveryPhaseInVirtualTime) {
    for (const Kind& kind : kKinds) {
        for (const Phase& phase : kPhases) {
            for (const auto& [ending, how] : kEndings) {
                const std::string what = std::string(kind.name) + ", " + phase.name + ", " + how;
                SCOPED_TRACE(what);
                Watchdog watchdog(what);
                Run(kind, phase, ending);
                SetTimeMode(TimeMode::Real);
            }
        }
    }
}

}  // namespace
}  // namespace lumets
