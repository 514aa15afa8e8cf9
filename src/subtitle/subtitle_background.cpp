#include "subtitle/subtitle_background.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "image/image_loader.h"
#include "image/resources.h"
#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_common/scaled_composite.h"

namespace lumets {
namespace {

// The margins are fractions of the mask's size, computed in float exactly as
// they always were (40 x 36 gives 52, 26, 7 and 3).
int32_t MaskFraction(int32_t size, float fraction) {
    return static_cast<int32_t>(static_cast<float>(size) * fraction);
}

}  // namespace

CSubtitleBackground::CSubtitleBackground() {
    LoadImageResource(m_mask, u"Lumets.dll", kMaskResourceId, u"PNG");
}

CSubtitleBackground::CSubtitleBackground(const PixelBuffer& mask) {
    const ConstPictureView source = mask.View();
    if (source.data != nullptr && source.bitsPerPixel == 32 &&
        PictureSizeAllowed(source.width, source.height)) {
        m_mask.Ensure(source.width, source.height, 32);
        std::memcpy(m_mask.Data(), source.data, source.strideBytes * source.height);
        m_mask.width = source.width;
        m_mask.height = source.height;
    }
}

bool CSubtitleBackground::HasMask() const {
    // Only the alpha bytes are read, so a mask without them is no mask.
    const ConstPictureView mask = m_mask.View();
    return mask.data != nullptr && mask.width > 0 && mask.height > 0 && mask.bitsPerPixel == 32;
}

void CSubtitleBackground::SetColourAndOpacity(uint32_t colour, float opacity) {
    if (colour != m_color) {
        m_dirty = true;
        m_color = colour;
    }
    if (std::fabs(opacity - m_opacity) > 1e-7f) {
        m_dirty = true;
        m_opacity = opacity;
    }
}

void CSubtitleBackground::BuildBackground(int32_t textWidth, int32_t textHeight, POINT& shift) {
    const int32_t maskWidth = m_mask.width;
    const int32_t maskHeight = m_mask.height;
    const int64_t width = int64_t{MaskFraction(maskWidth, 1.3f)} + textWidth;
    int64_t height = int64_t{MaskFraction(maskHeight, 0.2f)} + textHeight;
    int64_t shiftY = -MaskFraction(maskHeight, 0.1f);
    // Never less tall than the mask; the added rows go half above the text.
    if (height < int64_t{maskHeight}) {
        shiftY -= (int64_t{maskHeight} - height) / 2;
        height = maskHeight;
    }
    shift.x = -MaskFraction(maskWidth, 0.65f);
    shift.y = SaturateToInt32(shiftY);
    m_offset = shift;

    // The limits apply to the text, so the largest text still gets its plate
    // with the margins around it.
    if (textWidth < 0 || textHeight < 0 || textWidth > kMaxPictureSide ||
        textHeight > kMaxPictureSide || int64_t{textWidth} * textHeight > kMaxPicturePixels) {
        // Nothing sensible to draw: an empty plate draws and uploads nothing.
        // The next valid size differs from 0 x 0 and so rebuilds.
        m_plate.width = 0;
        m_plate.height = 0;
        return;
    }
    if (width == m_plate.width && height == m_plate.height && !m_dirty) {
        return;
    }
    m_dirty = false;
    ++m_buildCount;
    const int32_t w = static_cast<int32_t>(width);
    const int32_t h = static_cast<int32_t>(height);
    if (HasMask()) {
        // Without a mask the plate is never given memory, so no unwritten
        // pixel can ever be drawn or uploaded.
        EnsureScalable(m_plate, w, h);
        FillPlate(w, h);
    }
    m_plate.width = w;
    m_plate.height = h;
    m_plate.bitsPerPixel = 32;
}

uint32_t CSubtitleBackground::SolidColour() const {
    const float scaledOpacity = m_opacity * 255.0f;
    uint32_t alpha = 0;
    if (scaledOpacity >= 255.0f) {
        alpha = 255;
    } else if (scaledOpacity > 0.0f) {
        alpha = static_cast<uint32_t>(scaledOpacity);
    }
    return (m_color & 0xFFFFFF) | alpha << 24;
}

void CSubtitleBackground::FillPlate(int32_t width, int32_t height) {
    const uint32_t colour = SolidColour();
    const uint32_t alpha = colour >> 24;
    uint8_t solid[4];
    std::memcpy(solid, &colour, 4);
    uint8_t* const plate = m_plate.Data();
    const uint8_t* const mask = m_mask.Data();
    const size_t stride = size_t(width) * 4;
    for (int32_t x = 0; x < width; ++x) {
        std::memcpy(plate + size_t(x) * 4, solid, 4);
    }
    for (int32_t y = 1; y < height; ++y) {
        std::memcpy(plate + stride * y, plate, stride);
    }

    // Corner zones, rows in memory order (row 0 is the bottom). The bottom
    // zones take rows 0..hh, the top ones rows above height - hh: with the
    // plate at least as tall as the mask they never overlap. The right zones
    // need x >= hw as well, so a narrow plate gives its columns to the left.
    const int64_t maskWidth = m_mask.width;
    const int64_t maskHeight = m_mask.height;
    const int64_t hw = maskWidth / 2;
    const int64_t hh = maskHeight / 2;
    const int64_t w = width;
    const int64_t h = height;
    for (int64_t y = 0; y < h; ++y) {
        int64_t maskRow;
        if (y <= hh) {
            maskRow = y;
        } else if (y > h - hh) {
            maskRow = y - (h - maskHeight);
        } else {
            continue;
        }
        const uint8_t* maskAlpha = mask + maskRow * maskWidth * 4 + 3;
        uint8_t* plateAlpha = plate + y * w * 4 + 3;
        for (int64_t x = 0; x < w; ++x) {
            int64_t maskColumn;
            if (x < hw) {
                maskColumn = x;
            } else if (x > w - hw) {
                maskColumn = x - (w - maskWidth);
            } else {
                x = w - hw;  // skip the solid middle of the row
                continue;
            }
            plateAlpha[x * 4] = static_cast<uint8_t>(alpha * maskAlpha[maskColumn * 4] / 255);
        }
    }
}

ConstPictureView CSubtitleBackground::GetScaledBackground(float scale) {
    const ConstPictureView plate = std::as_const(m_plate).View();
    if (plate.data == nullptr || plate.width == 0 || plate.height == 0 || !(scale > 1e-7f)) {
        return {};
    }
    int32_t w = 0;
    int32_t h = 0;
    if (!TruncateToInt32(static_cast<float>(plate.width) * scale, w) ||
        !TruncateToInt32(static_cast<float>(plate.height) * scale, h)) {
        return {};
    }
    if (w == plate.width && h == plate.height) {
        return plate;
    }
    const ConstPictureView scaled = m_scaled.Get(m_plate, m_buildCount, w, h);
    return scaled.data != nullptr ? scaled : PackedPicture<const uint8_t>(nullptr, w, h, 32);
}

void CSubtitleBackground::GetBackgroundSize(int32_t& width, int32_t& height,
                                            int32_t textHeight) const {
    width = SaturateToInt32(int64_t{width} + MaskFraction(m_mask.width, 1.3f));
    height = SaturateToInt32(int64_t{textHeight} + MaskFraction(m_mask.height, 0.2f));
}

RECT* CSubtitleBackground::GetBackgroundRect(RECT* out, const RECT* textRect) const {
    if (out == nullptr) {
        return nullptr;
    }
    if (textRect == nullptr) {
        *out = RECT{0, 0, 0, 0};
        return out;
    }
    out->left = SaturateToInt32(int64_t{textRect->left} + m_offset.x);
    out->right = SaturateToInt32(int64_t{out->left} + m_plate.width);
    const int32_t top = SaturateToInt32(int64_t{textRect->top} + m_offset.y);
    out->top = top < 0 ? 0 : top;
    out->bottom = SaturateToInt32(int64_t{out->top} + m_plate.height);
    return out;
}

void CSubtitleBackground::DrawOnFrame(const PictureView& frame, const RECT* textRect,
                                      int32_t textHeight, uint32_t colour, float opacity,
                                      float scale) {
    if (textRect == nullptr) {
        return;
    }
    SetColourAndOpacity(colour, opacity);
    const int64_t textWidth = int64_t{textRect->right} - textRect->left;
    POINT shift{0, 0};
    // A width that does not fit is as unusable as a negative one.
    BuildBackground(
        textWidth > std::numeric_limits<int32_t>::max() ? -1 : SaturateToInt32(textWidth),
        textHeight, shift);

    const ConstPictureView plate = GetScaledBackground(scale);
    if (plate.data == nullptr || plate.width <= 0 || plate.height <= 0 || frame.data == nullptr ||
        frame.width <= 0 || frame.height <= 0) {
        return;
    }
    int32_t x = 0;
    int32_t top = 0;
    if (!TruncateToInt32(
            static_cast<float>(textRect->left) * scale + static_cast<float>(shift.x) * scale, x) ||
        !TruncateToInt32(
            static_cast<float>(textRect->top) * scale + static_cast<float>(shift.y) * scale, top)) {
        return;
    }
    // The frame is stored bottom-up: the plate's lowest row lands on this row.
    const int64_t y = int64_t{frame.height} - top - plate.height;
    if (y < std::numeric_limits<int32_t>::min() || y > std::numeric_limits<int32_t>::max()) {
        return;
    }
    // The middle is one colour: blended as that colour, only the rounded
    // ends and edges are read, and the corners outside them skipped.
    if (const auto of = std::make_tuple(m_buildCount, plate.width, plate.height); of != m_runsOf) {
        m_runs = FindRuns(plate, SolidColour());
        m_runsOf = of;
    }
    BlendRunsAt(frame, POINT{x, static_cast<int32_t>(y)}, plate, m_runs);
}

void CSubtitleBackground::DrawToTexture(GLuint texture, int32_t& width, int32_t& height,
                                        POINT& shift, IPBO* pbo, int32_t textWidth,
                                        int32_t textHeight, uint32_t colour, float opacity) {
    SetColourAndOpacity(colour, opacity);
    BuildBackground(textWidth, textHeight, shift);
    const PictureView plate = m_plate.View();
    if (pbo == nullptr || plate.data == nullptr || plate.width == 0 || plate.height == 0) {
        return;
    }
    width = plate.width;
    height = plate.height;
    pbo->Resize(width, height);
    pbo->Upload(texture, plate.data, static_cast<uint32_t>(m_plate.Capacity()), GL_BGRA);
}

}  // namespace lumets
