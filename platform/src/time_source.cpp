#include "lumets/time_source.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "scheduler.h"

namespace lumets::platform::detail {

namespace {

// The scheduler a library thread was started on (null on other threads), and
// the one the thread uses now when a Clock::Scope chose it (null: the former,
// or the process-wide one).
thread_local Scheduler* t_owner = nullptr;
thread_local Scheduler* t_current = nullptr;

uint64_t SteadyMs() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

int64_t SystemMs() {
    using namespace std::chrono;
    return static_cast<int64_t>(
        duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

Scheduler& Scheduler::Instance() {
    // Never destroyed: a detached library thread may still wait or end while
    // static destructors run at process exit. Owned through a shared pointer
    // that is never released, so events and threads share it like a Clock's.
    static std::shared_ptr<Scheduler>* const instance =
        new std::shared_ptr<Scheduler>(new Scheduler);
    return **instance;
}

std::shared_ptr<Scheduler> Scheduler::CreateVirtual() {
    std::shared_ptr<Scheduler> s(new Scheduler);
    s->SetMode(TimeMode::Virtual);
    return s;
}

Scheduler& Scheduler::Current() {
    if (t_current != nullptr) {
        return *t_current;
    }
    return t_owner != nullptr ? *t_owner : Instance();
}

void Scheduler::SetCurrent(Scheduler* s) {
    t_current = s;
}

void Scheduler::EnterLibraryThread(Scheduler& s) {
    t_owner = &s;
    t_current = nullptr;
}

bool Scheduler::OwnsCallingThread() const {
    return t_owner == this;
}

void Scheduler::LeaveRunnable() {
    if (--m_runnable <= 0) {
        m_hostCv.notify_all();
    }
}

void Scheduler::SetNow(uint64_t now) {
    m_now.store(std::max(now, m_now.load(std::memory_order_relaxed)), std::memory_order_release);
}

void Scheduler::Unlink(Waiter& w) {
    if (w.queue != nullptr) {
        auto it = std::find(w.queue->begin(), w.queue->end(), &w);
        if (it != w.queue->end()) {
            w.queue->erase(it);
        }
        w.queue = nullptr;
    }
    if (w.inTimeline) {
        m_timeline.erase({w.deadline, w.seq});
        w.inTimeline = false;
    }
}

std::shared_ptr<WakeFlag> Scheduler::MarkWoken(Waiter& w, bool signalled) {
    w.woken = true;
    w.signalled = signalled;
    Unlink(w);
    if (w.library) {
        ++m_runnable;
    }
    if (w.flag) {
        return w.flag;
    }
    // Notified under the lock: the condition variable may live on the waiter's
    // stack, which it leaves as soon as it can take the lock.
    w.cv->notify_all();
    return nullptr;
}

namespace {
// A futex of its own rather than the atomic's wait, which spins and yields
// before it blocks: with a frame's worth of threads woken at once, those
// yields only hand the core from one woken thread to the next.
long Futex(std::atomic<uint32_t>& word, int op, uint32_t value) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), op, value, nullptr, nullptr, 0);
}

void Raise(WakeFlag& flag) {
    flag.raised.store(1, std::memory_order_release);
    Futex(flag.raised, FUTEX_WAKE_PRIVATE, 1);
}

void AwaitRaise(WakeFlag& flag) {
    while (flag.raised.load(std::memory_order_acquire) == 0) {
        Futex(flag.raised, FUTEX_WAIT_PRIVATE, 0);
    }
}
}  // namespace

void Scheduler::Wake(Waiter& w, bool signalled) {
    if (const std::shared_ptr<WakeFlag> flag = MarkWoken(w, signalled)) {
        Raise(*flag);
    }
}

bool Scheduler::SignalOne(WaitQueue& queue) {
    if (queue.empty()) {
        return false;
    }
    Wake(*queue.front(), true);
    return true;
}

void Scheduler::SignalAll(WaitQueue& queue) {
    while (!queue.empty()) {
        Wake(*queue.front(), true);
    }
}

void Scheduler::Orphan(WaitQueue& queue) {
    for (Waiter* w : queue) {
        w->queue = nullptr;
    }
    queue.clear();
}

void Scheduler::LibraryThreadStarting() {
    auto lk = Lock();
    ++m_runnable;
}

void Scheduler::LibraryThreadNotStarted() {
    auto lk = Lock();
    LeaveRunnable();
}

void Scheduler::LibraryThreadEnded() {
    LeaveRunnable();
}

bool Scheduler::Wait(std::unique_lock<std::mutex>& lk, WaitQueue* queue,
                     std::optional<uint32_t> limitMs) {
    Waiter w;
    w.library = OwnsCallingThread();
    w.seq = ++m_nextSeq;
    if (queue != nullptr) {
        queue->push_back(&w);
        w.queue = queue;
    }
    const bool isVirtual = IsVirtual();
    if (isVirtual && !w.library) {
        return limitMs ? DriveUntil(lk, w, *limitMs) : DriveUntilWoken(lk, w);
    }
    if (w.library) {
        LeaveRunnable();
    }
    const auto woken = [&w] { return w.woken; };
    if (!limitMs) {
        w.cv->wait(lk, woken);
    } else if (isVirtual) {
        // Only library threads get here: a host thread drives time instead.
        // The flag is the thread's own for life; the raise of its last wait
        // has happened, since that wait has returned.
        thread_local const std::shared_ptr<WakeFlag> t_flag = std::make_shared<WakeFlag>();
        t_flag->raised.store(0, std::memory_order_relaxed);
        w.flag = t_flag;
        w.deadline = NowMs() + *limitMs;
        m_timeline.emplace(std::make_pair(w.deadline, w.seq), &w);
        w.inTimeline = true;
        lk.unlock();
        AwaitRaise(*t_flag);
        lk.lock();
    } else {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(*limitMs);
        if (!w.cv->wait_until(lk, until, woken)) {
            // Timed out on its own: nobody else counts this thread runnable again.
            Unlink(w);
            if (w.library) {
                ++m_runnable;
            }
        }
    }
    return w.signalled;
}

bool Scheduler::AcquireDriver(std::unique_lock<std::mutex>& lk, const Waiter* own) {
    m_hostCv.wait(lk, [&] { return !m_driving || !IsVirtual() || (own && own->woken); });
    if (m_driving || !IsVirtual() || (own && own->woken)) {
        return false;
    }
    m_driving = true;
    return true;
}

void Scheduler::ReleaseDriver() {
    m_driving = false;
    m_hostCv.notify_all();
}

// A lone woken item thread usually steps and waits again within
// microseconds: waiting for that on the spot spares the driver a sleep and a
// wake-up of its own. Bounded, then the driver sleeps on its condition as
// before. With several threads runnable the driver sleeps at once, so that
// every core can step them.
void Scheduler::SpinUntilSettled(std::unique_lock<std::mutex>& lk) {
    constexpr int kSpins = 4000;  // some tens of microseconds
    if (m_runnable.load(std::memory_order_relaxed) != 1) {
        return;
    }
    lk.unlock();
    for (int i = 0; i < kSpins && m_runnable.load(std::memory_order_acquire) > 0; ++i) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    lk.lock();
}

void Scheduler::RunTo(std::unique_lock<std::mutex>& lk, uint64_t target, const Waiter* own) {
    for (;;) {
        SpinUntilSettled(lk);
        m_hostCv.wait(
            lk, [&] { return m_runnable <= 0 || !IsVirtual() || (own != nullptr && own->woken); });
        if (!IsVirtual() || (own != nullptr && own->woken)) {
            return;
        }
        if (m_timeline.empty() || m_timeline.begin()->first.first > target) {
            SetNow(target);
            return;
        }
        WakeNextDue(lk);
    }
}

// Every wait due at the earliest deadline wakes at once, and they settle
// before the clock moves on: whatever a woken thread signals happens before
// any later wait times out. Those due together run together, as they would
// in real time; a frame's worth of items stepping at one instant then costs
// a wake-up each on whichever core is free rather than a round trip each.
void Scheduler::WakeNextDue(std::unique_lock<std::mutex>& lk) {
    const uint64_t due = m_timeline.begin()->first.first;
    SetNow(due);
    m_raising.clear();
    while (!m_timeline.empty() && m_timeline.begin()->first.first == due) {
        if (std::shared_ptr<WakeFlag> flag = MarkWoken(*m_timeline.begin()->second, false)) {
            m_raising.push_back(std::move(flag));
        }
    }
    if (m_raising.empty()) {
        return;
    }
    // Raised with the lock let go, so a woken thread finds it free. The
    // waits stay counted runnable meanwhile, so nothing settles early; only
    // the driver, one at a time, touches m_raising.
    lk.unlock();
    for (const std::shared_ptr<WakeFlag>& flag : m_raising) {
        Raise(*flag);
    }
    m_raising.clear();
    lk.lock();
}

// A timed wait on a host thread in virtual mode: nobody else may ever advance
// time, so the waiter does it itself, like AdvanceBy towards its own deadline.
bool Scheduler::DriveUntil(std::unique_lock<std::mutex>& lk, Waiter& w, uint32_t limitMs) {
    w.cv = &m_hostCv;
    w.deadline = NowMs() + limitMs;
    // While another host thread drives, that one wakes this wait when due.
    m_timeline.emplace(std::make_pair(w.deadline, w.seq), &w);
    w.inTimeline = true;
    if (!AcquireDriver(lk, &w)) {
        if (!w.woken) {
            Unlink(w);  // left virtual mode while waiting for the driver role
        }
        return w.signalled;
    }
    m_timeline.erase({w.deadline, w.seq});
    w.inTimeline = false;
    RunTo(lk, w.deadline, &w);
    ReleaseDriver();
    if (!w.woken) {
        Unlink(w);
    }
    return w.signalled;
}

// An untimed wait on a host thread in virtual mode (joining a thread that
// sleeps in steps, say) moves time on too, or it would block for ever. It
// wakes the due waits, an instant at a time, until its own is woken; with
// nothing due and nothing runnable only another host thread can end it, and
// it leaves time alone until something is due again.
bool Scheduler::DriveUntilWoken(std::unique_lock<std::mutex>& lk, Waiter& w) {
    w.cv = &m_hostCv;
    const auto woken = [&w] { return w.woken; };
    while (!w.woken) {
        if (!AcquireDriver(lk, &w)) {
            if (!IsVirtual()) {
                w.cv->wait(lk, woken);
            }
            continue;
        }
        for (;;) {
            m_hostCv.wait(lk, [&] { return m_runnable <= 0 || !IsVirtual() || w.woken; });
            if (!IsVirtual() || w.woken || m_timeline.empty()) {
                break;
            }
            WakeNextDue(lk);
        }
        ReleaseDriver();
        m_hostCv.wait(lk, [&] {
            return w.woken || !IsVirtual() || m_runnable > 0 || (!m_timeline.empty() && !m_driving);
        });
    }
    return w.signalled;
}

void Scheduler::SetMode(TimeMode mode) {
    if (mode != TimeMode::Real && mode != TimeMode::Virtual) {
        return;
    }
    auto lk = Lock();
    if (Mode() == mode) {
        return;
    }
    m_mode.store(mode, std::memory_order_release);
    if (mode == TimeMode::Virtual) {
        m_now.store(0, std::memory_order_release);
        m_wallBase = SystemMs();
        m_nowAtWallBase = 0;
    } else {
        // Virtual deadlines mean nothing any more: let those waits time out now
        // rather than block forever.
        while (!m_timeline.empty()) {
            Wake(*m_timeline.begin()->second, false);
        }
    }
    m_hostCv.notify_all();
}

uint64_t Scheduler::NowMs() const {
    return IsVirtual() ? m_now.load(std::memory_order_acquire) : SteadyMs();
}

int64_t Scheduler::WallMs() {
    if (!IsVirtual()) {
        return SystemMs();
    }
    auto lk = Lock();
    return m_wallBase +
           static_cast<int64_t>(m_now.load(std::memory_order_relaxed) - m_nowAtWallBase);
}

void Scheduler::SetWallMs(int64_t wallMs) {
    auto lk = Lock();
    if (!IsVirtual()) {
        return;
    }
    m_wallBase = wallMs;
    m_nowAtWallBase = m_now.load(std::memory_order_relaxed);
}

void Scheduler::Sleep(uint32_t ms) {
    if (ms == 0) {
        std::this_thread::yield();
        return;
    }
    if (!IsVirtual()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return;
    }
    auto lk = Lock();
    Wait(lk, nullptr, ms);
}

void Scheduler::AdvanceBy(uint64_t ms) {
    // On a library thread it would wait for itself to block.
    if (OwnsCallingThread() || !IsVirtual()) {
        return;
    }
    auto lk = Lock();
    if (!AcquireDriver(lk, nullptr)) {
        return;
    }
    // A step past what a signed 64-bit millisecond clock can show is no step
    // a clock can take (a negative or NaN count converted, say), and taking
    // it would wake every periodic wait until the end of time: refused.
    const uint64_t now = m_now.load(std::memory_order_relaxed);
    if (ms <= kMaxVirtualMs - now) {
        RunTo(lk, now + ms, nullptr);
    }
    ReleaseDriver();
}

void Scheduler::WaitUntilSettled() {
    if (OwnsCallingThread() || !IsVirtual()) {
        return;
    }
    auto lk = Lock();
    m_hostCv.wait(lk, [this] { return m_runnable <= 0 || !IsVirtual(); });
}

}  // namespace lumets::platform::detail

