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

// A record's nDirection code as a direction; unknown codes stand still.
constexpr ScrollDirection ToScrollDirection(int32_t code) {
    return code >= static_cast<int32_t>(ScrollDirection::Right) &&
                   code <= static_cast<int32_t>(ScrollDirection::Up)
               ? static_cast<ScrollDirection>(code)
               : ScrollDirection::None;
}

}  // namespace lumets
