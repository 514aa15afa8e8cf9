#include "weird/ombrel_game_subtitle.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "image/image_loader.h"
#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"
#include "weird/banner_drawing.h"

namespace lumets {
namespace {

// The unsigned halving the plate's geometry is defined with.
int32_t Half(int64_t value) {
    return static_cast<int32_t>(static_cast<uint32_t>(value) >> 1);
}

}  // namespace

COmbrelGameSubtitle::COmbrelGameSubtitle()
    : m_style(BannerStyle(u"微软雅黑", 16, false, 0xDFF9FF)) {
    m_style.fillColor2 = 0xDFF9FF;
}

void COmbrelGameSubtitle::SetText(const char16_t* text, int32_t fontSize) {
    if (!m_renderer) {
        m_renderer = std::make_unique<CTextRenderer>();
    }
    m_style.fontSize = fontSize;
    m_renderer->Render(text, &m_style);
    m_ready = text != nullptr && text[0] != u'\0';
}

void COmbrelGameSubtitle::LoadImages(const char16_t* capsPath, const char16_t* middlePath) {
    LoadImageFile(m_capsImage, capsPath);
    LoadImageFile(m_middleImage, middlePath);
}

int32_t COmbrelGameSubtitle::PlateWidth() const {
    const int64_t width = int64_t{m_capsImage.width} + m_renderer->GetSize().cx;
    return PicturePixelsAllowed(width, m_capsImage.height) ? static_cast<int32_t>(width) : -1;
}

bool COmbrelGameSubtitle::BuildPlate(int32_t width, int32_t height, int32_t textWidth) {
    if (width == m_plate.width && height == m_plate.height) {
        return true;
    }
    if (!PicturePixelsAllowed(width, height)) {
        return false;
    }
    // Pixels no piece covers keep what the block held; a new block starts
    // transparent, so no never-written byte can ever show.
    const size_t capacity = m_plate.Capacity();
    EnsureScalable(m_plate, width, height);
    if (m_plate.Capacity() != capacity) {
        std::memset(m_plate.Data(), 0, m_plate.Capacity());
    }
    m_plate.width = width;
    m_plate.height = height;
    m_plate.bitsPerPixel = 32;
    ++m_plateVersion;

    const int32_t a = m_capsImage.width;
    const int32_t c = m_capsImage.height;
    const int32_t top = height / 2 - Half(c);
    const int32_t bottom = top + c;
    const int32_t left = width / 2 - Half(int64_t{a} + textWidth);
    const int32_t right = width / 2 + textWidth / 2;
    const int32_t halfCaps = Half(a);
    const PictureView plate = m_plate.View();
    // CopyRectPixels gives 24-bit images alpha 255.
    CopyRectPixels(plate, RECT{left, top, left + halfCaps, bottom}, m_capsImage.View(),
                   RECT{0, 0, halfCaps, c});
    CopyRectPixels(plate, RECT{right, top, right + halfCaps, bottom}, m_capsImage.View(),
                   RECT{halfCaps, 0, a, c});
    CopyRectPixels(plate, RECT{left + halfCaps, top, right, bottom}, m_middleImage.View(),
                   RECT{0, 0, right - (left + halfCaps), m_middleImage.height});
    return true;
}

void COmbrelGameSubtitle::DrawToTexture(GLuint texture, int32_t* width, int32_t* height,
                                        IPBO* pbo) {
    if (!m_ready || pbo == nullptr || texture == 0 || width == nullptr || height == nullptr) {
        return;
    }
    if (m_capsImage.Data() == nullptr || m_middleImage.Data() == nullptr) {
        *width = 0;
        *height = 0;
        return;
    }
    if (!m_renderer) {
        return;
    }
    const SIZE text = m_renderer->GetSize();
    const int32_t plateWidth = PlateWidth();
    const int32_t plateHeight = m_capsImage.height;
    if (plateWidth < 0 || !BuildPlate(plateWidth, plateHeight, text.cx)) {
        return;
    }
    *width = plateWidth;
    *height = plateHeight;
    m_textureBuffer.Ensure(plateWidth, plateHeight, 32);
    m_textureBuffer.width = plateWidth;
    m_textureBuffer.height = plateHeight;
    m_textureBuffer.bitsPerPixel = 32;
    std::memcpy(m_textureBuffer.Data(), m_plate.Data(),
                size_t{RowStride(plateWidth, 32)} * plateHeight);
    m_renderer->BlendInto(m_textureBuffer.View(),
                          POINT{plateWidth / 2 - text.cx / 2, plateHeight / 2 - text.cy / 2});
    pbo->Resize(plateWidth, plateHeight);
    const size_t capacity = m_textureBuffer.Capacity();
    pbo->Upload(texture, m_textureBuffer.Data(),
                static_cast<uint32_t>(std::min<size_t>(capacity, UINT32_MAX)), GL_BGRA);
}

void COmbrelGameSubtitle::Compose(const lumets_frame& frame, const RECT* rect, float scale) {
    const PictureView view = FrameView(&frame);
    if (!m_ready || view.data == nullptr || rect == nullptr || rect->left < 0 || rect->top < 0 ||
        rect->right < 0 || rect->bottom < 0 || m_capsImage.Data() == nullptr ||
        m_middleImage.Data() == nullptr || !m_renderer || !std::isfinite(scale) ||
        !(scale > 0.0f)) {
        return;
    }
    const SIZE text = m_renderer->GetSize();
    const int32_t plateWidth = PlateWidth();
    const int32_t plateHeight = m_capsImage.height;
    int32_t sw = 0;
    int32_t sh = 0;
    if (plateWidth < 0 || !TruncateToInt32(static_cast<float>(plateWidth) * scale, sw) ||
        !TruncateToInt32(static_cast<float>(plateHeight) * scale, sh) ||
        !PicturePixelsAllowed(sw, sh) || !BuildPlate(plateWidth, plateHeight, text.cx)) {
        return;
    }
    const ConstPictureView plate = sw == plateWidth && sh == plateHeight
                                       ? std::as_const(m_plate).View()
                                       : m_scaledPlate.Get(m_plate, m_plateVersion, sw, sh);
    // Every side of the rectangle is >= 0, so these differences cannot overflow.
    const int32_t halfWidth = (rect->right - rect->left) / 2;
    const int32_t halfHeight = (rect->bottom - rect->top) / 2;
    if (plate.data != nullptr) {
        const int64_t x = int64_t{halfWidth} - plate.width / 2 + rect->left;
        const int64_t top = int64_t{halfHeight} - plate.height / 2 + rect->top;
        BlendAt(view, POINT{SaturateToInt32(x), SaturateToInt32(view.height - top - plate.height)},
                plate);
    }
    const float tx = static_cast<float>(halfWidth) - static_cast<float>(text.cx) * scale / 2.0f +
                     static_cast<float>(rect->left);
    const float ty = static_cast<float>(halfHeight) - static_cast<float>(text.cy) * scale / 2.0f +
                     static_cast<float>(rect->top);
    const auto unscaled = [scale](float value) { return TruncateSaturated(value / scale); };
    const RECT clip{
        unscaled(static_cast<float>(rect->left)), unscaled(static_cast<float>(rect->top)),
        unscaled(static_cast<float>(rect->right)), unscaled(static_cast<float>(rect->bottom))};
    m_renderer->BlendScaledIntoFrame(view, clip, POINT{unscaled(tx), unscaled(ty)}, scale);
}

}  // namespace lumets
