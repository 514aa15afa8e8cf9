// CLumet: one SWF subtitle item. Up to three layers shown together at one
// place of the host's picture: a movie (an IFlashPlayer of the host's player
// library), a styled text (CTextRenderer) and a rounded plate behind the text
// (CSubtitleBackground). Each layer may stand still or scroll across its own
// clip rectangle.
//
// The item plays in turns on its own playing thread (lumet_thread.cpp): it
// waits until its owner, the play queue, signals its turn, plays its passes,
// reports OnPlayedOnce, and waits for the next turn or ends. The host's
// render thread meanwhile measures and draws it (lumet_frame.cpp).
//
// Locks, all recursive: m_playerLock before m_flashLock; m_textLock before
// m_textPosLock; m_textLock before m_backgroundLock; never more than two at
// once. m_state, m_stopRequested and m_playsLeft are read and written without
// a lock (relaxed atomics): Stop ends the thread through the play event and
// the join, not through the flag alone.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "lumet_types.h"
#include "lumets/host/flash_player.h"
#include "lumets/host/gpu_combiner.h"
#include "lumets/records.h"
#include "lumets_platform/event.h"
#include "lumets_platform/lock.h"
#include "lumets_platform/thread.h"
#include "subtitle/lumet_event_handler.h"
#include "subtitle/lumet_frame.h"
#include "subtitle/lumet_thread.h"
#include "subtitle/subtitle_background.h"
#include "text/text_renderer.h"

namespace lumets {

// One GPU layer: the texture that holds it and the pixel-buffer object that
// fills it; both made lazily by the item that draws into the slot.
struct TextureSlot {
    IPBO* pbo = nullptr;
    GLuint texture = 0;
};

// A layer's movement, in item units (pixels at scale 1, relative to the
// subtitle's position).
struct LayerMotion {
    POINT origin{};
    RECT clip{};  // in order: left <= right, top <= bottom
    POINT pos{};
    Heading direction = Heading::None;
    float step = 0.0f;  // pixels per 33 ms frame
    bool wrap = false;
};

class CLumet : public CFlashPlayerEventHandler {
  public:
    CLumet();
    ~CLumet() override;
    CLumet(const CLumet&) = delete;
    CLumet& operator=(const CLumet&) = delete;

    void SetOwner(CLumetEventHandler* owner) { m_owner = owner; }

    // Takes over the description's layers and starts the playing thread,
    // which waits for SignalPlay. True at once (changing nothing but the play
    // event) while the item runs; false when the movie file does not exist
    // (the item is then Starting, without a thread).
    bool Start(const ItemDescription* desc, bool playNow, bool repeat);
    bool SignalPlay();
    // Asks the playing thread to end and wakes it from any wait, without
    // waiting for it: an owner stopping many items asks them all first.
    void RequestStop();
    // Stops the movie, wakes and joins the playing thread; the item is Idle.
    void Stop();
    // Playing only while the movie really plays (when there is one).
    LumetState GetState();
    int64_t GetStartTime() const { return m_startTime.load(std::memory_order_relaxed); }
    // A running item's new text and geometry; its position stays.
    void UpdateText(const TextPart* part);
    void UpdateBackground(const BackgroundPart* part);

    // The frame (lumet_frame.cpp). Positions come as the subtitle's offset;
    // scale is host pixels per item unit.
    bool GetBounds(RECT* out, float scale);
    bool HitTest(int32_t x, int32_t y, float scale);
    void CompositeToFrame(const lumets_frame& frame, int32_t offX, int32_t offY, float scale);
    void RenderToTextures(int32_t width, int32_t height, IGPUCombiner* combiner,
                          std::vector<TextureSlot>* slots, int32_t offX, int32_t offY, float scale);
    // For tests: how often the text and the plate were scaled for a frame.
    std::pair<uint32_t, uint32_t> ScaleCounts();

    // The movie player's end of a pass (its own thread).
    void OnPlayEnd(ENUM_FILE_TYPE type) override;

  private:
    struct PlayerFree {
        void operator()(IFlashPlayer* player) const { DeleteFlashPlayer(player); }
    };
    using PlayerPtr = std::unique_ptr<IFlashPlayer, PlayerFree>;

    // The playing thread and its steps (lumet_thread.cpp).
    void PlayingLumetProc();
    void StepFlashLayer();
    void StepTextLayer();
    // One step of layer (the movie's or the text's motion, its lock held)
    // inside its clip. While the other layer shows, the clip widens to the
    // layer's origin, and layers moving in lock step move as one block.
    void StepWithin(LayerMotion& layer, SIZE own, bool otherShows, const LayerMotion& flash,
                    SIZE movie, const LayerMotion& text, SIZE textSize);
    void AdvancePosition(POINT& pos, float step, Heading direction, const RECT& clip, SIZE extent,
                         bool wrap);
    bool IsFlashScrolling();
    bool IsTextScrolling();
    bool IsCountedByPlayer();
    bool HasPlaysLeft() const;
    bool PlayerIsReady();
    bool PlayerIsLoading();
    bool PlayerIsPlaying();
    bool IsFlashScrollDone();
    bool IsTextScrollDone();
    SIZE TextSize();
    void NotifyPlayedOnce();
    void ReleasePlayer();

    // The text's clip and position moved by the subtitle's offset.
    std::pair<RECT, POINT> TextPlacement(int32_t offX, int32_t offY);
    void EnsureTextPixels(int32_t width, int32_t height);
    TextureSlot* TakeSlot(std::vector<TextureSlot>* slots, int32_t* index);

    CLumetEventHandler* m_owner = nullptr;
    int32_t m_playCount = 0;
    std::atomic<int32_t> m_playsLeft{0};
    std::atomic<int64_t> m_startTime{0};
    bool m_ignoreMovieEnd = false;

    LayerMotion m_flash;  // m_flashLock
    CLock m_flashLock;
    LayerMotion m_text;  // m_textPosLock
    CLock m_textPosLock;
    PlayerPtr m_player;  // m_playerLock
    CLock m_playerLock;
    // The same player for the calls made without the lock (Play, and Pause
    // from OnPlayEnd); cleared before the player is destroyed.
    std::atomic<IFlashPlayer*> m_callbackPlayer{nullptr};
    std::unique_ptr<CTextRenderer> m_textRenderer;  // m_textLock, with m_textPixels
    CLock m_textLock;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<LumetState> m_state{LumetState::Idle};
    platform::Thread m_thread;  // the owner's thread only
    CLock m_backgroundLock;
    uint32_t m_backgroundColor = 0;    // m_backgroundLock
    uint32_t m_backgroundOpacity = 0;  // percent; m_backgroundLock
    bool m_backgroundSpanClip = false;
    std::unique_ptr<CSubtitleBackground> m_background;
    float m_stepRemainder = 0.0f;       // the playing thread only
    std::vector<uint8_t> m_textPixels;  // grows only; m_textLock
    platform::AutoResetEvent m_playEvent;
    // Ends the frame step's wait at once when a stop is asked for.
    platform::AutoResetEvent m_stopEvent;
    bool m_repeat = false;
    std::optional<uint64_t> m_lastFrameMs;  // the playing thread only
};

}  // namespace lumets
