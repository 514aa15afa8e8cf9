#include "lumets_platform/geometry.h"

#include <algorithm>
#include <cstdint>

namespace lumets::platform {

namespace {

// Coordinates wrap around on overflow as the 32-bit originals do, without
// undefined behaviour.
int32_t Add(int32_t a, int b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t Sub(int32_t a, int b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

bool Empty(const RECT& r) {
    return r.right <= r.left || r.bottom <= r.top;
}

}  // namespace

// A missing rectangle has no area, so it counts as empty (as the original does).
bool IsRectEmpty(const RECT* rect) {
    return rect == nullptr || Empty(*rect);
}

bool IntersectRect(RECT* dst, const RECT* a, const RECT* b) {
    if (dst == nullptr || a == nullptr || b == nullptr) {
        return false;
    }
    const RECT ra = *a;  // dst may be one of the inputs
    const RECT rb = *b;
    const RECT r = {std::max(ra.left, rb.left), std::max(ra.top, rb.top),
                    std::min(ra.right, rb.right), std::min(ra.bottom, rb.bottom)};
    if (Empty(ra) || Empty(rb) || Empty(r)) {
        *dst = RECT{0, 0, 0, 0};
        return false;
    }
    *dst = r;
    return true;
}

bool UnionRect(RECT* dst, const RECT* a, const RECT* b) {
    if (dst == nullptr || a == nullptr || b == nullptr) {
        return false;
    }
    const RECT ra = *a;
    const RECT rb = *b;
    if (Empty(ra) && Empty(rb)) {
        *dst = RECT{0, 0, 0, 0};
        return false;
    }
    if (Empty(ra)) {
        *dst = rb;
    } else if (Empty(rb)) {
        *dst = ra;
    } else {
        *dst = RECT{std::min(ra.left, rb.left), std::min(ra.top, rb.top),
                    std::max(ra.right, rb.right), std::max(ra.bottom, rb.bottom)};
    }
    return true;
}

bool OffsetRect(RECT* rect, int dx, int dy) {
    if (rect == nullptr) {
        return false;
    }
    rect->left = Add(rect->left, dx);
    rect->right = Add(rect->right, dx);
    rect->top = Add(rect->top, dy);
    rect->bottom = Add(rect->bottom, dy);
    return true;
}

bool PtInRect(const RECT* rect, POINT pt) {
    return rect != nullptr && pt.x >= rect->left && pt.x < rect->right && pt.y >= rect->top &&
           pt.y < rect->bottom;
}

bool SetRect(RECT* rect, int left, int top, int right, int bottom) {
    if (rect == nullptr) {
        return false;
    }
    *rect = RECT{left, top, right, bottom};
    return true;
}

bool SetRectEmpty(RECT* rect) {
    return SetRect(rect, 0, 0, 0, 0);
}

bool EqualRect(const RECT* a, const RECT* b) {
    return a != nullptr && b != nullptr && a->left == b->left && a->top == b->top &&
           a->right == b->right && a->bottom == b->bottom;
}

bool InflateRect(RECT* rect, int dx, int dy) {
    if (rect == nullptr) {
        return false;
    }
    rect->left = Sub(rect->left, dx);
    rect->right = Add(rect->right, dx);
    rect->top = Sub(rect->top, dy);
    rect->bottom = Add(rect->bottom, dy);
    return true;
}

RECT NormalizeRect(const RECT& rect) {
    return RECT{std::min(rect.left, rect.right), std::min(rect.top, rect.bottom),
                std::max(rect.left, rect.right), std::max(rect.top, rect.bottom)};
}

}  // namespace lumets::platform
