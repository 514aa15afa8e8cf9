// COmbrelGameSubtitle: the second game banner, a label whose plate stretches
// with its one line of text. The plate is the caps image's left half, a strip
// of the middle image as wide as the text, and the caps image's right half;
// the text is centred on it. Drawn scaled and centred in a rectangle of the
// host's frame, or at its own size into an OpenGL texture.
//
// The plate is rebuilt only when its size changes (a new image or text of
// the same size keeps the old plate), and its scaled copy only when the plate
// or the scaled size changes. All buffers only grow: a banner of steady size
// costs no allocation per frame.
#pragma once

#include <memory>

#include "lumets/frame.h"
#include "lumets/host/gl_objects.h"
#include "lumets/text_style.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "lumets_common/scaled_composite.h"
#include "text/text_renderer.h"

namespace lumets {

class COmbrelGameSubtitle {
  public:
    COmbrelGameSubtitle();
    virtual ~COmbrelGameSubtitle() = default;

    COmbrelGameSubtitle(const COmbrelGameSubtitle&) = delete;
    COmbrelGameSubtitle& operator=(const COmbrelGameSubtitle&) = delete;

    // Renders text at fontSize points; the banner is ready while the last
    // text set is not empty. A null text counts as empty.
    void SetText(const char16_t* text, int32_t fontSize);
    // Each failed load keeps the picture loaded before.
    void LoadImages(const char16_t* capsPath, const char16_t* middlePath);
    // The plate and the text scaled by scale, each centred in rect (top-down
    // frame coordinates before scaling). Draws nothing when not ready, without
    // both images, into a null or empty frame, for a null rect or one with a
    // negative side, or for a scale that is not a positive number or leaves
    // an empty plate. Without a scaling context only the text is drawn.
    void Compose(const lumets_frame& frame, const RECT* rect, float scale);
    // The banner at its own size uploaded into texture through pbo (bottom-up
    // B, G, R, A); width and height receive its size. When ready but without
    // both images they receive 0 x 0; when not ready, or without a pbo or a
    // texture, they are left alone.
    void DrawToTexture(GLuint texture, int32_t* width, int32_t* height, IPBO* pbo);

    // For tests.
    const PixelBuffer& Plate() const { return m_plate; }
    uint32_t ScaleCount() const { return m_scaledPlate.ScaleCount(); }

  private:
    // Builds the plate for width x height around a text textWidth wide, unless
    // the last plate had that size. False when the size is beyond the limits.
    bool BuildPlate(int32_t width, int32_t height, int32_t textWidth);
    // The plate's width for the current text, or -1 when it cannot be built.
    int32_t PlateWidth() const;

    PixelBuffer m_plate;
    uint64_t m_plateVersion = 0;  // counts builds: names the plate for its scaled copy
    CScaledCopy m_scaledPlate;
    std::unique_ptr<CTextRenderer> m_renderer;
    bool m_ready = false;
    PixelBuffer m_capsImage;
    PixelBuffer m_middleImage;
    TextStyle m_style;
    PixelBuffer m_textureBuffer;
};

}  // namespace lumets
