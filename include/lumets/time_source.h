// The time source: every clock reading and every wait in liblumets and in
// liblumets_host goes through it.
//
// Real mode (the default) follows the monotonic and wall clocks. Virtual mode
// stands still until the host advances it with AdvanceBy, which makes every
// timing behaviour of the playing threads and the media player exact and
// repeatable, and lets a host render faster than real time.
//
// Select the mode before creating any manager or player and do not change it
// while a library thread runs. Entering virtual mode sets virtual time to 0 and
// the virtual wall clock to the real one; leaving it times out every pending
// virtual wait at once.
//
// That is the process-wide clock. A Clock (below) is a virtual clock of its
// own, for running several scenes in one process, each on its own time.
#pragma once

#include <cstdint>
#include <memory>

#include "lumets/export.h"

namespace lumets {

enum class TimeMode : int32_t {
    Real = 0,
    Virtual = 1,
};

// Sets the mode of the process-wide clock, whichever clock the calling thread
// uses (a Clock is always virtual).
LUMETS_PLATFORM_API void SetTimeMode(TimeMode mode);
// The mode of the calling thread's clock.
LUMETS_PLATFORM_API TimeMode GetTimeMode();

// Monotonic milliseconds: the frame clock. Virtual mode starts at 0.
LUMETS_PLATFORM_API uint64_t MonotonicMs();

// Milliseconds since 1970-01-01 UTC. In virtual mode: the wall time at which
// virtual mode was entered (or the time set below) plus the virtual time since.
LUMETS_PLATFORM_API int64_t WallClockMs();

// Virtual mode only: the wall time that WallClockMs reports now (tests use it
// to cross a local midnight). Ignored in real mode.
LUMETS_PLATFORM_API void SetVirtualWallClockMs(int64_t wallMs);

// Sleeps the calling thread; in virtual mode until virtual time has moved on.
// On a thread not started through the platform layer (the host's), a virtual
// sleep advances time itself, exactly as AdvanceBy(durationMs) would. A sleep
// of 0 only yields.
LUMETS_PLATFORM_API void SleepMs(uint32_t durationMs);

// Virtual mode: moves time forward by durationMs, stopping at each pending
// deadline in turn to wake the waits that are due, and returns only when every
// thread started through the platform layer is blocked again in a wait of the
// time source (or has ended). Not to be called while holding a lock that a
// library thread may take. Waits due at the same instant are woken together,
// as they would be in real time, and all settle before time moves on.
// One host thread advances time at a time; others wait for their turn. Does
// nothing in real mode, on a library thread, and for a step that would take
// time past INT64_MAX milliseconds (a negative or NaN count converted, say).
LUMETS_PLATFORM_API void AdvanceBy(uint64_t durationMs);

// Virtual mode: returns once every thread started through the platform layer
// is blocked in a wait of the time source or has ended, without moving time.
// Does nothing in real mode and on a library thread.
LUMETS_PLATFORM_API void WaitUntilSettled();

// A virtual clock of its own. The functions above act on the calling thread's
// clock: the Clock of the innermost Scope living on the thread; else, on a
// library thread, the clock current on the thread that started it, kept for
// the thread's whole life; else the process-wide clock. Events and library
// threads keep the clock current when they were made, whoever uses them, so a
// manager made inside a Scope plays on that clock, and its threads settle and
// wake only with it; another thread may still call the manager. Library
// threads and events of one clock do not count for another: AdvanceBy waits
// only for its own clock's threads. A library thread of one clock that waits
// on an event of another is a host thread to that other clock.
class LUMETS_PLATFORM_API Clock {
    struct State;  // shared with the Scopes, threads and events that use the clock

  public:
    // Virtual time 0; the wall clock starts at the real wall time now.
    Clock();
    // Every wait still pending on the clock times out at once and the clock
    // follows real time from then on, as when the process-wide clock leaves
    // virtual mode, so a library thread still using it finishes instead of
    // blocking for ever. What still uses the clock keeps it alive.
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    // As MonotonicMs, AdvanceBy, WaitUntilSettled and SetVirtualWallClockMs,
    // on this clock whichever clock the calling thread uses: AdvanceBy and
    // WaitUntilSettled wait for this clock's library threads only, and do
    // nothing on one of them.
    uint64_t NowMs() const;
    void AdvanceBy(uint64_t durationMs);
    void WaitUntilSettled();
    void SetWallClockMs(int64_t wallMs);

    // Makes the clock the calling thread's clock while it lives (the Clock
    // may end first: the scope then goes on in real time). Scopes nest and
    // must end in the reverse order they began, on the thread that made them;
    // the end of one restores the clock the thread used before.
    class LUMETS_PLATFORM_API Scope {
      public:
        explicit Scope(Clock& clock);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        std::shared_ptr<State> m_state;
        const Scope* m_outer;
    };

  private:
    std::shared_ptr<State> m_state;
};

}  // namespace lumets
