// The virtual time source: exact wake-up times and order, settling, threads
// that start, end and signal each other while time advances.
#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "lumets/time_source.h"
#include "lumets_platform/event.h"
#include "lumets_platform/thread.h"

namespace lumets::platform {
namespace {

// (virtual time, who) in the order things happened.
class Journal {
  public:
    void Add(int who) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.emplace_back(MonotonicMs(), who);
    }
    std::vector<std::pair<uint64_t, int>> Entries() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries;
    }
    size_t Size() { return Entries().size(); }

  private:
    std::mutex m_mutex;
    std::vector<std::pair<uint64_t, int>> m_entries;
};

class VirtualTime : public testing::Test {
  protected:
    void SetUp() override {
        SetTimeMode(TimeMode::Virtual);
        ASSERT_EQ(MonotonicMs(), 0u);
    }
    // Every test has joined its threads by now.
    void TearDown() override { SetTimeMode(TimeMode::Real); }
};

TEST_F(VirtualTime, SleepersWakeAtExactTimesFirstComeFirstServed) {
    constexpr int kThreads = 24;
    constexpr int kRounds = 3;
    const auto period = [](int i) { return static_cast<uint32_t>(10 * (i % 4 + 1)); };
    Journal journal;
    std::vector<Thread> threads(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(threads[i].Start([&, i] {
            for (int k = 0; k < kRounds; ++k) {
                SleepMs(period(i));
                journal.Add(i);
            }
        }));
        WaitUntilSettled();  // registration order = thread order
    }
    // The expected history: earliest deadline first, ties by registration.
    std::map<std::pair<uint64_t, int>, std::pair<int, int>> pending;  // (due, seq) -> (i, k)
    int seq = 0;
    for (int i = 0; i < kThreads; ++i) {
        pending[{period(i), seq++}] = {i, 0};
    }
    std::vector<std::pair<uint64_t, int>> expected;
    while (!pending.empty()) {
        const auto [key, who] = *pending.begin();
        pending.erase(pending.begin());
        expected.emplace_back(key.first, who.first);
        if (who.second + 1 < kRounds) {
            pending[{key.first + period(who.first), seq++}] = {who.first, who.second + 1};
        }
    }
    for (uint64_t now = 0; now < 130; now += 7) {
        AdvanceBy(7);
        ASSERT_EQ(MonotonicMs(), now + 7);
        const auto entries = journal.Entries();
        const auto due = std::count_if(expected.begin(), expected.end(),
                                       [&](const auto& e) { return e.first <= now + 7; });
        ASSERT_EQ(entries.size(), static_cast<size_t>(due));
    }
    EXPECT_EQ(journal.Entries(), expected);
    for (Thread& t : threads) {
        EXPECT_TRUE(t.WaitForEnd(0));
    }
}

TEST_F(VirtualTime, ChainReactionSettlesBeforeAdvanceReturns) {
    constexpr int kThreads = 16;
    std::vector<AutoResetEvent> events(kThreads + 1);
    Journal journal;
    std::vector<Thread> threads(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(threads[i].Start([&, i] {
            if (i == 0) {
                SleepMs(50);
            } else if (i % 2 == 0) {
                events[i].Wait();
            } else if (!events[i].WaitFor(1000)) {
                return;  // would break the chain; the journal shows it
            }
            journal.Add(i);
            events[i + 1].Set();
        }));
    }
    AdvanceBy(49);
    EXPECT_EQ(journal.Size(), 0u);
    AdvanceBy(1);
    std::vector<std::pair<uint64_t, int>> expected;
    for (int i = 0; i < kThreads; ++i) {
        expected.emplace_back(50, i);
    }
    EXPECT_EQ(journal.Entries(), expected);
    EXPECT_TRUE(events[kThreads].WaitFor(0));
    for (Thread& t : threads) {
        EXPECT_TRUE(t.WaitForEnd(0));
    }
}

TEST_F(VirtualTime, TimedWaitsTimeOutExactlyOrTakeTheSignal) {
    AutoResetEvent quiet;
    AutoResetEvent signalled;
    std::atomic<int> quietResult{-1};
    std::atomic<int> signalledResult{-1};
    std::atomic<uint64_t> quietAt{0};
    std::atomic<uint64_t> signalledAt{0};
    Thread a;
    Thread b;
    ASSERT_TRUE(a.Start([&] {
        quietResult = quiet.WaitFor(100);
        quietAt = MonotonicMs();
    }));
    ASSERT_TRUE(b.Start([&] {
        signalledResult = signalled.WaitFor(100);
        signalledAt = MonotonicMs();
    }));
    AdvanceBy(30);
    signalled.Set();
    WaitUntilSettled();
    EXPECT_EQ(signalledResult.load(), 1);
    EXPECT_EQ(signalledAt.load(), 30u);
    AdvanceBy(69);
    EXPECT_EQ(quietResult.load(), -1);
    AdvanceBy(1);
    EXPECT_EQ(quietResult.load(), 0);
    EXPECT_EQ(quietAt.load(), 100u);
    EXPECT_TRUE(a.WaitForEnd(0));
    EXPECT_TRUE(b.WaitForEnd(0));
    // The signal that nobody took stays for the next wait.
    signalled.Set();
    EXPECT_TRUE(signalled.WaitFor(0));
}

