#include "text/text_renderer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "lumets_common/pixel_ops.h"
#include "lumets_common/scaled_composite.h"
#include "text/cairo_handles.h"
#include "text/font_system.h"
#include "text/outline_raster.h"
#include "text/text_color.h"
#include "text/text_layout.h"

namespace lumets {

namespace {

void SetSourceArgb(cairo_t* cr, uint32_t argb) {
    cairo_set_source_rgba(cr, ((argb >> 16) & 0xFF) / 255.0, ((argb >> 8) & 0xFF) / 255.0,
                          (argb & 0xFF) / 255.0, (argb >> 24) / 255.0);
}

void AddStop(cairo_pattern_t* pattern, double offset, uint32_t argb) {
    cairo_pattern_add_color_stop_rgba(pattern, offset, ((argb >> 16) & 0xFF) / 255.0,
                                      ((argb >> 8) & 0xFF) / 255.0, (argb & 0xFF) / 255.0,
                                      (argb >> 24) / 255.0);
}

// A linear gradient over the whole w x h bitmap whose angle is "scalable":
// the angle is taken in a square that is then stretched onto the rectangle,
// so the colour bands run through the corners at any aspect ratio. The
// direction becomes atan(w/h * tan(angle)) in the bitmap, and the gradient
// spans the rectangle's corners from the first colour to the second.
CairoPatternPtr ScalableAngleGradient(double w, double h, float angleDegrees, uint32_t argb1,
                                      uint32_t argb2) {
    double angle = std::isfinite(angleDegrees) ? std::fmod(angleDegrees, 360.0) : 0.0;
    if (angle < 0) {
        angle += 360.0;
    }
    double extra = 0.0;
    while (angle >= 90.0) {
        angle -= 180.0;
        extra += M_PI;
    }
    double radians = angle == -90.0 ? -M_PI / 2 : std::atan((w / h) * std::tan(angle * M_PI / 180));
    radians += extra;
    const double dx = std::cos(radians);
    const double dy = std::sin(radians);
    // Project the corners on the direction: the bands run from the lowest to
    // the highest projection.
    const double corners[4][2] = {{0, 0}, {w, 0}, {0, h}, {w, h}};
    double low = 0;
    double high = 0;
    for (const auto& corner : corners) {
        const double t = corner[0] * dx + corner[1] * dy;
        low = std::min(low, t);
        high = std::max(high, t);
    }
    CairoPatternPtr pattern(cairo_pattern_create_linear(low * dx, low * dy, high * dx, high * dy));
    AddStop(pattern.get(), 0.0, argb1);
    AddStop(pattern.get(), 1.0, argb2);
    cairo_pattern_set_extend(pattern.get(), CAIRO_EXTEND_REPEAT);
    return pattern;
}

// Cairo paints premultiplied colour; readers of the bitmap want straight
// alpha. Fully transparent pixels keep the colour the bitmap was cleared to.
void Unpremultiply(uint8_t* pixels, size_t count, uint32_t clearRgb) {
    for (size_t i = 0; i < count; ++i) {
        uint8_t* p = pixels + i * 4;
        const uint32_t a = p[3];
        if (a == 0) {
            p[0] = clearRgb & 0xFF;
            p[1] = (clearRgb >> 8) & 0xFF;
            p[2] = (clearRgb >> 16) & 0xFF;
        } else if (a != 255) {
            for (int c = 0; c < 3; ++c) {
                p[c] = static_cast<uint8_t>(std::min<uint32_t>(255, (p[c] * 255u + a / 2) / a));
            }
        }
    }
}

void FlipRows(uint8_t* pixels, int32_t width, int32_t height) {
    const size_t stride = static_cast<size_t>(width) * 4;
    std::vector<uint8_t> row(stride);
    for (int32_t i = 0; i < height / 2; ++i) {
        uint8_t* top = pixels + stride * i;
        uint8_t* bottom = pixels + stride * (height - 1 - i);
        std::memcpy(row.data(), top, stride);
        std::memcpy(top, bottom, stride);
        std::memcpy(bottom, row.data(), stride);
    }
}

}  // namespace

CTextRenderer::CTextRenderer() {
    // Both pictures start as nothing at all, depth included, so blending
    // before the first render is refused by the depth check.
    m_textBuffer.bitsPerPixel = 0;
    m_scaledBuffer.bitsPerPixel = 0;
}

void CTextRenderer::Render(const char16_t* text, const TextStyle* style) {
    if (text == nullptr || style == nullptr) {
        return;
    }
    m_text = NormalizeText(text, kMaxTextUnits);
    std::memcpy(static_cast<void*>(&m_style), style, sizeof(TextStyle));
    Draw();
}

void CTextRenderer::Draw() {
    auto fontLock = FontSystem::Get().Lock();
    auto owned = std::make_unique<StyledLayout>(m_text, m_style);
    StyledLayout& layout = *owned;
    RectF r;
    BitmapSize size;
    layout.Layout(&r, &size);

    // The picture's lock ranks before the font lock: the fonts are let go
    // while it is taken, and the layout is not touched meanwhile.
    fontLock.unlock();
    CAutoLock lock(&m_lock);
    fontLock.lock();
    const int32_t w = size.width;
    const int32_t h = size.height;
    ++m_version;  // scaled copies of the old picture are stale
    m_textBuffer.bitsPerPixel = 32;
    m_textBuffer.width = w;
    m_textBuffer.height = h;
    // The picture may be scaled later: room for the scaler after its last row.
    EnsureScalable(m_textBuffer, w, h);
    m_width.store(w, std::memory_order_relaxed);
    m_height.store(h, std::memory_order_relaxed);
    uint8_t* pixels = m_textBuffer.Data();
    const size_t bytes = static_cast<size_t>(w) * h * 4;

    const bool empty = m_text.empty();
    uint32_t background = m_style.backColor & 0xFFFFFFu;
    if (!empty) {
        background = ArgbFromStyleColor(m_style.backColor, m_style.backAlpha);
    }

    CairoSurfacePtr surface(
        cairo_image_surface_create_for_data(pixels, CAIRO_FORMAT_ARGB32, w, h, w * 4));
    CairoPtr cr(cairo_create(surface.get()));
    uint32_t clearRgb = 0;
    if (static_cast<float>(w) > r.width || static_cast<float>(h) > r.height) {
        // The bitmap is larger than the text's box: only the box gets the
        // background, and it is filled without anti-aliasing.
        std::memset(pixels, 0, bytes);
        cairo_set_antialias(cr.get(), CAIRO_ANTIALIAS_NONE);
        SetSourceArgb(cr.get(), background);
        if (std::isfinite(r.x) && std::isfinite(r.y)) {
            cairo_rectangle(cr.get(), r.x, r.y, r.width, r.height);
            cairo_fill(cr.get());
        }
        cairo_set_antialias(cr.get(), CAIRO_ANTIALIAS_DEFAULT);
    } else {
        cairo_set_operator(cr.get(), CAIRO_OPERATOR_SOURCE);
        SetSourceArgb(cr.get(), background);
        cairo_paint(cr.get());
        cairo_set_operator(cr.get(), CAIRO_OPERATOR_OVER);
        clearRgb = background & 0xFFFFFFu;
    }

    if (!empty && layout.HasFont()) {
        CairoPatternPtr fill = ScalableAngleGradient(
            w, h, m_style.fillAngle, ArgbFromStyleColor(m_style.fillColor1, m_style.fillAlpha1),
            ArgbFromStyleColor(m_style.fillColor2, m_style.fillAlpha2));
        if (!m_style.outline) {
            cairo_set_source(cr.get(), fill.get());
            layout.ShowIn(cr.get(), r);
        } else {
            const float penWidth = m_style.outlineWidth;
            const bool stroke = std::isfinite(penWidth) && penWidth > 0.0f;
            RectF shifted = r;
            if (std::isfinite(penWidth)) {
                shifted.x += penWidth / 2;
                shifted.y += penWidth / 2;
            }
            // All strokes go under all fills, so only the outer half of the
            // pen shows outside the glyphs. A pen wider than the em only
            // buries the text, and its cost grows with its square.
            COutlineRaster raster(w, h, stroke ? std::min<double>(penWidth, layout.EmPixels()) : 0);
            if (raster.Ready()) {
                layout.ForEachPath(cr.get(), shifted,
                                   [&raster](cairo_t* c) { raster.AddGlyphAndClear(c); });
                if (stroke) {
                    SetSourceArgb(cr.get(),
                                  ArgbFromStyleColor(m_style.outlineColor, m_style.outlineAlpha));
                    cairo_mask_surface(cr.get(), raster.Stroke(), 0, 0);
                }
                cairo_set_source(cr.get(), fill.get());
                cairo_mask_surface(cr.get(), raster.Fill(), 0, 0);
            }
            layout.DrawPictureGlyphs(cr.get(), shifted);
        }
    }
    cr.reset();
    cairo_surface_flush(surface.get());
    surface.reset();

    // Fonts and layouts are done with; the pixel work below needs only the
    // picture's own lock, so other texts need not wait for it.
    owned.reset();
    fontLock.unlock();
    Unpremultiply(pixels, static_cast<size_t>(w) * h, clearRgb);
    if (!empty) {
        FlipRows(pixels, w, h);
    }
}

SIZE CTextRenderer::GetSize() const {
    return SIZE{m_width.load(std::memory_order_relaxed), m_height.load(std::memory_order_relaxed)};
}

void CTextRenderer::CopyBuffer(void* dst, uint32_t size) {
    CAutoLock lock(&m_lock);
    if (dst == nullptr || m_textBuffer.Data() == nullptr) {
        return;
    }
    std::memcpy(dst, m_textBuffer.Data(), std::min<size_t>(size, m_textBuffer.Capacity()));
}

void CTextRenderer::BlendInto(const PictureView& frame, POINT pos) {
    CAutoLock lock(&m_lock);
    BlendAt(frame, pos, m_textBuffer.View());
}

void CTextRenderer::BlendScaledIntoFrame(const PictureView& frame, const RECT& clip, POINT pos,
                                         float scale) {
    CAutoLock lock(&m_lock);
    m_scaledReuse.source = m_version;
    lumets::BlendScaledIntoFrame(m_textBuffer, m_scaledBuffer, frame, clip, pos, scale,
                                 &m_scaleCount, &m_scaledReuse);
}

}  // namespace lumets
