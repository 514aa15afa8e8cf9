// A thread started through the platform layer. It counts as a library thread
// for the virtual time source, and it signals its end as its last act so that
// a bounded wait for it is possible.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "lumets/export.h"
#include "lumets_platform/event.h"

namespace lumets::platform {

class LUMETS_PLATFORM_API Thread {
  public:
    Thread();
    // A thread still running is detached; its body must not outlive what it uses.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // False if a thread is already running under this object, the body is empty or
    // no thread could be made. The new thread counts as runnable before Start
    // returns. An exception escaping the body ends the thread (it is reported on
    // the debug output, not rethrown).
    bool Start(std::function<void()> body);
    // True (and the thread joined) when it has ended within timeoutMs, measured on
    // the time source; false when it still runs, in which case it is detached and
    // this object is free for another Start. Without a thread it is true at once;
    // called on the thread itself it does not wait (false, detached). kWaitInfinite
    // waits without limit. On a host thread in virtual mode the wait advances
    // time itself (see event.h).
    bool WaitForEnd(uint32_t timeoutMs);
    // True from a successful Start until WaitForEnd has released the thread.
    bool IsStarted() const;

    struct State;

  private:
    std::shared_ptr<State> m_state;
};

}  // namespace lumets::platform
