// Host threads for stress and lifetime tests: a watchdog that ends a hung
// test with a failure, and threads that draw a manager's subtitles to a
// buffer and to a GL target while the test does something else.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lumets/host/headless_gl.h"
#include "lumets/lumet_manager.h"
#include "lumets_common/picture.h"

namespace lumets::test {

// Aborts the test program when a case has not ended within its limit.
class Watchdog {
  public:
    explicit Watchdog(std::string what, std::chrono::seconds limit = std::chrono::seconds(300))
        : m_what(std::move(what)) {
        m_thread = std::thread([this, limit] {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_done.wait_for(lock, limit, [this] { return m_finished; })) {
                std::fprintf(stderr, "hung: %s\n", m_what.c_str());
                std::abort();
            }
        });
    }
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_finished = true;
        }
        m_done.notify_one();
        m_thread.join();
    }

  private:
    std::string m_what;
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    std::thread m_thread;
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
