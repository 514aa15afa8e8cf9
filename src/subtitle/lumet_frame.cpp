// The item's frame: its bounds, hit tests, and its three layers drawn bottom
// to top (movie, plate, text) into the host's frame (CPU) or through the
// host's combiner (GPU).
#include "subtitle/lumet_frame.h"
#include "lumets_common/pixel_ops.h"

#include <algorithm>
#include <utility>

#include "lumets_common/picture.h"
#include "lumets_common/picture_limits.h"
#include "lumets_platform/geometry.h"
#include "subtitle/lumet.h"

namespace lumets {

namespace {

// Offsets saturate instead of wrapping: a hostile position or clip near the
// int32 limits pins the layer at the edge rather than flipping it across.
POINT Offset(POINT p, int32_t dx, int32_t dy) {
    return POINT{SaturateToInt32(int64_t{p.x} + dx), SaturateToInt32(int64_t{p.y} + dy)};
}

RECT Offset(const RECT& r, int32_t dx, int32_t dy) {
    return RECT{SaturateToInt32(int64_t{r.left} + dx), SaturateToInt32(int64_t{r.top} + dy),
                SaturateToInt32(int64_t{r.right} + dx), SaturateToInt32(int64_t{r.bottom} + dy)};
}

RECT Placed(POINT pos, int64_t width, int64_t height) {
    return RECT{pos.x, pos.y, SaturateToInt32(pos.x + width), SaturateToInt32(pos.y + height)};
}

// A size times the scale, truncated; hostile scales saturate.
int32_t Scaled(int64_t size, float scale) {
    return TruncateSaturated(static_cast<double>(static_cast<float>(size) * scale));
}

}  // namespace

void ClipLayer(RECT& src, RECT& dst, int32_t width, int32_t height, const RECT& clip,
               POINT position) {
    const RECT layer = Placed(position, width, height);
    RECT visible{};
    if (platform::IntersectRect(&visible, &layer, &clip)) {
        dst = visible;
        src = Offset(visible, SaturateToInt32(-int64_t{position.x}),
                     SaturateToInt32(-int64_t{position.y}));
    }
}

std::pair<RECT, POINT> CLumet::TextPlacement(int32_t offX, int32_t offY) {
    CAutoLock lock(&m_textPosLock);
    return {Offset(m_text.clip, offX, offY), Offset(m_text.pos, offX, offY)};
}

void CLumet::EnsureTextPixels(int32_t width, int32_t height) {
    const uint64_t need = uint64_t{RowStride(static_cast<uint32_t>(width), 32)} *
                          static_cast<uint32_t>(std::max(0, height));
    if (need > m_textPixels.size() && need <= UINT32_MAX) {
        m_textPixels = std::vector<uint8_t>(need);
    }
}

bool CLumet::GetBounds(RECT* out, float scale) {
    if (out == nullptr || m_state.load(std::memory_order_relaxed) != LumetState::Playing) {
        return false;
    }
    RECT flash{};
    RECT text{};
    RECT plate{};
    {
        CAutoLock lock(&m_playerLock);
        uint32_t w = 0;
        uint32_t h = 0;
        if (m_player && m_player->GetSize(&w, &h) && w != 0 && h != 0) {
            CAutoLock flashLock(&m_flashLock);
            const RECT layer = Placed(m_flash.pos, Scaled(w, scale), Scaled(h, scale));
            platform::IntersectRect(&flash, &layer, &m_flash.clip);
        }
    }
    {
        CAutoLock lock(&m_textLock);
        const SIZE size = m_textRenderer ? m_textRenderer->GetSize() : SIZE{0, 0};
        RECT textClip{};
        {
            CAutoLock posLock(&m_textPosLock);
            textClip = m_text.clip;
            if (size.cx >= 1 && size.cy >= 1) {
                const RECT layer =
                    Placed(m_text.pos, Scaled(size.cx, scale), Scaled(size.cy, scale));
                platform::IntersectRect(&text, &layer, &textClip);
            }
        }
        CAutoLock backgroundLock(&m_backgroundLock);
        if (m_backgroundOpacity != 0 && m_background) {
            int32_t pw = 0;
            int32_t ph = 0;
            m_background->GetBackgroundSize(pw, ph, flash.bottom - flash.top);
            if (pw >= 1 && ph >= 1) {
                m_background->GetBackgroundRect(&plate, &textClip);
            }
        }
    }
    RECT bounds{};
    for (const RECT* r : {&flash, &text, &plate}) {
        if (!platform::IsRectEmpty(r)) {
            platform::UnionRect(&bounds, &bounds, r);
        }
    }
    *out = bounds;
    return true;
}

bool CLumet::HitTest(int32_t x, int32_t y, float scale) {
    RECT r{};
    return GetBounds(&r, scale) && platform::PtInRect(&r, POINT{x, y});
}

void CLumet::CompositeToFrame(const lumets_frame& frame, int32_t offX, int32_t offY, float scale) {
    const PictureView view = FrameView(&frame);
    if (view.data == nullptr || m_state.load(std::memory_order_relaxed) != LumetState::Playing) {
        return;
    }
    {
        CAutoLock lock(&m_playerLock);
        if (m_player) {
            CAutoLock flashLock(&m_flashLock);
            POINT pos = Offset(m_flash.pos, offX, offY);
            RECT clip = Offset(m_flash.clip, offX, offY);
            m_player->RenderToHostFrame(&frame, &clip, &pos, scale);
        }
    }
    CAutoLock lock(&m_textLock);
    const auto [textClip, textPos] = TextPlacement(offX, offY);
    {
        CAutoLock backgroundLock(&m_backgroundLock);
        if (m_backgroundOpacity != 0 && m_background && m_textRenderer) {
            const SIZE size = m_textRenderer->GetSize();
            const RECT rect = m_backgroundSpanClip ? textClip : Placed(textPos, size.cx, size.cy);
            m_background->DrawOnFrame(view, &rect, size.cy, m_backgroundColor,
                                      static_cast<float>(m_backgroundOpacity) / 100.0f, scale);
        }
    }
    if (m_textRenderer) {
        m_textRenderer->BlendScaledIntoFrame(view, textClip, textPos, scale);
    }
}

std::pair<uint32_t, uint32_t> CLumet::ScaleCounts() {
    CAutoLock lock(&m_textLock);
    CAutoLock backgroundLock(&m_backgroundLock);
    return {m_textRenderer ? m_textRenderer->ScaleCount() : 0,
            m_background ? m_background->ScaleCount() : 0};
}

TextureSlot* CLumet::TakeSlot(std::vector<TextureSlot>* slots, int32_t* index) {
    ++*index;
    if (slots->size() <= static_cast<size_t>(*index)) {
        slots->resize(static_cast<size_t>(*index) + 1);
    }
    TextureSlot& slot = (*slots)[static_cast<size_t>(*index)];
    if (slot.texture == 0) {
        slot.texture = CGLObjectFactory::CreateTexture();
    }
    if (slot.pbo == nullptr) {
        slot.pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
    }
    return &slot;
}

void CLumet::RenderToTextures(int32_t width, int32_t height, IGPUCombiner* combiner,
                              std::vector<TextureSlot>* slots, int32_t offX, int32_t offY,
                              float scale) {
    if (combiner == nullptr || slots == nullptr ||
        m_state.load(std::memory_order_relaxed) != LumetState::Playing) {
        return;
    }
    int32_t index = -1;
    // Item units onto the target: the target measured in item units.
    const int32_t targetW =
        TruncateSaturated(static_cast<double>(static_cast<float>(width) / scale));
    const int32_t targetH =
        TruncateSaturated(static_cast<double>(static_cast<float>(height) / scale));

    bool drawn = false;
    uint32_t w = 0;
    uint32_t h = 0;
    TextureSlot* movie = nullptr;
    {
        CAutoLock lock(&m_playerLock);
        if (m_player) {
            movie = TakeSlot(slots, &index);
            drawn = m_player->RenderToTexture(movie->texture, &w, &h, movie->pbo);
        }
    }
    if (drawn && w > 0 && h > 0 && w <= INT32_MAX && h <= INT32_MAX) {
        RECT src{};
        RECT dst{};
        {
            CAutoLock flashLock(&m_flashLock);
            ClipLayer(src, dst, static_cast<int32_t>(w), static_cast<int32_t>(h),
                      Offset(m_flash.clip, offX, offY), Offset(m_flash.pos, offX, offY));
        }
        if (!platform::IsRectEmpty(&src) && !platform::IsRectEmpty(&dst)) {
            combiner->SetDestination(&dst, targetW, targetH, 0);
            combiner->SetSource(&src, static_cast<int32_t>(w), static_cast<int32_t>(h), 0);
            combiner->DrawTexture(movie->texture, 1);
        }
    }

    CAutoLock lock(&m_textLock);
    const auto [textClip, textPos] = TextPlacement(offX, offY);
    const SIZE size = m_textRenderer ? m_textRenderer->GetSize() : SIZE{0, 0};
    {
        CAutoLock backgroundLock(&m_backgroundLock);
        if (m_backgroundOpacity != 0 && m_background && m_textRenderer && size.cx > 0 &&
            size.cy > 0) {
            RECT rect = m_backgroundSpanClip ? textClip : Placed(textPos, size.cx, size.cy);
            TextureSlot* plate = TakeSlot(slots, &index);
            int32_t pw = 0;
            int32_t ph = 0;
            POINT shift{};
            m_background->DrawToTexture(plate->texture, pw, ph, shift, plate->pbo,
                                        SaturateToInt32(int64_t{rect.right} - rect.left), size.cy,
                                        m_backgroundColor,
                                        static_cast<float>(m_backgroundOpacity) / 100.0f);
            if (pw != 0 && ph != 0) {
                rect.left = SaturateToInt32(int64_t{rect.left} + shift.x);
                rect.right = SaturateToInt32(int64_t{rect.left} + pw);
                rect.top = std::max(0, SaturateToInt32(int64_t{rect.top} + shift.y));
                rect.bottom = SaturateToInt32(int64_t{rect.top} + ph);
                combiner->SetDestination(&rect, targetW, targetH, 1);
                combiner->DrawTexture(plate->texture, 1);
            }
        }
    }
    if (m_textRenderer && size.cx != 0 && size.cy != 0) {
        EnsureTextPixels(size.cx, size.cy);
        m_textRenderer->CopyBuffer(m_textPixels.data(), static_cast<uint32_t>(m_textPixels.size()));
        TextureSlot* text = TakeSlot(slots, &index);
        if (text->pbo == nullptr) {
            return;
        }
        text->pbo->Resize(size.cx, size.cy);
        const bool ok = text->pbo->Upload(text->texture, m_textPixels.data(),
                                          static_cast<uint32_t>(m_textPixels.size()), GL_BGRA);
        if (ok) {
            RECT src{};
            RECT dst{};
            ClipLayer(src, dst, size.cx, size.cy, textClip, textPos);
            if (!platform::IsRectEmpty(&src) && !platform::IsRectEmpty(&dst)) {
                combiner->SetDestination(&dst, targetW, targetH, 0);
                combiner->SetSource(&src, size.cx, size.cy, 0);
                combiner->DrawTexture(text->texture, 1);
            }
        }
    }
}

}  // namespace lumets