TEST_F(VirtualTime, WaitForEndOnLibraryAndHostThreads) {
    AutoResetEvent never;
    std::atomic<uint64_t> gaveUpAt{0};
    std::atomic<uint64_t> joinedAt{0};
    std::atomic<int> results{0};
    Thread supervisor;
    ASSERT_TRUE(supervisor.Start([&] {
        Thread stuck;
        Thread quick;
        stuck.Start([&] { never.Wait(); });
        quick.Start([] { SleepMs(40); });
        results += stuck.WaitForEnd(100) ? 100 : 1;  // detached, keeps counting
        gaveUpAt = MonotonicMs();
        results += quick.WaitForEnd(kWaitInfinite) ? 10 : 1000;
        joinedAt = MonotonicMs();
    }));
    AdvanceBy(99);
    EXPECT_EQ(results.load(), 0);
    AdvanceBy(1);
    EXPECT_EQ(results.load(), 11);
    EXPECT_EQ(gaveUpAt.load(), 100u);
    EXPECT_EQ(joinedAt.load(), 100u);  // quick had ended at 40
    EXPECT_TRUE(supervisor.WaitForEnd(0));

    // The host thread's own limited wait drives time.
    Thread sleeper;
    ASSERT_TRUE(sleeper.Start([] { SleepMs(200); }));
    EXPECT_TRUE(sleeper.WaitForEnd(500));
    EXPECT_EQ(MonotonicMs(), 300u);
    Thread waiter;
    ASSERT_TRUE(waiter.Start([&] { never.Wait(); }));
    EXPECT_FALSE(waiter.WaitForEnd(500));
    EXPECT_EQ(MonotonicMs(), 800u);

    // Both detached threads still count until they end.
    never.Set();
    never.Set();
    WaitUntilSettled();
    EXPECT_EQ(MonotonicMs(), 800u);
}

TEST_F(VirtualTime, HostSleepAndWaitDriveTimeThemselves) {
    std::atomic<int> ticks{0};
    std::atomic<bool> stop{false};
    AutoResetEvent fromLibrary;
    Thread ticker;
    Thread setter;
    ASSERT_TRUE(ticker.Start([&] {
        while (!stop) {
            SleepMs(10);
            ++ticks;
        }
    }));
    ASSERT_TRUE(setter.Start([&] {
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

    // Two host threads driving at once take turns. Where the other one starts
    // its sleep is up to the system, but both sleeps are served in full and
    // the result is settled.
    std::atomic<uint64_t> otherSlept{0};
    std::thread other([&] {
        const uint64_t from = MonotonicMs();
        SleepMs(30);
        otherSlept = MonotonicMs() - from;
    });
    SleepMs(40);
    other.join();
    const uint64_t now = MonotonicMs();
    EXPECT_GE(now, 100u);
    EXPECT_LE(now, 130u);
    EXPECT_GE(otherSlept.load(), 30u);
    EXPECT_EQ(ticks.load(), static_cast<int>(now / 10));

    stop = true;
    AdvanceBy(10);
    EXPECT_TRUE(ticker.WaitForEnd(0));
    EXPECT_TRUE(setter.WaitForEnd(0));
}

TEST_F(VirtualTime, WallClockFollowsVirtualTime) {
    SetVirtualWallClockMs(86'400'000 - 10);
    AdvanceBy(25);
    EXPECT_EQ(WallClockMs(), 86'400'015);
    EXPECT_EQ(MonotonicMs(), 25u);
    // Leaving virtual mode lets pending virtual waits time out.
    std::atomic<int> result{-1};
    AutoResetEvent never;
    Thread t;
    ASSERT_TRUE(t.Start([&] { result = never.WaitFor(1'000'000); }));
    WaitUntilSettled();
    SetTimeMode(TimeMode::Real);
    EXPECT_TRUE(t.WaitForEnd(10000));
    EXPECT_EQ(result.load(), 0);
}

// Ping-pong pairs and spawned children, many times over, to shake out lost
// wake-ups: any lost one hangs AdvanceBy or breaks an exact count.
TEST_F(VirtualTime, StressPingPongAndSpawn) {
    constexpr int kPairs = 4;
    constexpr int kRounds = 5;
    for (int rep = 0; rep < 40; ++rep) {
        SetTimeMode(TimeMode::Virtual);
        std::vector<AutoResetEvent> toA(kPairs);
        std::vector<AutoResetEvent> toB(kPairs);
        std::atomic<int> rounds{0};
        std::atomic<int> misses{0};
        std::atomic<int> children{0};
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
                    child.Start([&] {
                        SleepMs(1);
                        ++children;
                    });
                    misses += child.WaitForEnd(5) ? 0 : 1;
                    ++rounds;
                    toA[p].Set();
                }
            }));
        }
        AdvanceBy(4 * kRounds - 1);
        ASSERT_EQ(rounds.load(), kPairs * (kRounds - 1)) << "repetition " << rep;
        AdvanceBy(1);
        ASSERT_EQ(rounds.load(), kPairs * kRounds) << "repetition " << rep;
        ASSERT_EQ(children.load(), kPairs * kRounds);
        ASSERT_EQ(misses.load(), 0);
        for (Thread& t : threads) {
            ASSERT_TRUE(t.WaitForEnd(0));
        }
        SetTimeMode(TimeMode::Real);
    }
}

}  // namespace
}  // namespace lumets::platform
