#include "lumets_platform/event.h"

#include "scheduler.h"

namespace lumets::platform {

using detail::Scheduler;

struct AutoResetEvent::Impl {
    // Both guarded by the scheduler's mutex. A Set that finds a waiter hands the
    // signal straight to it, so "signalled" is only ever true with nobody waiting.
    bool signalled = false;
    detail::WaitQueue waiters;
};

AutoResetEvent::AutoResetEvent(bool initiallySet) : m_impl(std::make_unique<Impl>()) {
    m_impl->signalled = initiallySet;
}

AutoResetEvent::~AutoResetEvent() {
    auto lk = Scheduler::Instance().Lock();
    Scheduler::Orphan(m_impl->waiters);
}

void AutoResetEvent::Set() {
    Scheduler& s = Scheduler::Instance();
    auto lk = s.Lock();
    if (!s.SignalOne(m_impl->waiters)) {
        m_impl->signalled = true;
    }
}

void AutoResetEvent::Reset() {
    auto lk = Scheduler::Instance().Lock();
    m_impl->signalled = false;
}

void AutoResetEvent::Wait() {
    WaitFor(kWaitInfinite);
}

bool AutoResetEvent::WaitFor(uint32_t timeoutMs) {
    Scheduler& s = Scheduler::Instance();
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
