#include "lumets_platform/event.h"

#include "scheduler.h"

namespace lumets::platform {

using detail::Scheduler;

struct AutoResetEvent::Impl {
    // The clock current where the event was made, whichever thread uses it.
    const std::shared_ptr<Scheduler> scheduler = Scheduler::Current().shared_from_this();
    // Both guarded by the scheduler's mutex. A Set that finds a waiter hands the
    // signal straight to it, so "signalled" is only ever true with nobody waiting.
    bool signalled = false;
    detail::WaitQueue waiters;
};

AutoResetEvent::AutoResetEvent(bool initiallySet) : m_impl(std::make_unique<Impl>()) {
    m_impl->signalled = initiallySet;
}

AutoResetEvent::~AutoResetEvent() {
    auto lk = m_impl->scheduler->Lock();
    Scheduler::Orphan(m_impl->waiters);
}

void AutoResetEvent::Set() {
    Scheduler& s = *m_impl->scheduler;
    auto lk = s.Lock();
    if (!s.SignalOne(m_impl->waiters)) {
        m_impl->signalled = true;
    }
}

void AutoResetEvent::Reset() {
    auto lk = m_impl->scheduler->Lock();
    m_impl->signalled = false;
}

void AutoResetEvent::Wait() {
    WaitFor(kWaitInfinite);
}

bool AutoResetEvent::WaitFor(uint32_t timeoutMs) {
    // Held for the wait: the event may be destroyed while it waits.
    const std::shared_ptr<Scheduler> keep = m_impl->scheduler;
    Scheduler& s = *keep;
    auto lk = s.Lock();
    if (m_impl->signalled) {
        m_impl->signalled = false;
        return true;
    }
    if (timeoutMs == 0) {
        return false;
    }
    std::optional<uint32_t> limit;
    if (timeoutMs != kWaitInfinite) {
        limit = timeoutMs;
    }
    return s.Wait(lk, &m_impl->waiters, limit);
}

}  // namespace lumets::platform