namespace lumets {

using platform::detail::Scheduler;

// The process-wide clock keeps its mode for hosts that never make a Clock.
void SetTimeMode(TimeMode mode) {
    Scheduler::Instance().SetMode(mode);
}
TimeMode GetTimeMode() {
    return Scheduler::Current().Mode();
}
uint64_t MonotonicMs() {
    return Scheduler::Current().NowMs();
}
int64_t WallClockMs() {
    return Scheduler::Current().WallMs();
}
void SetVirtualWallClockMs(int64_t wallMs) {
    Scheduler::Current().SetWallMs(wallMs);
}
void SleepMs(uint32_t durationMs) {
    Scheduler::Current().Sleep(durationMs);
}
void AdvanceBy(uint64_t durationMs) {
    Scheduler::Current().AdvanceBy(durationMs);
}
void WaitUntilSettled() {
    Scheduler::Current().WaitUntilSettled();
}

struct Clock::State {
    std::shared_ptr<Scheduler> scheduler;
};

Clock::Clock() : m_state(std::make_shared<State>(State{Scheduler::CreateVirtual()})) {}

Clock::~Clock() {
    // Real time from now on: pending virtual waits time out at once and later
    // ones follow the real clock, so a straggling library thread finishes.
    m_state->scheduler->SetMode(TimeMode::Real);
}

uint64_t Clock::NowMs() const {
    return m_state->scheduler->NowMs();
}
void Clock::AdvanceBy(uint64_t durationMs) {
    m_state->scheduler->AdvanceBy(durationMs);
}
void Clock::WaitUntilSettled() {
    m_state->scheduler->WaitUntilSettled();
}
void Clock::SetWallClockMs(int64_t wallMs) {
    m_state->scheduler->SetWallMs(wallMs);
}

namespace {
// The innermost Scope living on this thread.
thread_local const Clock::Scope* t_scope = nullptr;
}  // namespace

Clock::Scope::Scope(Clock& clock) : m_state(clock.m_state), m_outer(t_scope) {
    t_scope = this;
    Scheduler::SetCurrent(m_state->scheduler.get());
}

Clock::Scope::~Scope() {
    t_scope = m_outer;
    Scheduler::SetCurrent(m_outer != nullptr ? m_outer->m_state->scheduler.get() : nullptr);
}

}  // namespace lumets
