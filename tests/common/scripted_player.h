// A scripted movie player for tests, installed through the player
// library's hook: a 100 x 40 movie that plays between Play and Pause, whose
// passes end when the test says so.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "lumets/host/flash_player.h"
#include "lumets/time_source.h"

namespace lumets::test {

// A movie of 100 x 40 that plays between Play and Pause; the test ends its
// passes by calling EndPass, as the real player's thread would.
class ScriptedPlayer : public IFlashPlayer {
  public:
    static inline std::atomic<ScriptedPlayer*> last{nullptr};
    // When each player was told to play, in virtual milliseconds, and which
    // (players are numbered as they are made).
    static inline std::mutex journalMutex;
    static inline std::vector<std::pair<uint64_t, int>> journal;
    static inline std::atomic<int> made{0};
    const int id = made++;

    // Makes every new player a scripted one (null: the real one again).
    static void Install(bool on) {
        if (on) {
            host::SetFlashPlayerFactory(
                [] {
                    auto* player = new ScriptedPlayer;
                    last = player;
                    return static_cast<IFlashPlayer*>(player);
                },
                [](IFlashPlayer* player) { delete player; });
        } else {
            host::SetFlashPlayerFactory(nullptr, nullptr);
        }
    }

    void SetEventHandler(CFlashPlayerEventHandler* handler) override { m_handler = handler; }
    void Open(const char16_t*, int32_t, bool autoPlay) override {
        m_open = true;
        m_playing = autoPlay;
    }
    void Play() override {
        m_playing = true;
        ++plays;
        std::lock_guard<std::mutex> lock(journalMutex);
        journal.emplace_back(MonotonicMs(), id);
    }
    void Pause() override {
        m_playing = false;
        ++pauses;
    }
    void Stop() override { m_playing = false; }
    bool IsReady() override { return m_open; }
    bool IsLoading() override { return false; }
    bool IsPlaying() override { return m_playing; }
    double GetFrameRate() override { return 30; }
    bool GetSize(uint32_t* w, uint32_t* h) override {
        *w = m_open ? 100 : 0;
        *h = m_open ? 40 : 0;
        return m_open;
    }
    bool RenderToTexture(GLuint, uint32_t* w, uint32_t* h, IPBO*) override { return GetSize(w, h); }
    // With endPassWhileDrawing, the end of a pass arrives from inside a
    // drawing call, which the item makes holding its player lock.
    void RenderToFrame(uint8_t*, uint32_t, uint32_t, const RECT*, const POINT*, float) override {
        if (endPassWhileDrawing.exchange(false)) {
            EndPass();
        }
    }
    std::atomic<bool> endPassWhileDrawing{false};

    void EndPass() { m_handler->OnPlayEnd(FILE_TYPE_SWF); }

    std::atomic<int> plays{0};
    std::atomic<int> pauses{0};

  private:
    CFlashPlayerEventHandler* m_handler = nullptr;
    std::atomic<bool> m_open{false};
    std::atomic<bool> m_playing{false};
};

}  // namespace lumets::test
