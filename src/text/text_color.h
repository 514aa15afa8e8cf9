// Colour of a style field: 0x00RRGGBB plus an opacity in percent.
#pragma once

#include <cstdint>

namespace lumets {

// alpha = opacity * 255 / 100 in unsigned 32-bit arithmetic, then only its low
// 8 bits survive the shift into the top byte, so 101 % gives alpha 1, not 255.
// The colour's own top byte never reaches the result.
constexpr uint32_t ArgbFromStyleColor(uint32_t color, uint32_t opacityPercent) {
    const uint32_t alpha = opacityPercent * 255u / 100u;
    return (alpha << 24) | (color & 0xFFFFFFu);
}

}  // namespace lumets
