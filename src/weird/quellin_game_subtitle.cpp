#include "weird/quellin_game_subtitle.h"

#include "image/image_loader.h"
#include "lumets_common/pixel_ops.h"
#include "weird/banner_drawing.h"

namespace lumets {

CQuellinGameSubtitle::CQuellinGameSubtitle()
    : m_styles{BannerStyle(u"黑体", 16, false, 0x89E3F7),
               BannerStyle(u"黑体", 16, false, 0xDFF9FF)} {}

void CQuellinGameSubtitle::SetTexts(const char16_t* text1, const char16_t* text2, int32_t) {
    const char16_t* const texts[2] = {text1, text2};
    for (size_t i = 0; i < 2; ++i) {
        if (!m_renderers[i]) {
            m_renderers[i] = std::make_unique<CTextRenderer>();
        }
    }
    for (size_t i = 0; i < 2; ++i) {
        m_renderers[i]->Render(texts[i], &m_styles[i]);
    }
    m_ready = true;
}

void CQuellinGameSubtitle::LoadPlate(const char16_t* platePath) {
    LoadImageFile(m_plateImage, platePath);
}

void CQuellinGameSubtitle::Compose(const lumets_frame& frame, const POINT* origin) {
    if (!m_ready || origin == nullptr || origin->x < 0 || origin->y < 0 ||
        m_plateImage.Data() == nullptr) {
        return;
    }
    const PictureView view = FrameView(&frame);
    if (view.data == nullptr) {
        return;
    }
    BlendAt(view, *origin, m_plateImage.View());
    if (m_renderers[0]) {
        BlendBannerText(*m_renderers[0], view, *origin, 104, 23, true);
    }
    if (m_renderers[1]) {
        BlendBannerText(*m_renderers[1], view, *origin, 36, 65, false);
    }
}

}  // namespace lumets
