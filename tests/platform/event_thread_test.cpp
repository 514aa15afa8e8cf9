// Events and threads in real time. Only coarse timing is asserted: these run
// on loaded machines and under sanitizers.
#include <atomic>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "lumets/time_source.h"
#include "lumets_platform/event.h"
#include "lumets_platform/thread.h"

namespace lumets::platform {
namespace {

TEST(RealEvent, AutoResetSemantics) {
    ASSERT_EQ(GetTimeMode(), TimeMode::Real);
    AutoResetEvent ev;
    EXPECT_FALSE(ev.WaitFor(0));
    ev.Set();
    ev.Set();  // still one signal
    EXPECT_TRUE(ev.WaitFor(0));
    EXPECT_FALSE(ev.WaitFor(0));
    ev.Set();
    ev.Reset();
    EXPECT_FALSE(ev.WaitFor(0));
    AutoResetEvent initially(true);
    EXPECT_TRUE(initially.WaitFor(0));
}

TEST(RealEvent, OneSetReleasesExactlyOneWaiter) {
    AutoResetEvent ev;
    AutoResetEvent done;
    std::atomic<int> released{0};
    Thread threads[3];
    for (Thread& t : threads) {
        ASSERT_TRUE(t.Start([&] {
            ev.Wait();
            ++released;
            done.Set();
        }));
    }
    for (int i = 1; i <= 3; ++i) {
        ev.Set();
        ASSERT_TRUE(done.WaitFor(10000));
        EXPECT_EQ(released.load(), i);
    }
    for (Thread& t : threads) {
        EXPECT_TRUE(t.WaitForEnd(10000));
        EXPECT_FALSE(t.IsStarted());
    }
}

TEST(RealEvent, TimeoutIsRoughlyHonoured) {
    AutoResetEvent ev;
    const uint64_t before = MonotonicMs();
    EXPECT_FALSE(ev.WaitFor(50));
    const uint64_t waited = MonotonicMs() - before;
    EXPECT_GE(waited, 45u);
    EXPECT_LT(waited, 5000u);
}

TEST(RealThread, StartWaitAndDetach) {
    Thread t;
    EXPECT_TRUE(t.WaitForEnd(0));  // nothing started
    EXPECT_FALSE(t.Start(nullptr));
    auto gate = std::make_shared<AutoResetEvent>();
    ASSERT_TRUE(t.Start([gate] { gate->Wait(); }));
    EXPECT_TRUE(t.IsStarted());
    EXPECT_FALSE(t.Start([] {}));    // still running
    EXPECT_FALSE(t.WaitForEnd(20));  // detached
    EXPECT_FALSE(t.IsStarted());

    // Free again; an exception ends the thread instead of the process.
    ASSERT_TRUE(t.Start([] { throw std::runtime_error("boom"); }));
    EXPECT_TRUE(t.WaitForEnd(10000));
    gate->Set();  // lets the detached thread end; it holds its own reference

    // A thread that ended without being waited for is joined by the next Start.
    AutoResetEvent ran;
    ASSERT_TRUE(t.Start([&] { ran.Set(); }));
    ASSERT_TRUE(ran.WaitFor(10000));
    while (!t.Start([&] { ran.Set(); })) {
    }
    EXPECT_TRUE(ran.WaitFor(10000));
    EXPECT_TRUE(t.WaitForEnd(kWaitInfinite));
}

}  // namespace
}  // namespace lumets::platform
