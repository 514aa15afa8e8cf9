// The play queue in virtual time, with scripted players: turns in order,
// repeat pauses to the millisecond, stops that end a pause, and a Setup that
// lands in a pause.
#include "manager/lumet_objs_player.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/scratch_files.h"
#include "common/scripted_player.h"
#include "lumets/time_source.h"

namespace lumets {
namespace {

using Journal = std::vector<std::pair<uint64_t, int>>;

class PlayQueueTest : public testing::Test {
  protected:
    void SetUp() override {
        SetTimeMode(TimeMode::Virtual);
        test::ScriptedPlayer::Install(true);
        {
            std::lock_guard<std::mutex> lock(test::ScriptedPlayer::journalMutex);
            test::ScriptedPlayer::journal.clear();
        }
        test::ScriptedPlayer::made = 0;
        ASSERT_TRUE(test::WriteBytes(m_movie, {1}));
        // A movie crossing its 200 px clip at 33 px a step: a turn of one
        // play takes 7 steps, 198 ms.
        std::memset(static_cast<void*>(&m_swf), 0, sizeof m_swf);
        std::copy(m_movie.begin(), m_movie.end(), m_swf.szPath);  // the temp folder is ASCII
        m_swf.rcClip = RECT{0, 0, 200, 100};
        m_swf.nDirection = 1;
        m_swf.nSpeed = 1000;
    }
    void TearDown() override {
        m_queue.reset();
        test::ScriptedPlayer::Install(false);
        SetTimeMode(TimeMode::Real);
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

    test::ScratchDir m_dir;
    std::string m_movie = m_dir.File("movie.swf");
    SwfPart m_swf;
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

}  // namespace
}  // namespace lumets
