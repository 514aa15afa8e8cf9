#include "subtitle/lumet.h"

#include <algorithm>
#include <string>

#include "lumets/time_source.h"
#include "lumets_common/picture_limits.h"
#include "lumets_platform/debug_output.h"
#include "lumets_platform/geometry.h"
#include "lumets_platform/utf16.h"

namespace lumets {

namespace {

constexpr size_t kPathUnits = sizeof(SwfPart::szPath) / sizeof(char16_t);

// A part's geometry as a layer's motion; the position starts at the origin.
template <typename Part>
LayerMotion MotionOf(const Part& part) {
    LayerMotion motion;
    motion.clip = platform::NormalizeRect(part.rcClip);
    motion.origin = POINT{part.x, part.y};
    motion.pos = motion.origin;
    motion.direction = ToHeading(part.nDirection);
    motion.step = StepFromSpeed(part.nSpeed);
    motion.wrap = part.bWrap != 0;
    return motion;
}

}  // namespace

float StepFromSpeed(uint32_t speed) {
    return static_cast<float>(speed * 33u) / 1000.0f;  // the product wraps, as unsigned
}

CLumet::CLumet() = default;

CLumet::~CLumet() {
    Stop();
    ReleasePlayer();
    {
        CAutoLock lock(&m_backgroundLock);
        m_background.reset();
    }
    CAutoLock lock(&m_textLock);
    m_textRenderer.reset();
    m_textPixels = {};
}

bool CLumet::SignalPlay() {
    m_playEvent.Set();
    return true;
}

bool CLumet::Start(const ItemDescription* desc, bool playNow, bool repeat) {
    if (!playNow) {
        m_playEvent.Reset();
    }
    if (m_state.load(std::memory_order_relaxed) != LumetState::Idle) {
        return true;
    }
    if (desc == nullptr) {
        return false;
    }
    m_repeat = repeat;
    m_startTime.store(WallClockMs() / 1000, std::memory_order_relaxed);
    m_state.store(LumetState::Starting, std::memory_order_relaxed);
    m_stopRequested.store(false, std::memory_order_relaxed);
    m_stopEvent.Reset();

    if (desc->pSwf != nullptr) {
        const SwfPart& swf = *desc->pSwf;
        {
            CAutoLock lock(&m_flashLock);
            m_flash = MotionOf(swf);
        }
        m_ignoreMovieEnd = swf.bIgnoreMovieEnd != 0;
        CAutoLock lock(&m_playerLock);
        if (!m_player) {
            m_player.reset(CreateFlashPlayer());
            if (m_player) {
                m_player->SetEventHandler(this);
                m_callbackPlayer.store(m_player.get(), std::memory_order_release);
            }
        }
        if (m_player) {
            // The path field may fill all its units without a terminator.
            std::u16string path(swf.szPath, platform::U16Length(swf.szPath, kPathUnits));
            if (!platform::PathFileExists(path.c_str())) {
                return false;
            }
            m_player->Open(path.c_str(), 0, playNow);
        }
    } else {
        {
            CAutoLock lock(&m_playerLock);
            if (m_player) {
                m_player->Stop();
            }
        }
        ReleasePlayer();
    }

    if (desc->pText != nullptr) {
        const TextPart& text = *desc->pText;
        {
            CAutoLock lock(&m_textPosLock);
            m_text = MotionOf(text);
        }
        CAutoLock lock(&m_textLock);
        if (!m_textRenderer) {
            m_textRenderer = std::make_unique<CTextRenderer>();
        }
        // The text block may fill all its units without a terminator; the
        // renderer reads within them.
        m_textRenderer->Render(text.text, &text.style);
    } else {
        CAutoLock lock(&m_textLock);
        m_textRenderer.reset();
    }

    {
        CAutoLock lock(&m_backgroundLock);
        if (desc->pBackground != nullptr && desc->pBackground->nOpacity != 0) {
            m_backgroundColor = desc->pBackground->crColor;
            m_backgroundOpacity = desc->pBackground->nOpacity;
            m_backgroundSpanClip = desc->pBackground->bSpanClip == 1;
            if (!m_background) {
                m_background = std::make_unique<CSubtitleBackground>();
            }
        } else {
            m_background.reset();
            m_backgroundOpacity = 0;
        }
    }

    m_playCount = desc->nPlayCount;
    m_playsLeft.store(desc->nPlayCount, std::memory_order_relaxed);

    if (m_thread.IsStarted() && !m_thread.WaitForEnd(1000)) {
        platform::DebugOutputW(u"Playing thread doesn't end normally \r");
    }
    m_thread.Start([this] {
        platform::DebugOutputW(u"CLumet::PlayingProc() starts \r");
        PlayingLumetProc();
        platform::DebugOutputW(u"CLumet::PlayingProc() ends \r");
    });
    return true;
}

void CLumet::RequestStop() {
    m_stopRequested.store(true, std::memory_order_relaxed);
    {
        CAutoLock lock(&m_playerLock);
        if (m_player) {
            m_player->Stop();
        }
    }
    m_playEvent.Set();
    m_stopEvent.Set();
}

void CLumet::Stop() {
    RequestStop();
    if (m_thread.IsStarted()) {
        m_thread.WaitForEnd(platform::kWaitInfinite);
    }
    m_playEvent.Reset();
    m_stopEvent.Reset();
    m_state.store(LumetState::Idle, std::memory_order_relaxed);
}

LumetState CLumet::GetState() {
    CAutoLock lock(&m_playerLock);
    const LumetState state = m_state.load(std::memory_order_acquire);
    if (!m_player) {
        return state;
    }
    return state == LumetState::Playing && m_player->IsPlaying() ? LumetState::Playing
                                                                 : LumetState::Starting;
}

void CLumet::UpdateText(const TextPart* part) {
    if (part == nullptr) {
        return;
    }
    CAutoLock lock(&m_textLock);
    if (!m_textRenderer) {
        return;
    }
    {
        CAutoLock posLock(&m_textPosLock);
        const POINT pos = m_text.pos;
        m_text = MotionOf(*part);
        m_text.pos = pos;
    }
    m_textRenderer->Render(part->text, &part->style);
}

void CLumet::UpdateBackground(const BackgroundPart* part) {
    if (part == nullptr) {
        return;
    }
    CAutoLock lock(&m_backgroundLock);
    m_backgroundColor = part->crColor;
    m_backgroundOpacity = part->nOpacity;
    m_backgroundSpanClip = part->bSpanClip == 1;
    // A plate is never destroyed here: an opacity of 0 only hides it.
    if (!m_background && part->nOpacity != 0) {
        m_background = std::make_unique<CSubtitleBackground>();
    }
}

}  // namespace lumets
