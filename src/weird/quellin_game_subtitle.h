// CQuellinGameSubtitle: the first game banner. A plate image with two texts
// on it, placed at the host's origin (the plate's bottom-left corner, in
// BlendAt coordinates): text 1 centred on a fixed column, text 2 starting at
// one.
#pragma once

#include <array>
#include <memory>

#include "lumets/frame.h"
#include "lumets/text_style.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "text/text_renderer.h"

namespace lumets {

class CQuellinGameSubtitle {
  public:
    CQuellinGameSubtitle();
    virtual ~CQuellinGameSubtitle() = default;

    CQuellinGameSubtitle(const CQuellinGameSubtitle&) = delete;
    CQuellinGameSubtitle& operator=(const CQuellinGameSubtitle&) = delete;

    // reserved is not read.
    void SetTexts(const char16_t* text1, const char16_t* text2, int32_t reserved);
    // A failed load keeps the plate loaded before.
    void LoadPlate(const char16_t* platePath);
    // Draws nothing until ready with a plate, for a negative origin coordinate
    // or side, or into a null frame. Allocates nothing.
    void Compose(const lumets_frame& frame, const POINT* origin);

  private:
    // Destroyed last first: renderer 2, then renderer 1.
    std::array<std::unique_ptr<CTextRenderer>, 2> m_renderers;
    std::array<TextStyle, 2> m_styles;
    PixelBuffer m_plateImage;
    bool m_ready = false;
};

}  // namespace lumets
