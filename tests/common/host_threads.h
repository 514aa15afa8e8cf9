// Host threads for stress and lifetime tests: a watchdog that ends a hung
// test with a failure, and threads that draw a manager's subtitles to a
// buffer and to a GL target while the test does something else.
#pragma once

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lumets/host/headless_gl.h"
#include "lumets/lumet_manager.h"
#include "lumets_common/picture.h"

namespace lumets::test {

// Aborts the test program, naming the case, when a case has not ended within
// its limit. One at a time: it takes the process's alarm.
class Watchdog {
  public:
    explicit Watchdog(const std::string& what, unsigned seconds = 300) {
        std::snprintf(s_message, sizeof s_message, "hung: %s\n", what.c_str());
        std::signal(SIGALRM, [](int) {
            (void)!write(STDERR_FILENO, s_message, std::strlen(s_message));
            std::abort();
        });
        alarm(seconds);
    }
    ~Watchdog() { alarm(0); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    static inline char s_message[512];
};

// Draws on two host threads, to a buffer and (where EGL opens) to a target,
// until it goes.
class Drawers {
  public:
    Drawers(ILumetManager* manager, int32_t width, int32_t height, float scale) {
        m_threads.emplace_back([=, this] {
            std::vector<uint8_t> frame(size_t{RowStride(width, 24)} * height);
            while (!m_stop) {
                manager->DrawToBuffer(frame.data(), width, height, scale);
            }
        });
        m_threads.emplace_back([=, this] {
            host::CHeadlessGl gl;
            if (!gl.OpenDisplay() || !gl.CreateContext() || !gl.CreateFramebuffer(width, height)) {
                return;
            }
            while (!m_stop) {
                manager->DrawToTarget(width, height, scale);
            }
            manager->ReleaseGpuResources();
        });
    }
    ~Drawers() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

  private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

}  // namespace lumets::test
