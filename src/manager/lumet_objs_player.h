// CLumetObjsPlayer: the play queue of one subtitle id. It holds its own deep
// copies of the host's item descriptions and plays them one after another,
// each as a CLumet on its own playing thread; after the last it ends or, when
// looping, pauses for its interval and starts again at the first. It keeps
// the subtitle's position and answers the manager's geometry for whatever
// item is current.
//
// The manager calls every operation under its lock. OnPlayedOnce, and with it
// PlayAt, runs on item threads (or the movie player's thread) without it, so
// the fields those threads share with the host's are atomics, and m_lock
// guards the descriptions and the items (see lock.h). Items are destroyed
// only on the host's thread, by Stop, the destructor and a Setup whose
// restart fails, after their threads have ended and outside m_lock. The
// repeat pause runs on the thread that ended the turn; a stop wakes it at once
// and nothing starts after it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "lumets/records.h"
#include "lumets_platform/event.h"
#include "lumets_platform/lock.h"
#include "subtitle/lumet.h"

namespace lumets {

// A description with parts of its own (copies of the host's).
struct OwnedDescription {
    std::unique_ptr<SwfPart> swf;
    std::unique_ptr<TextPart> text;
    std::unique_ptr<BackgroundPart> background;
    int32_t playCount = 0;

    ItemDescription View() const;
};

class CLumetObjsPlayer final : public CLumetEventHandler {
  public:
    static constexpr size_t kGroupUnits = 260;

    CLumetObjsPlayer() = default;
    ~CLumetObjsPlayer() override;

    void Setup(const char16_t* group, const ItemDescription* items, uint32_t count, int32_t x,
               int32_t y, bool loop, int32_t intervalMs);
    // Asks every item to stop and ends a repeat pause, without waiting: a
    // manager removing many queues asks them all before it waits for any.
    void RequestStop();
    void Stop();
    void PlayAt(uint32_t index);
    void SetItems(const ItemDescription* items, uint32_t count);
    void OnPlayedOnce() override;

    bool IsInGroup(const char16_t* group) const;
    LumetState GetState();
    int64_t GetStartTime();
    void DrawToFrame(const lumets_frame& frame, float scale);
    void DrawToTarget(int32_t width, int32_t height, IGPUCombiner* combiner,
                      std::vector<TextureSlot>* slots, float scale);
    bool HitTest(int32_t x, int32_t y, float scale);
    bool GetRect(RECT* rect, float scale);
    bool GetPosition(POINT* position) const;
    void MoveTo(int32_t x, int32_t y);
    void UpdateText(const TextPart* part);
    void UpdateBackground(const BackgroundPart* part);

  private:
    // The repeat pause before position 0 comes round again, ended by a stop.
    void Pause(int32_t intervalMs);
    // Starts again the items of an ended queue (new descriptions); false when
    // one cannot start, which then goes with the items after it.
    bool RestartEnded();
    template <typename Part>
    void UpdateFirst(std::unique_ptr<Part> OwnedDescription::*member, const Part* part,
                     void (CLumet::*apply)(const Part*));

    std::atomic<bool> m_stopping{false};
    char16_t m_group[kGroupUnits] = {};
    CLock m_lock;
    std::vector<OwnedDescription> m_descs;  // m_lock
    POINT m_position{};                     // the host's thread only
    std::atomic<bool> m_loop{false};
    std::atomic<int32_t> m_intervalMs{0};
    std::atomic<uint32_t> m_currentIndex{0};
    std::atomic<CLumet*> m_current{nullptr};
    std::vector<std::unique_ptr<CLumet>> m_items;  // m_lock
    // When the running round began: a looping round of turns without a
    // single step passes in no time, and waits a frame before the next.
    uint64_t m_roundStartMs = 0;  // m_lock
    // Set by a stop to end a repeat pause at once.
    platform::AutoResetEvent m_wake;
    POINT m_dragAnchor{};
    POINT m_dragOrigin{};
    // Set while a looping queue pauses and brings position 0 round again:
    // the queue counts as busy then, so a Setup cannot give position 0 a
    // second turn beside it.
    std::atomic<bool> m_cycling{false};
};

}  // namespace lumets
