// The item's playing thread: turns, passes and 33 ms frame steps, and the
// movie player's end-of-pass callback, which counts the plays when nothing
// scrolls.
#include "subtitle/lumet_thread.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "lumets/time_source.h"
#include "lumets_common/picture_limits.h"
#include "lumets_platform/debug_output.h"
#include "lumets_platform/geometry.h"
#include "subtitle/lumet.h"

namespace lumets {

namespace {

// Both layers in one direction at one speed move as a block: each measures
// against the box around both at their origins, seen from its own origin.
bool InLockStep(const LayerMotion& flash, const LayerMotion& text) {
    return flash.direction == text.direction && flash.direction != Heading::None &&
           flash.direction != Heading::Five && std::fabs(flash.step - text.step) < 1e-5f &&
           flash.step != 0.0f;
}

SIZE BlockExtent(const LayerMotion& flash, SIZE flashSize, const LayerMotion& text, SIZE textSize,
                 POINT from) {
    const int64_t right =
        std::max(int64_t{flash.origin.x} + flashSize.cx, int64_t{text.origin.x} + textSize.cx);
    const int64_t bottom =
        std::max(int64_t{flash.origin.y} + flashSize.cy, int64_t{text.origin.y} + textSize.cy);
    return SIZE{SaturateToInt32(right - from.x), SaturateToInt32(bottom - from.y)};
}

// The clip widened to hold the origin, in order.
RECT WidenedTo(const RECT& clip, POINT origin) {
    return platform::NormalizeRect(RECT{std::min(clip.left, origin.x), std::min(clip.top, origin.y),
                                        std::max(clip.right, origin.x),
                                        std::max(clip.bottom, origin.y)});
}

}  // namespace

// Positions saturate at the int32 range rather than wrap: a hostile clip at
// INT_MIN or INT_MAX pins the layer at the edge instead of overflowing.
void MovePosition(POINT& pos, int32_t n, Heading direction, const RECT& clip, SIZE extent,
                  bool wrap) {
    const int64_t w = extent.cx;
    const int64_t h = extent.cy;
    int64_t x = pos.x;
    int64_t y = pos.y;
    switch (direction) {
        case Heading::Right:
            x += n;
            if (x < clip.left - w) {
                x = clip.left - w;
            }
            if (wrap && x >= clip.right) {
                x = clip.left - w;
            }
            break;
        case Heading::Left:
            x -= n;
            if (x > clip.right) {
                x = clip.right;
            }
            if (wrap && x <= clip.left - w) {
                x = clip.right;
            }
            break;
        case Heading::Down:
            y += n;
            if (y < clip.top - h) {
                y = clip.top - h;
            }
            if (wrap && y >= clip.bottom) {
                y = clip.top - h;
            }
            break;
        case Heading::Up:
            y -= n;
            if (y > clip.bottom) {
                y = clip.bottom;
            }
            if (wrap && y <= clip.top - h) {
                y = clip.bottom;
            }
            break;
        default:
            break;
    }
    pos = POINT{SaturateToInt32(x), SaturateToInt32(y)};
}

bool IsScrollFinished(POINT pos, float step, Heading direction, const RECT& clip, SIZE extent,
                      bool wrap) {
    if (!(step > 1e-7f) || !IsMoving(direction) || extent.cx == 0 || extent.cy == 0 || wrap) {
        return false;
    }
    switch (direction) {
        case Heading::Right:
            return pos.x >= clip.right;
        case Heading::Left:
            return int64_t{pos.x} <= int64_t{clip.left} - extent.cx;
        case Heading::Down:
            return pos.y >= clip.bottom;
        default:
            return int64_t{pos.y} <= int64_t{clip.top} - extent.cy;
    }
}

int32_t TakeWholePixels(float& remainder, float step) {
    remainder += step;
    if (!(remainder >= 1.0f)) {
        return 0;
    }
    // Steps come from 32-bit speeds, so a frame's whole pixels fit.
    const auto n = static_cast<int32_t>(std::min(remainder, 2147483520.0f));
    remainder -= static_cast<float>(n);
    return n;
}

void CLumet::AdvancePosition(POINT& pos, float step, Heading direction, const RECT& clip,
                             SIZE extent, bool wrap) {
    if (!(step > 1e-5f) || extent.cx == 0 || extent.cy == 0) {
        return;
    }
    // One remainder for the item: when both layers move in a frame, both
    // steps add to it in turn.
    const int32_t n = TakeWholePixels(m_stepRemainder, step);
    MovePosition(pos, n, direction, clip, extent, wrap);
}

bool CLumet::IsFlashScrolling() {
    CAutoLock lock(&m_playerLock);
    CAutoLock flashLock(&m_flashLock);
    return m_player != nullptr && m_flash.direction != Heading::None && m_flash.step > 0.0f;
}

bool CLumet::IsTextScrolling() {
    CAutoLock lock(&m_textLock);
    CAutoLock posLock(&m_textPosLock);
    return m_textRenderer != nullptr && m_text.direction != Heading::None && m_text.step > 0.0f;
}

bool CLumet::IsCountedByPlayer() {
    return !IsTextScrolling() && !IsFlashScrolling() && !m_ignoreMovieEnd;
}

bool CLumet::HasPlaysLeft() const {
    return m_playCount == 0 || (m_playCount > 0 && m_playsLeft.load(std::memory_order_relaxed) > 0);
}

bool CLumet::PlayerIsReady() {
    CAutoLock lock(&m_playerLock);
    return m_player && m_player->IsReady();
}

bool CLumet::PlayerIsLoading() {
    CAutoLock lock(&m_playerLock);
    return m_player && m_player->IsLoading();
}

bool CLumet::PlayerIsPlaying() {
    CAutoLock lock(&m_playerLock);
    return m_player && m_player->IsPlaying();
}

SIZE CLumet::TextSize() {
    CAutoLock lock(&m_textLock);
    return m_textRenderer ? m_textRenderer->GetSize() : SIZE{0, 0};
}

bool CLumet::IsFlashScrollDone() {
    CAutoLock lock(&m_playerLock);
    if (!m_player) {
        return true;
    }
    if (m_player->IsLoading()) {
        return false;
    }
    uint32_t w = 0;
    uint32_t h = 0;
    if (!m_player->GetSize(&w, &h) || w == 0 || h == 0) {
        return true;
    }
    CAutoLock flashLock(&m_flashLock);
    return IsScrollFinished(m_flash.pos, m_flash.step, m_flash.direction, m_flash.clip,
                            SIZE{SaturateToInt32(w), SaturateToInt32(h)}, m_flash.wrap);
}

bool CLumet::IsTextScrollDone() {
    CAutoLock lock(&m_textLock);
    const SIZE size = m_textRenderer ? m_textRenderer->GetSize() : SIZE{0, 0};
    if (size.cx < 1 || size.cy < 1) {
        return true;
    }
    CAutoLock posLock(&m_textPosLock);
    return IsScrollFinished(m_text.pos, m_text.step, m_text.direction, m_text.clip, size,
                            m_text.wrap);
}

void CLumet::StepFlashLayer() {
    SIZE movie{0, 0};
    {
        CAutoLock lock(&m_playerLock);
        uint32_t w = 0;
        uint32_t h = 0;
        if (m_player && m_player->IsPlaying() && m_player->GetSize(&w, &h)) {
            movie = SIZE{SaturateToInt32(w), SaturateToInt32(h)};
        }
    }
    const SIZE text = TextSize();
    LayerMotion textMotion;
    {
        CAutoLock posLock(&m_textPosLock);
        textMotion = m_text;
    }
    CAutoLock lock(&m_flashLock);
    StepWithin(m_flash, movie, text.cx != 0 && text.cy != 0, m_flash, movie, textMotion, text);
}

void CLumet::StepTextLayer() {
    SIZE movie{0, 0};
    {
        CAutoLock lock(&m_playerLock);
        if (m_player && !m_player->IsReady() && !m_player->IsPlaying()) {
            return;  // the text waits for the movie
        }
        LayerMotion flash;
        {
            CAutoLock flashLock(&m_flashLock);
            flash = m_flash;
        }
        uint32_t w = 0;
        uint32_t h = 0;
        if (m_player && m_player->IsPlaying() && flash.step != 0.0f &&
            flash.direction != Heading::None && flash.direction != Heading::Five &&
            m_player->GetSize(&w, &h)) {
            movie = SIZE{SaturateToInt32(w), SaturateToInt32(h)};
        }
    }
    const SIZE text = TextSize();
    LayerMotion flash;
    {
        CAutoLock flashLock(&m_flashLock);
        flash = m_flash;
    }
    CAutoLock lock(&m_textPosLock);
    StepWithin(m_text, text, movie.cx != 0 && movie.cy != 0, flash, movie, m_text, text);
}

void CLumet::StepWithin(LayerMotion& layer, SIZE own, bool otherShows, const LayerMotion& flash,
                        SIZE movie, const LayerMotion& text, SIZE textSize) {
    SIZE extent = own;
    RECT clip = layer.clip;
    if (otherShows) {
        clip = WidenedTo(clip, layer.origin);
        if (InLockStep(flash, text)) {
            extent = BlockExtent(flash, movie, text, textSize, layer.origin);
        }
    }
    if (extent.cx != 0 && extent.cy != 0 && layer.step > 1e-5f && IsMoving(layer.direction)) {
        AdvancePosition(layer.pos, layer.step, layer.direction, clip, extent, layer.wrap);
    }
}

void CLumet::NotifyPlayedOnce() {
    if (m_owner != nullptr) {
        m_owner->OnPlayedOnce();
    }
}

void CLumet::PlayingLumetProc() {
    platform::DebugOutputW(u"CLumet::PlayingLumetProc() starts \r");
    if (m_owner != nullptr) {
        m_owner->OnPlayStarted();
    }
    m_state.store(LumetState::Playing, std::memory_order_relaxed);
    const bool flashScroll = IsFlashScrolling();
    const bool textScroll = IsTextScrolling();
    auto stopped = [this] { return m_stopRequested.load(std::memory_order_relaxed); };
    do {
        m_playEvent.Wait();
        m_playsLeft.store(m_playCount, std::memory_order_relaxed);
        // Play and the end-of-pass Pause call the player without the lock:
        // the player may report the end of a pass from inside either.
        if (IFlashPlayer* player = m_callbackPlayer.load(std::memory_order_acquire)) {
            player->Play();
        }
        while (!stopped() && HasPlaysLeft()) {
            {
                CAutoLock lock(&m_flashLock);
                m_flash.pos = m_flash.origin;
            }
            {
                CAutoLock lock(&m_textPosLock);
                m_text.pos = m_text.origin;
            }
            while (!stopped() && HasPlaysLeft()) {
                StepFlashLayer();
                StepTextLayer();
                // The pace follows the time source's clock; the first step of a
                // thread does not wait, and a late step is not made up for. A
                // stop ends the wait at once.
                const uint64_t now = MonotonicMs();
                if (m_lastFrameMs && now >= *m_lastFrameMs && now - *m_lastFrameMs < kFrameMs) {
                    m_stopEvent.WaitFor(static_cast<uint32_t>(kFrameMs - (now - *m_lastFrameMs)));
                }
                m_lastFrameMs = MonotonicMs();
                bool passEnds = false;
                if (flashScroll && textScroll) {
                    passEnds = (IsFlashScrollDone() && IsTextScrollDone()) ||
                               !(PlayerIsLoading() || PlayerIsPlaying());
                } else if (flashScroll) {
                    passEnds = IsFlashScrollDone() || !(PlayerIsLoading() || PlayerIsPlaying());
                } else if (textScroll) {
                    passEnds = IsTextScrollDone();
                }
                if (passEnds) {
                    break;
                }
            }
            if (!IsCountedByPlayer()) {
                m_playsLeft.fetch_sub(1, std::memory_order_relaxed);
            }
        }
        if (!IsCountedByPlayer()) {
            // A turn without a single step (a count below 0) ends at once; the
            // queue keeps a round of only such turns from spinning.
            {
                CAutoLock lock(&m_playerLock);
                if (m_player) {
                    m_player->Pause();
                }
            }
            NotifyPlayedOnce();
        }
    } while (!stopped() && m_repeat);
    ReleasePlayer();
    {
        CAutoLock lock(&m_textLock);
        m_textRenderer.reset();
    }
    m_state.store(LumetState::Idle,
                  std::memory_order_release);  // seen Idle, all the thread did is seen
    if (m_owner != nullptr) {
        m_owner->OnPlayStopped();
    }
    platform::DebugOutputW(u"CLumet::PlayingLumetProc() ends \r");
}

void CLumet::OnPlayEnd(ENUM_FILE_TYPE /*type*/) {
    if (m_stopRequested.load(std::memory_order_relaxed) || !IsCountedByPlayer()) {
        return;
    }
    if (m_playsLeft.fetch_sub(1, std::memory_order_relaxed) - 1 > 0) {
        return;
    }
    // The player calling back is alive until this returns: its destructor
    // waits for its thread, callbacks included, and the owner's repeat pause
    // that may follow ends as soon as a stop is asked for.
    if (IFlashPlayer* player = m_callbackPlayer.load(std::memory_order_acquire)) {
        player->Pause();
    }
    NotifyPlayedOnce();
}

// The player is destroyed outside its lock: destruction waits for the
// player's thread, which may be in OnPlayEnd waiting for that lock.
void CLumet::ReleasePlayer() {
    PlayerPtr doomed;
    {
        CAutoLock lock(&m_playerLock);
        m_callbackPlayer.store(nullptr, std::memory_order_release);
        doomed = std::move(m_player);
    }
    doomed.reset();
}

}  // namespace lumets
