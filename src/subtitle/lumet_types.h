// The item's own small types: its play state, and the scroll direction as the
// logic sees it once a record's code has been read.
#pragma once

#include <cstdint>

#include "lumets/records.h"

namespace lumets {

enum class LumetState : int32_t {
    Idle = 0,
    Starting = 1,
    Playing = 2,
};

// A record's nDirection as the item's rules read it, converted once where
// the record comes in. The four directions move; None stands still. The
// unknown codes stand still too, yet the rules still tell two kinds apart:
// 5 counts as scrolling but never moves in lock-step nor has its movie
// measured, any other unknown code counts as scrolling only.
enum class Heading : uint8_t { None, Right, Left, Down, Up, Five, Unknown };

constexpr Heading ToHeading(int32_t code) {
    switch (code) {
        case static_cast<int32_t>(ScrollDirection::None):
            return Heading::None;
        case static_cast<int32_t>(ScrollDirection::Right):
            return Heading::Right;
        case static_cast<int32_t>(ScrollDirection::Left):
            return Heading::Left;
        case static_cast<int32_t>(ScrollDirection::Down):
            return Heading::Down;
        case static_cast<int32_t>(ScrollDirection::Up):
            return Heading::Up;
        case 5:
            return Heading::Five;
        default:
            return Heading::Unknown;
    }
}

constexpr bool IsMoving(Heading heading) {
    return heading == Heading::Right || heading == Heading::Left || heading == Heading::Down ||
           heading == Heading::Up;
}

}  // namespace lumets
