// The movement rules of an item's playing thread (lumet_thread.cpp), which
// moves the movie and text layers one step every 33 ms. Positions are in item
// units; arithmetic that would leave the int32 range saturates.
#pragma once

#include <cstdint>

#include "lumets/win_types.h"
#include "subtitle/lumet_types.h"

namespace lumets {

// A playing thread steps its layers at most once in this many milliseconds.
inline constexpr uint64_t kFrameMs = 33;

// The pixels per 33 ms frame of a speed in pixels per second.
float StepFromSpeed(uint32_t speed);
// Adds step to remainder and takes out its whole pixels.
int32_t TakeWholePixels(float& remainder, float step);
// Moves pos by n whole pixels in direction (1 right, 2 left, 3 down, 4 up),
// clamped at the side it enters from and wrapped back to it when wrap is set.
void MovePosition(POINT& pos, int32_t n, Heading direction, const RECT& clip, SIZE extent,
                  bool wrap);
// Whether a layer moving by step in direction has left its clip for good.
bool IsScrollFinished(POINT pos, float step, Heading direction, const RECT& clip, SIZE extent,
                      bool wrap);

}  // namespace lumets
