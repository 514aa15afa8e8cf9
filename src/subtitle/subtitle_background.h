// CSubtitleBackground: the rounded plate drawn behind a subtitle's text. One
// colour and one opacity, a margin around the text derived from the corner
// mask's size, and four corners shaped by the mask's alpha (the library's
// resource "PNG" 101, 40 x 36). The plate is rebuilt only when the text size,
// colour or opacity changes and rescaled only when it was rebuilt or the scale
// changed, with a scaling context kept while the sizes stay.
//
// Without a mask (resource missing or undecodable) the plate gets its size but
// never any pixels, and nothing is drawn or uploaded. Negative text sizes,
// texts beyond the picture limits (the largest text gets its plate, margins
// included), scaled plates beyond the limits, and scales that are not finite
// and above 1e-7 draw nothing either.
//
// No lock of its own: the owning item calls it under its background lock.
#pragma once

#include <cstdint>
#include <tuple>

#include "lumets/host/gl_objects.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_common/scaled_composite.h"

namespace lumets {

class CSubtitleBackground {
  public:
    // Loads the mask from the library's resources.
    CSubtitleBackground();
    // Uses a copy of mask instead (32 bits per pixel; anything else, or an
    // empty buffer, counts as no mask).
    explicit CSubtitleBackground(const PixelBuffer& mask);
    virtual ~CSubtitleBackground() = default;

    CSubtitleBackground(const CSubtitleBackground&) = delete;
    CSubtitleBackground& operator=(const CSubtitleBackground&) = delete;

    // colour is 0x00RRGGBB; opacity a fraction, clamped to 0..1 when applied.
    // A change marks the plate for rebuilding.
    void SetColourAndOpacity(uint32_t colour, float opacity);

    // Sizes the plate for a text of textWidth x textHeight pixels and builds it
    // if the size, colour or opacity changed. shift receives where the plate's
    // top-left corner lies relative to the text's.
    void BuildBackground(int32_t textWidth, int32_t textHeight, POINT& shift);

    // The plate at scale: the plate itself when the scale keeps its size, else
    // a scaled copy kept between calls. Its data is null when there is nothing
    // to draw; width and height are the scaled size (0 when the plate is empty).
    ConstPictureView GetScaledBackground(float scale);

    // Adds the horizontal margin to width and sets height to the text height
    // plus the vertical margin, without the minimum height. With no mask the
    // margins are 0. Saturates instead of overflowing.
    void GetBackgroundSize(int32_t& width, int32_t& height, int32_t textHeight) const;

    // The plate as last built, placed at textRect (top clamped at 0). Returns
    // out; a null textRect gives an all-zero rectangle.
    RECT* GetBackgroundRect(RECT* out, const RECT* textRect) const;

    // CPU path: builds as needed and alpha-blends the plate, scaled, into the
    // 24-bit bottom-up frame, placed at textRect (top-down, at scale 1).
    void DrawOnFrame(const PictureView& frame, const RECT* textRect, int32_t textHeight,
                     uint32_t colour, float opacity, float scale);

    // GPU path: builds as needed and uploads the plate at scale 1 into texture
    // through pbo (GL_BGRA). width and height receive the plate's size, or keep
    // the caller's values when nothing was uploaded.
    void DrawToTexture(GLuint texture, int32_t& width, int32_t& height, POINT& shift, IPBO* pbo,
                       int32_t textWidth, int32_t textHeight, uint32_t colour, float opacity);

    // For tests: how often the plate was rebuilt and rescaled, and the buffers.
    uint32_t BuildCount() const { return m_buildCount; }
    uint32_t ScaleCount() const { return m_scaled.ScaleCount(); }
    uint32_t ContextCount() const { return m_scaled.ContextCount(); }
    const PixelBuffer& Plate() const { return m_plate; }
    const PixelBuffer& Mask() const { return m_mask; }

  private:
    bool HasMask() const;
    void FillPlate(int32_t width, int32_t height);
    // The plate's colour with its opacity as alpha, 0xAARRGGBB.
    uint32_t SolidColour() const;

    POINT m_offset{0, 0};
    PixelBuffer m_mask;
    uint32_t m_color = 0xFFFFFF;
    float m_opacity = 0.0f;
    bool m_dirty = false;
    PixelBuffer m_plate;
    CScaledCopy m_scaled;
    uint32_t m_buildCount = 0;  // also the plate's version for its scaled copy
    // The runs of the picture last drawn, and which picture it was (build,
    // width, height).
    PictureRuns m_runs;
    std::tuple<uint32_t, int32_t, int32_t> m_runsOf{0, -1, -1};
};

}  // namespace lumets
