// Subtitles end without outliving their owners: every kind of item, ended in
// every phase of its play, in every way a host ends one, through the public
// interface with the real movie player. In virtual time each phase is hit
// exactly, and time goes on after the end so that any thread left behind runs
// into freed memory where the sanitizers see it; in real time the phases are
// random. A watchdog fails a case that hangs.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "common/host_threads.h"
#include "common/scratch_files.h"
#include "lumets/lumet_manager.h"
#include "lumets/time_source.h"

namespace lumets {
namespace {

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

    // Plays one subtitle of the kind, ends it after the wait in the way
    // given, and lets time go on.
    void Run(const Kind& kind, const std::function<void()>& wait, bool drawing, Ending ending,
             const std::function<void()>& after) {
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
            std::unique_ptr<test::Drawers> drawers;
            if (drawing) {
                drawers = std::make_unique<test::Drawers>(manager, 640, 360, 1.5f);
            }
            wait();
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
        after();
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
                test::Watchdog watchdog(what);
                SetTimeMode(TimeMode::Virtual);
                Run(
                    kind, [&] { AdvanceBy(phase.atMs); }, phase.drawing, ending,
                    [] { AdvanceBy(1000); });
                SetTimeMode(TimeMode::Real);
            }
        }
    }
}

TEST_F(LifetimeTest, EveryKindEndedAtRandomInRealTime) {
    std::mt19937 random(19);
    for (const Kind& kind : kKinds) {
        for (const auto& [ending, how] : kEndings) {
            const auto delay = std::chrono::milliseconds(random() % 600);
            const std::string what =
                std::string(kind.name) + ", after " + std::to_string(delay.count()) + " ms, " + how;
            SCOPED_TRACE(what);
            test::Watchdog watchdog(what);
            Run(
                kind, [&] { std::this_thread::sleep_for(delay); }, true, ending,
                [] { std::this_thread::sleep_for(std::chrono::milliseconds(150)); });
        }
    }
}

}  // namespace
}  // namespace lumets
