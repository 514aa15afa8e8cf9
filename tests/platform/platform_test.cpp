// The platform layer. Events, threads and the recursive lock, and the time
// source they wait on: virtual time is checked to the millisecond (wake-up
// times and order, settling, threads that start, end and signal each other
// while time advances); real time only where it differs, with lower bounds
// alone, since these run on loaded machines and under sanitizers. Then the
// Win32-style helpers.
#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lumets/time_source.h"
#include "lumets_platform/debug_output.h"
#include "lumets_platform/event.h"
#include "lumets_platform/geometry.h"
#include "lumets_platform/lock.h"
#include "lumets_platform/thread.h"
#include "lumets_platform/utf16.h"

namespace lumets::platform {
namespace {

using History = std::vector<std::pair<uint64_t, int>>;  // (virtual time, who)

class VirtualTime : public testing::Test {
  protected:
    void SetUp() override {
        SetTimeMode(TimeMode::Virtual);
        ASSERT_EQ(MonotonicMs(), 0u);
    }
    void TearDown() override {
        for (Thread& t : threads_) {
            EXPECT_TRUE(t.WaitForEnd(0));  // ended, and ended in time
        }
        SetTimeMode(TimeMode::Real);
    }
    std::vector<Thread> threads_;
};

TEST_F(VirtualTime, SleepersWakeAtExactTimesTogether) {
    constexpr int kThreads = 24;
    constexpr uint64_t kRounds = 3;
    const auto period = [](int i) { return uint64_t{10} * (i % 4 + 1); };
    // Sleeps due at one instant wake together, so the journal has a lock and
    // is compared instant by instant, in any order within one.
    std::mutex journalLock;
    History journal;
    threads_ = std::vector<Thread>(kThreads);
    History expected;
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(threads_[i].Start([&, i] {
            for (uint64_t k = 0; k < kRounds; ++k) {
                SleepMs(static_cast<uint32_t>(period(i)));
                const std::lock_guard<std::mutex> hold(journalLock);
                journal.emplace_back(MonotonicMs(), i);
            }
        }));
        WaitUntilSettled();
        for (uint64_t k = 1; k <= kRounds; ++k) {
            expected.emplace_back(k * period(i), i);
        }
    }
    std::sort(expected.begin(), expected.end());
    for (uint64_t now = 7; now < 140; now += 7) {
        AdvanceBy(7);
        ASSERT_EQ(MonotonicMs(), now);
        const auto due = std::find_if(expected.begin(), expected.end(),
                                      [&](const auto& e) { return e.first > now; });
        const std::lock_guard<std::mutex> hold(journalLock);
        History seen = journal;
        ASSERT_TRUE(std::is_sorted(seen.begin(), seen.end(),
                                   [](const auto& a, const auto& b) { return a.first < b.first; }));
        std::sort(seen.begin(), seen.end());
        ASSERT_EQ(seen, History(expected.begin(), due));  // none late, none early
    }
}

// A chain of signals set off by a wake-up runs to its end before time moves
// on, even while the host's own wait drives time. Threads given up on or
// whose Thread is destroyed still count until they end; leaving virtual time
// ends their virtual waits.
TEST_F(VirtualTime, SignalChainSettlesBeforeTimeMovesOn) {
    constexpr int kChain = 16;
    std::vector<AutoResetEvent> events(kChain + 1);
    History journal;  // one writer at a time, as the chain passes on
    threads_ = std::vector<Thread>(kChain);
    for (int i = 0; i < kChain; ++i) {
        ASSERT_TRUE(threads_[i].Start([&, i] {
            if (i == 0) {
                SleepMs(50);
            } else if (i % 2 == 0) {
                events[i].Wait();
            } else if (!events[i].WaitFor(1000)) {
                return;  // breaks the chain; the journal shows it
            }
            journal.emplace_back(MonotonicMs(), i);
            events[i + 1].Set();
        }));
    }
    AutoResetEvent never;
    AutoResetEvent gone;
    std::atomic<int> released{0};
    Thread stuck;
    ASSERT_TRUE(stuck.Start([&] {
        never.Wait();
        ++released;
    }));
    EXPECT_FALSE(stuck.WaitForEnd(100));  // gives up exactly at the limit and detaches
    EXPECT_EQ(MonotonicMs(), 100u);
    History expected;
    for (int i = 0; i < kChain; ++i) {
        expected.emplace_back(50, i);
    }
    EXPECT_EQ(journal, expected);
    {
        // Destroyed after its thread ended: joined; while it still runs: detached.
        Thread ended;
        Thread running;
        ASSERT_TRUE(ended.Start([] { SleepMs(0); }));
        ASSERT_TRUE(running.Start([&] {
            released += never.WaitFor(1'000'000) ? 1 : 10;
            gone.Set();
        }));
        WaitUntilSettled();
    }
    never.Set();  // wakes only the first to wait
    WaitUntilSettled();
    EXPECT_EQ(released.load(), 1);
    SetTimeMode(TimeMode::Real);
    EXPECT_TRUE(gone.WaitFor(10000));
    EXPECT_EQ(released.load(), 11);
}

TEST_F(VirtualTime, HostSleepsAndWaitsDriveTimeThemselves) {
    std::atomic<int> ticks{0};
    std::atomic<bool> stop{false};
    AutoResetEvent fromLibrary;
    threads_ = std::vector<Thread>(2);
    ASSERT_TRUE(threads_[0].Start([&] {
        while (!stop) {
            SleepMs(10);
            ++ticks;
        }
    }));
    ASSERT_TRUE(threads_[1].Start([&] {
        SleepMs(42);
        fromLibrary.Set();
    }));
    SleepMs(35);
    EXPECT_EQ(MonotonicMs(), 35u);
    EXPECT_EQ(ticks.load(), 3);
    EXPECT_TRUE(fromLibrary.WaitFor(1000));
    EXPECT_EQ(MonotonicMs(), 42u);
    EXPECT_FALSE(fromLibrary.WaitFor(18));
    EXPECT_EQ(MonotonicMs(), 60u);
    EXPECT_EQ(ticks.load(), 6);  // the tick due at the limit has run too

    // Two host threads driving at once take turns: the other one begins its
    // sleep while this one drives, and both sleeps are served in full.
    std::atomic<uint64_t> otherSlept{0};
    std::thread other([&] {
        while (MonotonicMs() == 60) {
            std::this_thread::yield();
        }
        const uint64_t from = MonotonicMs();
        SleepMs(30);
        otherSlept = MonotonicMs() - from;
    });
    SleepMs(400);
    other.join();
    const uint64_t now = MonotonicMs();
    EXPECT_TRUE(now >= 460u && now <= 490u) << now;
    EXPECT_GE(otherSlept.load(), 30u);
    EXPECT_EQ(ticks.load(), static_cast<int>(now / 10));
    stop = true;
    AdvanceBy(10);
}

// Joining a thread that sleeps in steps, from a host thread with nobody
// else advancing time: the untimed wait moves time on to the thread's end.
// With nothing due, an untimed wait leaves the clock alone.
TEST_F(VirtualTime, UntimedHostWaitsDriveTimeToo) {
    std::atomic<bool> stop{false};
    threads_ = std::vector<Thread>(1);
    ASSERT_TRUE(threads_[0].Start([&] {
        while (!stop) {
            SleepMs(33);
        }
    }));
    AdvanceBy(100);
    // Steps no clock can take are refused at once, not run to the end of time.
    for (const uint64_t step : {uint64_t{1} << 63, UINT64_MAX, uint64_t{INT64_MAX} - 99}) {
        AdvanceBy(step);
        EXPECT_EQ(MonotonicMs(), 100u);
    }
    stop = true;
    EXPECT_TRUE(threads_[0].WaitForEnd(kWaitInfinite));
    EXPECT_EQ(MonotonicMs(), 132u);

    AutoResetEvent event;
    std::thread setter([&] { event.Set(); });
    event.Wait();
    setter.join();
    EXPECT_EQ(MonotonicMs(), 132u);
}

// Ping-pong pairs and spawned children, many times over, to shake out lost
// wake-ups: any lost one hangs AdvanceBy or breaks an exact count. Every
// thread has ended by the end of a repetition, so its Thread joins it.
TEST_F(VirtualTime, StressPingPongAndSpawn) {
    constexpr int kPairs = 4;
    constexpr int kRounds = 5;
    for (int rep = 0; rep < 40; ++rep) {
        std::vector<AutoResetEvent> toA(kPairs);
        std::vector<AutoResetEvent> toB(kPairs);
        std::atomic<int> rounds{0};
        std::atomic<int> misses{0};
        std::vector<Thread> threads(2 * kPairs);
        for (int p = 0; p < kPairs; ++p) {
            ASSERT_TRUE(threads[2 * p].Start([&, p] {
                for (int r = 0; r < kRounds; ++r) {
                    SleepMs(3);
                    toB[p].Set();
                    misses += toA[p].WaitFor(100) ? 0 : 1;
                }
            }));
            ASSERT_TRUE(threads[2 * p + 1].Start([&, p] {
                for (int r = 0; r < kRounds; ++r) {
                    toB[p].Wait();
                    Thread child;
                    misses += child.Start([] { SleepMs(1); }) && child.WaitForEnd(5) ? 0 : 1;
                    ++rounds;
                    toA[p].Set();
                }
            }));
        }
        AdvanceBy(4 * kRounds - 1);
        ASSERT_EQ(rounds.load(), kPairs * (kRounds - 1)) << "repetition " << rep;
        AdvanceBy(1);
        ASSERT_EQ(rounds.load(), kPairs * kRounds) << "repetition " << rep;
        ASSERT_EQ(misses.load(), 0);
    }
}

// One scene on a clock of its own, driven in steps: a ticker that sleeps and
// signals until its clock ends, and a listener whose limited waits end on a
// signal or on time. The ticker is still asleep when the clock goes, which
// must end that sleep at once.
History PlayScene(uint32_t period, uint64_t step) {
    History journal;  // one writer: the listener
    auto clock = std::make_unique<Clock>();
    const Clock::Scope scope(*clock);  // outlives the clock, which it keeps
    AutoResetEvent tick;
    std::vector<Thread> threads(2);
    threads[0].Start([&] {
        for (uint32_t i = 0; GetTimeMode() == TimeMode::Virtual; ++i) {
            SleepMs(period + i % 3);
            tick.Set();
        }
    });
    threads[1].Start([&] {
        for (int i = 0; i < 16; ++i) {
            const bool got = tick.WaitFor(period - 1);
            journal.emplace_back(MonotonicMs(), got);
        }
    });
    while (clock->NowMs() < 20 * period) {
        clock->AdvanceBy(step);
    }
    clock.reset();
    EXPECT_TRUE(threads[0].WaitForEnd(10000) && threads[1].WaitForEnd(0));
    return journal;
}

// Two scenes on clocks of their own, driven at unrelated steps, play exactly
// as each plays alone: one hosted by a library thread of the process-wide
// clock, in real time, the other by this thread inside a scope of a third
// clock, which waits for the first in real time all the same.
TEST(Clocks, ScenesOnClocksOfTheirOwnPlayAsAlone) {
    const History alone[] = {PlayScene(7, 3), PlayScene(10, 1)};
    EXPECT_EQ(alone[0][1], std::make_pair(uint64_t{7}, 1));  // signalled by the first tick
    Thread host;
    EXPECT_TRUE(host.Start([&] { EXPECT_EQ(PlayScene(7, 1), alone[0]); }));
    Clock outer;
    const Clock::Scope scope(outer);  // the scene's own scope nests in it
    EXPECT_EQ(PlayScene(10, 9), alone[1]);
    EXPECT_EQ(MonotonicMs(), 0u);  // back on the outer clock, which stood still
    EXPECT_TRUE(host.WaitForEnd(10000));
}

TEST(RealTime, EventsAndThreads) {
    ASSERT_EQ(GetTimeMode(), TimeMode::Real);
    AutoResetEvent ev;
    ev.Set();
    ev.Set();  // still one signal
    EXPECT_TRUE(ev.WaitFor(0));
    EXPECT_FALSE(ev.WaitFor(0));
    ev.Set();
    ev.Reset();
    EXPECT_FALSE(ev.WaitFor(0));
    EXPECT_TRUE(AutoResetEvent(true).WaitFor(0));

    Thread t;
    EXPECT_TRUE(t.WaitForEnd(0));  // nothing started
    EXPECT_FALSE(t.Start(nullptr));
    auto gate = std::make_shared<AutoResetEvent>();
    ASSERT_TRUE(t.Start([gate] { gate->Wait(); }));
    EXPECT_FALSE(t.Start([] {}));  // still running
    const uint64_t before = MonotonicMs();
    EXPECT_FALSE(t.WaitForEnd(20));  // gives up and detaches
    EXPECT_GE(MonotonicMs() - before, 19u);
    EXPECT_FALSE(t.IsStarted());

    // Free again. A limited wait of its own times out, and an exception ends
    // the thread instead of the process.
    ASSERT_TRUE(t.Start([] {
        EXPECT_FALSE(AutoResetEvent().WaitFor(1));
        throw std::runtime_error("boom");
    }));
    EXPECT_TRUE(t.WaitForEnd(kWaitInfinite));
    gate->Set();  // lets the detached thread end; it holds its own reference

    // A thread that ended without being waited for is joined by the next Start.
    ASSERT_TRUE(t.Start([&] { ev.Set(); }));
    ASSERT_TRUE(ev.WaitFor(10000));
    while (!t.Start([&] { ev.Set(); })) {
    }
    EXPECT_TRUE(ev.WaitFor(10000));
    EXPECT_TRUE(t.WaitForEnd(10000));
}

TEST(RealTime, LockIsRecursiveAndExcludesOthersUntilFullyReleased) {
    CLock lock;
    CAutoLock nothing(nullptr);  // tolerated
    lock.Lock();
    lock.Lock();
    std::atomic<bool> trying{false};
    std::atomic<bool> released{false};
    bool enteredAfterRelease = false;
    std::thread other([&] {
        trying = true;
        CAutoLock guard(&lock);
        enteredAfterRelease = released.load();
    });
    lock.Unlock();
    // Still held once: give the other thread every chance to get in too early.
    while (!trying) {
        std::this_thread::yield();
    }
    for (int i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    released = true;
    lock.Unlock();
    other.join();
    EXPECT_TRUE(enteredAfterRelease);
    CAutoLock again(&lock);  // the other thread's guard gave it back
}

// The Win32-style helpers: UTF-16 text walked only within its bounds, case
// folding, UTF-8 conversion with replacement characters, debug output, and
// rectangles that exclude their right and bottom edges.
TEST(Utf16, LengthAndCopyStayWithinTheirBounds) {
    // No terminator anywhere: the bound is all that keeps the walk inside.
    const char16_t unterminated[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(U16Length(unterminated, 4), 4u);

    char16_t dst[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(U16CopyTruncate(dst, 3, unterminated, 4), 2u);
    EXPECT_EQ(std::u16string(dst, 4), std::u16string(u"ab\0x", 4));
    EXPECT_EQ(U16CopyTruncate(dst, 4, u"hello", 2), 2u);
    EXPECT_EQ(std::u16string(dst), u"he");
    EXPECT_EQ(U16CopyTruncate(dst, 4, nullptr, 4), 0u);
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(U16CopyTruncate(dst + 1, 0, u"abc", 4), 0u);
    EXPECT_EQ(dst[1], u'e');
    EXPECT_EQ(U16CopyTruncate(nullptr, 4, u"abc", 4), 0u);
}

TEST(Utf16, CompareFoldsCaseOfTheDocumentedScripts) {
    EXPECT_EQ(U16CompareNoCase(u"Hello ÀÉÖ ΑΒΩ ПРИВЕТ Ё ＡＢＣ", u"hELLO àéö αβω привет ё ａｂｃ"),
              0);
    EXPECT_NE(U16CompareNoCase(u"×", u"÷"), 0);  // no letter pair
    // Folded to lower case, so '_' sorts before letters as on the original.
    EXPECT_LT(U16CompareNoCase(u"_", u"A"), 0);
    EXPECT_GT(U16CompareNoCase(u"abcd", u"ABC"), 0);
    EXPECT_LT(U16CompareNoCase(nullptr, u""), 0);
    EXPECT_EQ(U16CompareNoCase(nullptr, nullptr), 0);
}

TEST(Utf16, Utf8RoundTripAndReplacement) {
    const std::u16string text = u"a\u00e9\u4e2d\U0001F600z";
    const std::string utf8 = U16ToUtf8(text.c_str(), text.size() + 1);
    EXPECT_EQ(utf8, "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z");
    EXPECT_EQ(Utf8ToU16(utf8), text);

    // Unpaired surrogates, including a high one cut off by the bound.
    const char16_t lone[] = {u'a', 0xDC00, u'b', 0xD83D, 0};
    EXPECT_EQ(U16ToUtf8(lone, 10), "a\uFFFDb\uFFFD");
    const char16_t pair[] = {0xD83D, 0xDE00, 0};
    EXPECT_EQ(U16ToUtf8(pair, 1), "\uFFFD");

    // Overlong, encoded surrogate, beyond U+10FFFF, stray continuation,
    // truncated sequence: one replacement each, the rest kept.
    EXPECT_EQ(Utf8ToU16("\xC0\xAF|"), u"\uFFFD\uFFFD|");
    EXPECT_EQ(Utf8ToU16("\xED\xA0\x80|"), u"\uFFFD\uFFFD\uFFFD|");
    EXPECT_EQ(Utf8ToU16("\xF4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(Utf8ToU16("\x80x"), u"\uFFFDx");
    EXPECT_EQ(Utf8ToU16("x\xE4\xB8"), u"x\uFFFD");
    EXPECT_EQ(Utf8ToU16("\xE4\xB8x"), u"\uFFFDx");
}

TEST(Utf16, PathFileExists) {
    const std::u16string here = Utf8ToU16(LUMETS_SOURCE_DIR);
    EXPECT_TRUE(PathFileExists((here + u"/CMakeLists.txt").c_str()));
    EXPECT_FALSE(PathFileExists((here + u"/no such file \u4e2d").c_str()));
    EXPECT_FALSE(PathFileExists(u""));
    EXPECT_FALSE(PathFileExists(nullptr));
}

std::array<int, 4> Edges(const RECT& r) {
    return {r.left, r.top, r.right, r.bottom};
}

TEST(Geometry, IntersectAndUnion) {
    const RECT square{0, 0, 10, 10};
    const RECT empty{-50, -50, -50, 500};
    // a, b, where they meet (all zero: nowhere), their bounds (all zero: both empty)
    const RECT cases[][4] = {
        {square, {5, -5, 20, 5}, {5, 0, 10, 5}, {0, -5, 20, 10}},
        {square, {10, 0, 20, 10}, {}, {0, 0, 20, 10}},  // touching
        {square, {20, 20, 15, 15}, {}, square},         // inverted: empty
        {empty, {100, 100, 110, 120}, {}, {100, 100, 110, 120}},
        {empty, empty, {}, {}},
    };
    for (const auto& [a, b, meet, bounds] : cases) {
        RECT dst = a;  // the destination may be an input
        EXPECT_EQ(IntersectRect(&dst, &dst, &b), Edges(meet) != Edges({}));
        EXPECT_EQ(Edges(dst), Edges(meet));
        dst = b;
        EXPECT_EQ(UnionRect(&dst, &a, &dst), Edges(bounds) != Edges({}));
        EXPECT_EQ(Edges(dst), Edges(bounds));
    }
    RECT dst{1, 2, 3, 4};
    EXPECT_FALSE(IntersectRect(&dst, nullptr, &square));
    EXPECT_FALSE(IntersectRect(nullptr, &square, &square));
    EXPECT_FALSE(UnionRect(&dst, &square, nullptr));
    EXPECT_EQ(Edges(dst), Edges({1, 2, 3, 4}));  // left alone
}

TEST(Geometry, PointsAndWrapAround) {
    const RECT r{0, 0, 10, 20};
    const std::pair<POINT, bool> points[] = {{{0, 0}, true},   {{9, 19}, true},  {{-1, 5}, false},
                                             {{10, 5}, false}, {{5, -1}, false}, {{5, 20}, false}};
    for (const auto& [pt, inside] : points) {
        EXPECT_EQ(PtInRect(&r, pt), inside) << pt.x << "," << pt.y;
    }
    EXPECT_FALSE(PtInRect(nullptr, POINT{0, 0}));
    EXPECT_TRUE(IsRectEmpty(nullptr));

    // Coordinates wrap as on the original platform instead of being undefined.
    RECT big{INT_MAX - 1, INT_MIN, INT_MAX, 1};
    EXPECT_TRUE(OffsetRect(&big, 2, 0));
    EXPECT_TRUE(InflateRect(&big, 0, 1));
    EXPECT_EQ(Edges(big), Edges({INT_MIN, INT_MAX, INT_MIN + 1, 2}));
    EXPECT_FALSE(OffsetRect(nullptr, 1, 1));
    EXPECT_EQ(Edges(NormalizeRect({10, 20, 0, 5})), Edges({0, 5, 10, 20}));
}

}  // namespace
}  // namespace lumets::platform
