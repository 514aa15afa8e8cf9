#include "weird/tavrin_link_mic_subtitle.h"

#include "image/image_loader.h"
#include "lumets_common/pixel_ops.h"
#include "weird/banner_drawing.h"

namespace lumets {
namespace {

constexpr char16_t kFace[] = u"微软雅黑";

// Per text: its style, the column of its centre and its row, from the origin.
struct TextPlace {
    size_t style;
    int32_t column;
    int32_t row;
};
constexpr TextPlace kPlaces[6] = {{0, 118, 26}, {0, 154, 26}, {1, 293, 5},
                                  {2, 460, 5},  {3, 287, 25}, {3, 467, 25}};

}  // namespace

CTavrinLinkMicSubtitle::CTavrinLinkMicSubtitle()
    : m_styles{BannerStyle(kFace, 14, true, 0x3A3A3A), BannerStyle(kFace, 14, true, 0x3B85FF),
               BannerStyle(kFace, 14, true, 0xFFBB2A), BannerStyle(kFace, 14, true, 0xFFFFFF)} {
    m_styles[3].backColor = 0x000000;
}

void CTavrinLinkMicSubtitle::SetTexts(const char16_t* text1, const char16_t* text2,
                                      const char16_t* text3, const char16_t* text4,
                                      const char16_t* text5, const char16_t* text6) {
    const char16_t* const texts[6] = {text1, text2, text3, text4, text5, text6};
    for (size_t i = 0; i < 6; ++i) {
        if (!m_renderers[i]) {
            m_renderers[i] = std::make_unique<CTextRenderer>();
        }
        m_renderers[i]->Render(texts[i], &m_styles[kPlaces[i].style]);
    }
    m_ready = true;
}

void CTavrinLinkMicSubtitle::LoadImages(const char16_t* image1Path, const char16_t* image2Path) {
    LoadImageFile(m_image1, image1Path);
    LoadImageFile(m_image2, image2Path);
}

void CTavrinLinkMicSubtitle::Compose(const lumets_frame& frame, const POINT* origin) {
    if (!m_ready || origin == nullptr || origin->x < 0 || origin->y < 0 ||
        m_image1.Data() == nullptr || m_image2.Data() == nullptr) {
        return;
    }
    const PictureView view = FrameView(&frame);
    if (view.data == nullptr) {
        return;
    }
    BlendAt(view, Moved(*origin, 4, 22), m_image1.View());
    BlendAt(view, Moved(*origin, 216, 16), m_image2.View());
    for (size_t i = 0; i < 6; ++i) {
        BlendBannerText(*m_renderers[i], view, *origin, kPlaces[i].column, kPlaces[i].row, true);
    }
}

}  // namespace lumets
