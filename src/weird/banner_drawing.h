// What the three banners share: fixed styles, the host's frame as a view,
// and saturating offsets from the host's origin.
#pragma once

#include <cstdint>
#include <string_view>

#include "lumets/frame.h"
#include "lumets/text_style.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"

namespace lumets {

class CTextRenderer;

// A default style with the given face, size, weight and first fill colour.
TextStyle BannerStyle(std::u16string_view face, int32_t fontSize, bool bold, uint32_t colour);

// The host's 24-bit bottom-up frame; one that draws nothing when the frame
// is null or a side is not positive.
lumets_frame HostFrame(uint8_t* frame, int32_t width, int32_t height);

// origin moved by (dx, dy), saturated: an origin near the 32-bit limits
// lands outside the frame instead of wrapping into it.
POINT Moved(POINT origin, int64_t dx, int64_t dy);

// Blends a text picture with its bottom-left corner at origin + (dx, dy) in
// BlendAt coordinates; centred, dx names the picture's centre column.
void BlendBannerText(CTextRenderer& text, const PictureView& frame, POINT origin, int32_t dx,
                     int32_t dy, bool centred);

}  // namespace lumets
