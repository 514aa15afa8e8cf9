// CTavrinLinkMicSubtitle: the link-mic banner. Two images and six texts in a
// fixed arrangement, placed at the host's origin (the banner's bottom-left
// corner, in BlendAt coordinates). The texts are rendered when they are set;
// a frame only blends the prepared pictures.
#pragma once

#include <array>
#include <memory>

#include "lumets/frame.h"
#include "lumets/text_style.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "text/text_renderer.h"

namespace lumets {

class CTavrinLinkMicSubtitle {
  public:
    CTavrinLinkMicSubtitle();
    virtual ~CTavrinLinkMicSubtitle() = default;

    CTavrinLinkMicSubtitle(const CTavrinLinkMicSubtitle&) = delete;
    CTavrinLinkMicSubtitle& operator=(const CTavrinLinkMicSubtitle&) = delete;

    // Renders the six texts (a null one keeps its previous picture) and makes
    // the banner ready for good.
    void SetTexts(const char16_t* text1, const char16_t* text2, const char16_t* text3,
                  const char16_t* text4, const char16_t* text5, const char16_t* text6);
    // Each failed load keeps the picture loaded before.
    void LoadImages(const char16_t* image1Path, const char16_t* image2Path);
    // Draws nothing until ready with both images, for a negative origin
    // coordinate or side, or into a null frame. Allocates nothing.
    void Compose(const lumets_frame& frame, const POINT* origin);

  private:
    std::array<std::unique_ptr<CTextRenderer>, 6> m_renderers;
    bool m_ready = false;
    std::array<TextStyle, 4> m_styles;
    PixelBuffer m_image1;
    PixelBuffer m_image2;
};

}  // namespace lumets
