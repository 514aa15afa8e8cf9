// The scheduler behind the time source: its mutex guards the events made on
// it, the end flags of the threads started on it and its virtual clock, so
// that a wake-up and the bookkeeping of who is runnable happen in one step.
//
// There is one process-wide scheduler and one per lumets::Clock. A thread
// uses its current one (Current): the innermost Clock::Scope's, else, on a
// library thread, the one it was started on, else the process-wide one.
// Events and threads keep the scheduler they were made on, whoever calls
// them. No scheduler's mutex is ever held while another's is taken.
//
// Library threads (those started through Thread::Start) are counted while
// they run and uncounted while they are blocked in a wait of the time source.
// Whoever wakes a blocked library thread counts it again in the same critical
// section, so there is no moment in which a woken thread that has not run yet
// looks blocked; AdvanceBy can therefore trust "runnable == 0" to mean that
// everything has settled.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "lumets/time_source.h"

namespace lumets::platform::detail {

struct Waiter;

// Virtual time never passes what a signed 64-bit millisecond clock can show.
inline constexpr uint64_t kMaxVirtualMs = static_cast<uint64_t>(INT64_MAX);

// The waits on one object (an event, a thread's end), first come first served.
using WaitQueue = std::deque<Waiter*>;

// What a library thread's timed wait in virtual time blocks on instead of a
// condition variable: a flag of the thread's own, shared, so that the driver
// may raise it after letting the scheduler's mutex go. A whole instant's
// waits then wake without each woken thread queueing for that mutex behind
// the driver.
struct WakeFlag {
    std::atomic<uint32_t> raised{0};
};

// One blocked wait; lives on the waiting thread's stack for the wait's duration.
struct Waiter {
    std::condition_variable ownCv;
    // Library threads and real-mode waits sleep on their own condition variable;
    // host threads in virtual mode share the scheduler's host one, because they
    // also wait for the library threads to settle.
    std::condition_variable* cv = &ownCv;
    std::shared_ptr<WakeFlag> flag;  // set while the wait blocks on it
    WaitQueue* queue = nullptr;
    uint64_t deadline = 0;  // virtual milliseconds, when inTimeline
    uint64_t seq = 0;       // registration order: ties at one deadline wake first come first
    bool library = false;
    bool inTimeline = false;
    bool woken = false;
    bool signalled = false;  // woken by its object rather than by time
};

class Scheduler : public std::enable_shared_from_this<Scheduler> {
  public:
    // The process-wide scheduler; never destroyed.
    static Scheduler& Instance();
    // A new scheduler of its own, in virtual mode at 0 (a Clock's).
    static std::shared_ptr<Scheduler> CreateVirtual();
    // The calling thread's scheduler.
    static Scheduler& Current();
    // Makes s the calling thread's scheduler; null restores the thread's own
    // (its library scheduler, or the process-wide one).
    static void SetCurrent(Scheduler* s);
    // Called first on a library thread started on s: it counts on s for life.
    static void EnterLibraryThread(Scheduler& s);

    std::unique_lock<std::mutex> Lock() { return std::unique_lock<std::mutex>(m_mutex); }

    // --- under the lock ----------------------------------------------------
    // Blocks the caller (holding lk) on queue (may be null: a sleep) until it is
    // signalled or the limit passes (none: no limit). True when signalled.
    bool Wait(std::unique_lock<std::mutex>& lk, WaitQueue* queue, std::optional<uint32_t> limitMs);
    // Wakes the first wait of queue as signalled; false when nobody waits.
    bool SignalOne(WaitQueue& queue);
    void SignalAll(WaitQueue& queue);
    // The object behind queue goes away: its waits stay blocked but forget it.
    static void Orphan(WaitQueue& queue);
    // A library thread's body has returned (its last act).
    void LibraryThreadEnded();

    // --- taking the lock themselves ----------------------------------------
    // Counts a library thread before it exists, so that nothing can settle
    // before it has reached its first wait.
    void LibraryThreadStarting();
    void LibraryThreadNotStarted();

    void SetMode(TimeMode mode);
    TimeMode Mode() const { return m_mode.load(std::memory_order_acquire); }
    uint64_t NowMs() const;
    int64_t WallMs();
    void SetWallMs(int64_t wallMs);
    void Sleep(uint32_t ms);
    void AdvanceBy(uint64_t ms);
    void WaitUntilSettled();

  private:
    Scheduler() = default;

    bool IsVirtual() const { return Mode() == TimeMode::Virtual; }
    // The caller is a library thread started on this scheduler. A library
    // thread of another one is a host thread here: nothing counts it.
    bool OwnsCallingThread() const;
    void Wake(Waiter& w, bool signalled);
    // Wake without telling the waiter: the caller raises what it returns, if
    // anything, or w.cv has been notified.
    std::shared_ptr<WakeFlag> MarkWoken(Waiter& w, bool signalled);
    void Unlink(Waiter& w);
    // Moves the clock to the earliest deadline and wakes every wait due then,
    // raising their flags with lk let go; the timeline must not be empty.
    void WakeNextDue(std::unique_lock<std::mutex>& lk);
    void LeaveRunnable();
    void SetNow(uint64_t now);
    // Drives virtual time towards target as AdvanceBy does; stops early when own
    // (a host thread's wait, if any) has been woken. Caller holds the driver role.
    void RunTo(std::unique_lock<std::mutex>& lk, uint64_t target, const Waiter* own);
    // Gives the threads just woken a moment to block again without the
    // driver sleeping; returns with lk held either way.
    void SpinUntilSettled(std::unique_lock<std::mutex>& lk);
    bool AcquireDriver(std::unique_lock<std::mutex>& lk, const Waiter* own);
    void ReleaseDriver();
    bool DriveUntil(std::unique_lock<std::mutex>& lk, Waiter& w, uint32_t limitMs);
    bool DriveUntilWoken(std::unique_lock<std::mutex>& lk, Waiter& w);

    std::mutex m_mutex;
    // Host threads: AdvanceBy, WaitUntilSettled, the driver role and the waits of
    // host threads in virtual mode. Notified whenever any of those may proceed.
    std::condition_variable m_hostCv;
    std::atomic<TimeMode> m_mode{TimeMode::Real};
    std::atomic<uint64_t> m_now{0};
    int64_t m_wallBase = 0;
    uint64_t m_nowAtWallBase = 0;
    // Library threads running (not blocked in a wait): written under m_mutex,
    // read without it by a driver spinning on a thread it woke.
    std::atomic<int64_t> m_runnable{0};
    uint64_t m_nextSeq = 0;
    bool m_driving = false;
    // The flags WakeNextDue raises outside the lock; only the driver touches it.
    std::vector<std::shared_ptr<WakeFlag>> m_raising;
    // Blocked virtual waits with a deadline, earliest first, ties in registration order.
    std::map<std::pair<uint64_t, uint64_t>, Waiter*> m_timeline;
};

}  // namespace lumets::platform::detail
