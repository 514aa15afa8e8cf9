// The Win32 rectangle functions with their Win32 semantics.
#pragma once

#include "lumets/export.h"
#include "lumets/win_types.h"

namespace lumets::platform {

// True when right <= left or bottom <= top.
LUMETS_PLATFORM_API bool IsRectEmpty(const RECT* rect);
// The intersection; an empty one is written as all zero and gives false.
LUMETS_PLATFORM_API bool IntersectRect(RECT* dst, const RECT* a, const RECT* b);
// The bounding rectangle, skipping empty inputs; all empty gives all zero and false.
LUMETS_PLATFORM_API bool UnionRect(RECT* dst, const RECT* a, const RECT* b);
LUMETS_PLATFORM_API bool OffsetRect(RECT* rect, int dx, int dy);
// Left and top inclusive, right and bottom exclusive.
LUMETS_PLATFORM_API bool PtInRect(const RECT* rect, POINT pt);
LUMETS_PLATFORM_API bool SetRect(RECT* rect, int left, int top, int right, int bottom);
LUMETS_PLATFORM_API bool SetRectEmpty(RECT* rect);
LUMETS_PLATFORM_API bool EqualRect(const RECT* a, const RECT* b);
LUMETS_PLATFORM_API bool InflateRect(RECT* rect, int dx, int dy);
// Swaps left/right and top/bottom into order (host clip rectangles).
LUMETS_PLATFORM_API RECT NormalizeRect(const RECT& rect);

}  // namespace lumets::platform
