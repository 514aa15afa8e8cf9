#include "subtitle/subtitle_background.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "image/image_loader.h"
#include "image/resources.h"
#include "image/scaled_composite.h"

namespace lumets {
namespace {

// Plates and their scaled copies obey the same limits as loaded images.
constexpr int64_t kMaxPlateSide = kMaxImageSide;
constexpr int64_t kMaxPlatePixels = kMaxImagePixels;

bool PlateSizeAllowed(int64_t width, int64_t height) {
    return width > 0 && height > 0 && width <= kMaxPlateSide && height <= kMaxPlateSide &&
           width * height <= kMaxPlatePixels;
}

int32_t Saturate(int64_t value) {
    if (value > std::numeric_limits<int32_t>::max()) {
        return std::numeric_limits<int32_t>::max();
    }
    if (value < std::numeric_limits<int32_t>::min()) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(value);
}

// Truncation toward zero of a float known to be a pixel coordinate; false when
// it is not finite or does not fit.
bool TruncateToInt32(float value, int32_t& out) {
    if (!(value > -2147483648.0f && value < 2147483648.0f)) {
        return false;
    }
    out = static_cast<int32_t>(value);
    return true;
}

void EnsurePlateBuffer(PixelBuffer& buffer, uint32_t width, uint32_t height) {
    EnsureScalableBuffer(&buffer.data, &buffer.capacity, width, height);
}

// The margins are fractions of the mask's size, computed in float exactly as
// they always were (40 x 36 gives 52, 26, 7 and 3).
int32_t MaskFraction(uint32_t size, float fraction) {
    return static_cast<int32_t>(static_cast<float>(size) * fraction);
}

}  // namespace

CSubtitleBackground::CSubtitleBackground() {
    LoadImageResource(m_mask, u"Lumets.dll", kMaskResourceId, u"PNG");
}

CSubtitleBackground::CSubtitleBackground(const PixelBuffer& mask) {
    if (mask.data != nullptr && mask.bitsPerPixel == 32 &&
        PlateSizeAllowed(mask.width, mask.height)) {
        EnsureBuffer(&m_mask.data, &m_mask.capacity, mask.width, mask.height, 32);
        std::memcpy(m_mask.data, mask.data, size_t{mask.width} * mask.height * 4);
        m_mask.width = mask.width;
        m_mask.height = mask.height;
    }
}

CSubtitleBackground::~CSubtitleBackground() {
    delete[] m_mask.data;
    delete[] m_plate.data;
    delete[] m_scaledPlate.data;
}

bool CSubtitleBackground::HasMask() const {
    // Only the alpha bytes are read, so a mask without them is no mask.
    return m_mask.data != nullptr && m_mask.width > 0 && m_mask.height > 0 &&
           m_mask.bitsPerPixel == 32;
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
    const uint32_t maskWidth = m_mask.width;
    const uint32_t maskHeight = m_mask.height;
    const int64_t width = int64_t{MaskFraction(maskWidth, 1.3f)} + textWidth;
    int64_t height = int64_t{MaskFraction(maskHeight, 0.2f)} + textHeight;
    int64_t shiftY = -MaskFraction(maskHeight, 0.1f);
    // Never less tall than the mask; the added rows go half above the text.
    if (height < int64_t{maskHeight}) {
        shiftY -= (int64_t{maskHeight} - height) / 2;
        height = maskHeight;
    }
    shift.x = -MaskFraction(maskWidth, 0.65f);
    shift.y = Saturate(shiftY);
    m_offset = shift;

    if (textWidth < 0 || textHeight < 0 || !PlateSizeAllowed(width, height)) {
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
    m_scaledStale = true;
    ++m_buildCount;
    const uint32_t w = static_cast<uint32_t>(width);
    const uint32_t h = static_cast<uint32_t>(height);
    if (HasMask()) {
        // Without a mask the plate is never given memory, so no unwritten
        // pixel can ever be drawn or uploaded.
        EnsurePlateBuffer(m_plate, w, h);
        FillPlate(w, h);
    }
    m_plate.width = w;
    m_plate.height = h;
    m_plate.bitsPerPixel = 32;
}

void CSubtitleBackground::FillPlate(uint32_t width, uint32_t height) {
    const float scaledOpacity = m_opacity * 255.0f;
    uint32_t alpha = 0;
    if (scaledOpacity >= 255.0f) {
        alpha = 255;
    } else if (scaledOpacity > 0.0f) {
        alpha = static_cast<uint32_t>(scaledOpacity);
    }
    const uint8_t solid[4] = {
        static_cast<uint8_t>(m_color & 0xFF), static_cast<uint8_t>((m_color >> 8) & 0xFF),
        static_cast<uint8_t>((m_color >> 16) & 0xFF), static_cast<uint8_t>(alpha)};
    const size_t stride = size_t{width} * 4;
    uint8_t* row0 = m_plate.data;
    for (uint32_t x = 0; x < width; ++x) {
        std::memcpy(row0 + size_t{x} * 4, solid, 4);
    }
    for (uint32_t y = 1; y < height; ++y) {
        std::memcpy(m_plate.data + stride * y, row0, stride);
    }

    // Corner zones, rows in memory order (row 0 is the bottom). The bottom
    // zones take rows 0..hh, the top ones rows above height - hh: with the
    // plate at least as tall as the mask they never overlap. The right zones
    // need x >= hw as well, so a narrow plate gives its columns to the left.
    const uint32_t maskWidth = m_mask.width;
    const uint32_t maskHeight = m_mask.height;
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
        const uint8_t* maskAlpha = m_mask.data + maskRow * maskWidth * 4 + 3;
        uint8_t* plateAlpha = m_plate.data + y * w * 4 + 3;
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

void CSubtitleBackground::GetScaledBackground(const uint8_t*& data, int32_t& width, int32_t& height,
                                              float scale) {
    data = nullptr;
    width = 0;
    height = 0;
    if (m_plate.data == nullptr || m_plate.width == 0 || m_plate.height == 0 || !(scale > 1e-7f)) {
        return;
    }
    int32_t w = 0;
    int32_t h = 0;
    if (!TruncateToInt32(static_cast<float>(m_plate.width) * scale, w) ||
        !TruncateToInt32(static_cast<float>(m_plate.height) * scale, h)) {
        return;
    }
    width = w;
    height = h;
    if (static_cast<uint32_t>(w) == m_plate.width && static_cast<uint32_t>(h) == m_plate.height) {
        data = m_plate.data;
        return;
    }
    if (static_cast<uint32_t>(w) == m_scaledPlate.width &&
        static_cast<uint32_t>(h) == m_scaledPlate.height && !m_scaledStale) {
        data = m_scaledPlate.data;
        return;
    }
    if (w < 1 || h < 1 || !PlateSizeAllowed(w, h)) {
        return;
    }
    m_scaledStale = false;
    ++m_scaleCount;
    EnsurePlateBuffer(m_scaledPlate, static_cast<uint32_t>(w), static_cast<uint32_t>(h));
    m_scaledPlate.width = w;
    m_scaledPlate.height = h;
    m_scaledPlate.bitsPerPixel = 32;

    if (!ResizePicture32(m_plate.data, m_plate.width, m_plate.height, m_scaledPlate.data,
                         static_cast<uint32_t>(w), static_cast<uint32_t>(h))) {
        // No picture this frame; try again on the next.
        m_scaledStale = true;
        return;
    }
    data = m_scaledPlate.data;
}

void CSubtitleBackground::GetBackgroundSize(int32_t& width, int32_t& height,
                                            int32_t textHeight) const {
    width = Saturate(int64_t{width} + MaskFraction(m_mask.width, 1.3f));
    height = Saturate(int64_t{textHeight} + MaskFraction(m_mask.height, 0.2f));
}

RECT* CSubtitleBackground::GetBackgroundRect(RECT* out, const RECT* textRect) const {
    if (out == nullptr) {
        return nullptr;
    }
    if (textRect == nullptr) {
        *out = RECT{0, 0, 0, 0};
        return out;
    }
    out->left = Saturate(int64_t{textRect->left} + m_offset.x);
    out->right = Saturate(int64_t{out->left} + m_plate.width);
    const int32_t top = Saturate(int64_t{textRect->top} + m_offset.y);
    out->top = top < 0 ? 0 : top;
    out->bottom = Saturate(int64_t{out->top} + m_plate.height);
    return out;
}

void CSubtitleBackground::DrawOnFrame(uint8_t* frame, int32_t frameWidth, int32_t frameHeight,
                                      const RECT* textRect, int32_t textHeight, uint32_t colour,
                                      float opacity, float scale) {
    if (textRect == nullptr) {
        return;
    }
    SetColourAndOpacity(colour, opacity);
    const int64_t textWidth = int64_t{textRect->right} - textRect->left;
    POINT shift{0, 0};
    // A width that does not fit is as unusable as a negative one.
    BuildBackground(textWidth > std::numeric_limits<int32_t>::max() ? -1 : Saturate(textWidth),
                    textHeight, shift);

    const uint8_t* data = nullptr;
    int32_t w = 0;
    int32_t h = 0;
    GetScaledBackground(data, w, h, scale);
    if (data == nullptr || w <= 0 || h <= 0 || frame == nullptr || frameWidth <= 0 ||
        frameHeight <= 0) {
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
    const int64_t y = int64_t{frameHeight} - top - h;
    if (y < std::numeric_limits<int32_t>::min() || y > std::numeric_limits<int32_t>::max()) {
        return;
    }
    BlendAt(frame, frameWidth, frameHeight, 24, POINT{x, static_cast<int32_t>(y)}, data, w, h, 32);
}

void CSubtitleBackground::DrawToTexture(GLuint texture, int32_t& width, int32_t& height,
                                        POINT& shift, IPBO* pbo, int32_t textWidth,
                                        int32_t textHeight, uint32_t colour, float opacity) {
    SetColourAndOpacity(colour, opacity);
    BuildBackground(textWidth, textHeight, shift);
    if (pbo == nullptr || m_plate.data == nullptr || m_plate.width == 0 || m_plate.height == 0) {
        return;
    }
    width = static_cast<int32_t>(m_plate.width);
    height = static_cast<int32_t>(m_plate.height);
    pbo->Resize(width, height);
    pbo->Upload(texture, m_plate.data, m_plate.capacity, GL_BGRA);
}

}  // namespace lumets
