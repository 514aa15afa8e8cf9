// Auto-reset event: Set lets exactly one wait through (or the next one to come)
// and resets itself. Every wait goes through the time source, so it follows
// virtual time.
//
// In virtual mode a wait on a library thread (one started through Thread) is
// "blocked" until a Set or until AdvanceBy reaches its limit. A wait with a
// limit on any other thread (the host's) would never end if nobody advanced
// time, so it advances time itself exactly as AdvanceBy would up to its limit,
// and returns as soon as it is signalled. When it runs out of time it returns
// only after every wait due at its limit has been woken and the library threads
// have settled, like AdvanceBy. A wait without a limit on a host thread
// advances time in the same way until it is signalled; with nothing due and
// no library thread runnable it leaves the clock alone and blocks until Set.
// On a library thread, a wait without a limit simply blocks until Set.
#pragma once

#include <cstdint>
#include <memory>

#include "lumets/export.h"

namespace lumets::platform {

// A limit that means no limit, as for WaitFor and Thread::WaitForEnd.
inline constexpr uint32_t kWaitInfinite = 0xFFFFFFFFu;

class LUMETS_PLATFORM_API AutoResetEvent {
  public:
    explicit AutoResetEvent(bool initiallySet = false);
    ~AutoResetEvent();
    AutoResetEvent(const AutoResetEvent&) = delete;
    AutoResetEvent& operator=(const AutoResetEvent&) = delete;

    // Releases the longest-waiting wait, or, with nobody waiting, the next wait to come.
    void Set();
    void Reset();
    // Waits without limit; consumes the signal.
    void Wait();
    // True when signalled within timeoutMs (consuming the signal), false on time-out.
    // A limit of 0 only tests and consumes the signal; kWaitInfinite waits without limit.
    bool WaitFor(uint32_t timeoutMs);

    struct Impl;

  private:
    std::unique_ptr<Impl> m_impl;
};

}  // namespace lumets::platform
