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
#pragma once

#include <cstdint>

#include "lumets/export.h"

namespace lumets {

enum class TimeMode : int32_t {
    Real = 0,
    Virtual = 1,
};

LUMETS_PLATFORM_API void SetTimeMode(TimeMode mode);
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
// library thread may take. Waits due at the same instant are woken one at a
// time in the order they began, each thread settling before the next wakes.
// One host thread advances time at a time; others wait for their turn. Does
// nothing in real mode, on a library thread, and for a step that would take
// time past INT64_MAX milliseconds (a negative or NaN count converted, say).
LUMETS_PLATFORM_API void AdvanceBy(uint64_t durationMs);

// Virtual mode: returns once every thread started through the platform layer
// is blocked in a wait of the time source or has ended, without moving time.
// Does nothing in real mode and on a library thread.
LUMETS_PLATFORM_API void WaitUntilSettled();

}  // namespace lumets
