// The geometry of an item's frame (lumet_frame.cpp): what of a layer shows
// inside its clip. Rectangles are left, top, right, bottom, right and bottom
// exclusive.
#pragma once

#include <cstdint>

#include "lumets/win_types.h"

namespace lumets {

// The visible part of a width x height layer at position, clipped to clip:
// dst in the frame, src in the layer's own pixels. Both are left as they are
// when nothing shows.
void ClipLayer(RECT& src, RECT& dst, int32_t width, int32_t height, const RECT& clip,
               POINT position);

}  // namespace lumets
