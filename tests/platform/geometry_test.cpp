#include "lumets_platform/geometry.h"

#include <climits>

#include <gtest/gtest.h>

namespace lumets::platform {
namespace {

bool Same(const RECT& r, int l, int t, int ri, int b) {
    return r.left == l && r.top == t && r.right == ri && r.bottom == b;
}

TEST(Geometry, EmptyIntersectionIsAllZero) {
    const RECT a{0, 0, 10, 10};
    const RECT touching{10, 0, 20, 10};
    const RECT inverted{8, 8, 2, 2};  // empty although it lies inside a
    const RECT overlap{5, -5, 20, 5};
    RECT dst{1, 2, 3, 4};
    EXPECT_FALSE(IntersectRect(&dst, &a, &touching));
    EXPECT_TRUE(Same(dst, 0, 0, 0, 0));
    dst = RECT{1, 2, 3, 4};
    EXPECT_FALSE(IntersectRect(&dst, &a, &inverted));
    EXPECT_TRUE(Same(dst, 0, 0, 0, 0));

    RECT self = a;  // the destination may be an input
    EXPECT_TRUE(IntersectRect(&self, &self, &overlap));
    EXPECT_TRUE(Same(self, 5, 0, 10, 5));

    dst = RECT{1, 2, 3, 4};
    EXPECT_FALSE(IntersectRect(&dst, nullptr, &a));
    EXPECT_FALSE(IntersectRect(nullptr, &a, &a));
    EXPECT_TRUE(Same(dst, 1, 2, 3, 4));
}

TEST(Geometry, UnionSkipsEmptyRects) {
    const RECT a{0, 0, 10, 10};
    const RECT other{100, 100, 110, 120};
    const RECT empty{-50, -50, -50, 500};
    RECT dst{};
    EXPECT_TRUE(UnionRect(&dst, &a, &other));
    EXPECT_TRUE(Same(dst, 0, 0, 110, 120));
    EXPECT_TRUE(UnionRect(&dst, &empty, &other));
    EXPECT_TRUE(Same(dst, 100, 100, 110, 120));
    dst = RECT{1, 2, 3, 4};
    EXPECT_FALSE(UnionRect(&dst, &empty, &empty));
    EXPECT_TRUE(Same(dst, 0, 0, 0, 0));
    EXPECT_FALSE(UnionRect(&dst, &a, nullptr));
}

TEST(Geometry, EdgesOverflowAndOrder) {
    const RECT r{0, 0, 10, 20};
    EXPECT_TRUE(PtInRect(&r, POINT{0, 0}));
    EXPECT_TRUE(PtInRect(&r, POINT{9, 19}));
    EXPECT_FALSE(PtInRect(&r, POINT{10, 5}));
    EXPECT_FALSE(PtInRect(&r, POINT{5, 20}));
    EXPECT_FALSE(PtInRect(nullptr, POINT{0, 0}));
    EXPECT_TRUE(IsRectEmpty(nullptr));

    // Coordinates wrap as on the original platform instead of being undefined.
    RECT big{INT_MAX - 1, INT_MIN, INT_MAX, 1};
    EXPECT_TRUE(OffsetRect(&big, 2, 0));
    EXPECT_EQ(big.left, INT_MIN);
    EXPECT_TRUE(InflateRect(&big, 0, 1));
    EXPECT_EQ(big.top, INT_MAX);
    EXPECT_FALSE(OffsetRect(nullptr, 1, 1));

    EXPECT_TRUE(Same(NormalizeRect(RECT{10, 20, 0, 5}), 0, 5, 10, 20));
}

}  // namespace
}  // namespace lumets::platform
