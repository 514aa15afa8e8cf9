#include "lumets_platform/thread.h"

#include <system_error>
#include <thread>

#include "lumets_platform/debug_output.h"
#include "lumets_platform/event.h"
#include "scheduler.h"

namespace lumets::platform {

using detail::Scheduler;

struct Thread::State {
    // The clock current where the thread was started: it runs, counts and
    // signals its end on it.
    std::shared_ptr<Scheduler> scheduler;
    // Touched only by the owning Thread object.
    std::thread thread;
    // Guarded by the scheduler's mutex.
    bool ended = false;
    detail::WaitQueue endWaiters;
};

namespace {

// The thread keeps its own reference to the state, so a detached thread never
// touches freed memory, whatever became of the Thread object.
void RunLibraryThread(std::shared_ptr<Thread::State> state, std::function<void()> body) {
    Scheduler& s = *state->scheduler;
    Scheduler::EnterLibraryThread(s);
    {
        // Destroyed before the end is signalled: whatever the body captured must
        // be gone by the time a waiter is told the thread has ended.
        std::function<void()> run = std::move(body);
        try {
            run();
        } catch (...) {
            DebugOutput("lumets: a library thread ended with an exception\n");
        }
    }
    auto lk = s.Lock();
    state->ended = true;
    s.SignalAll(state->endWaiters);
    s.LibraryThreadEnded();
}

bool HasEnded(const Thread::State& state) {
    auto lk = state.scheduler->Lock();
    return state.ended;
}

}  // namespace

Thread::Thread() = default;

Thread::~Thread() {
    if (!m_state) {
        return;
    }
    if (HasEnded(*m_state)) {
        m_state->thread.join();  // it has only its last instructions left
    } else {
        m_state->thread.detach();
    }
}

bool Thread::Start(std::function<void()> body) {
    if (!body) {
        return false;
    }
    if (m_state) {
        if (!HasEnded(*m_state)) {
            return false;
        }
        m_state->thread.join();
        m_state.reset();
    }
    auto state = std::make_shared<State>();
    state->scheduler = Scheduler::Current().shared_from_this();
    Scheduler& s = *state->scheduler;
    s.LibraryThreadStarting();
    try {
        state->thread = std::thread(RunLibraryThread, state, std::move(body));
    } catch (const std::system_error&) {
        s.LibraryThreadNotStarted();
        return false;
    } catch (...) {
        // No thread (its state could not be allocated): it must not count as
        // runnable, or every virtual-time wait would wait for it for ever.
        s.LibraryThreadNotStarted();
        throw;
    }
    m_state = std::move(state);
    return true;
}

bool Thread::WaitForEnd(uint32_t timeoutMs) {
    if (!m_state) {
        return true;
    }
    bool ended = false;
    if (m_state->thread.get_id() != std::this_thread::get_id()) {
        Scheduler& s = *m_state->scheduler;
        auto lk = s.Lock();
        if (!m_state->ended && timeoutMs != 0) {
            std::optional<uint32_t> limit;
            if (timeoutMs != kWaitInfinite) {
                limit = timeoutMs;
            }
            s.Wait(lk, &m_state->endWaiters, limit);
        }
        ended = m_state->ended;
    }
    if (ended) {
        m_state->thread.join();
    } else {
        m_state->thread.detach();
    }
    m_state.reset();
    return ended;
}

bool Thread::IsStarted() const {
    return m_state != nullptr;
}

}  // namespace lumets::platform
