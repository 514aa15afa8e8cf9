#include "weird/banner_drawing.h"

#include <algorithm>

#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"
#include "text/text_renderer.h"

namespace lumets {

TextStyle BannerStyle(std::u16string_view face, int32_t fontSize, bool bold, uint32_t colour) {
    TextStyle style;
    const size_t units = std::min(face.size(), std::size(style.faceName) - 1);
    std::copy_n(face.begin(), units, style.faceName);
    style.fontSize = fontSize;
    style.bold = bold ? 1 : 0;
    style.fillColor1 = colour;
    return style;
}

lumets_frame HostFrame(uint8_t* frame, int32_t width, int32_t height) {
    if (width <= 0 || height <= 0) {
        return lumets_frame{};
    }
    return PackedFrame24(frame, static_cast<uint32_t>(width), static_cast<uint32_t>(height));
}

POINT Moved(POINT origin, int64_t dx, int64_t dy) {
    return POINT{SaturateToInt32(origin.x + dx), SaturateToInt32(origin.y + dy)};
}

void BlendBannerText(CTextRenderer& text, const PictureView& frame, POINT origin, int32_t dx,
                     int32_t dy, bool centred) {
    const int32_t halfWidth = centred ? text.GetSize().cx / 2 : 0;
    text.BlendInto(frame, Moved(origin, int64_t{dx} - halfWidth, dy));
}

}  // namespace lumets
