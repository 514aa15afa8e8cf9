// The Win32-style helpers: UTF-16 text walked only within its bounds, case
// folding, UTF-8 conversion with replacement characters, debug output, and
// rectangles that exclude their right and bottom edges.
#include <array>
#include <climits>
#include <cstdlib>
#include <utility>

#include <gtest/gtest.h>

#include "lumets_platform/debug_output.h"
#include "lumets_platform/geometry.h"
#include "lumets_platform/utf16.h"

namespace lumets::platform {
namespace {

TEST(Utf16, LengthAndCopyStayWithinTheirBounds) {
    // No terminator anywhere: the bound is all that keeps the walk inside.
    const char16_t unterminated[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(U16Length(unterminated, 4), 4u);

    char16_t dst[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(U16CopyTruncate(dst, 3, unterminated, 4), 2u);
    EXPECT_EQ(std::u16string(dst, 4), std::u16string(u"ab\0x", 4));
    EXPECT_EQ(U16CopyTruncate(dst, 4, u"hello", 2), 2u);
    EXPECT_EQ(std::u16string(dst), u"he");
    EXPECT_EQ(U16CopyTruncate(dst, 4, nullptr, 4), 0u);
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(U16CopyTruncate(dst + 1, 0, u"abc", 4), 0u);
    EXPECT_EQ(dst[1], u'e');
    EXPECT_EQ(U16CopyTruncate(nullptr, 4, u"abc", 4), 0u);
}

TEST(Utf16, CompareFoldsCaseOfTheDocumentedScripts) {
    EXPECT_EQ(U16CompareNoCase(u"Hello ÀÉÖ ΑΒΩ ПРИВЕТ Ё ＡＢＣ", u"hELLO àéö αβω привет ё ａｂｃ"),
              0);
    EXPECT_NE(U16CompareNoCase(u"×", u"÷"), 0);  // no letter pair
    // Folded to lower case, so '_' sorts before letters as on the original.
    EXPECT_LT(U16CompareNoCase(u"_", u"A"), 0);
    EXPECT_GT(U16CompareNoCase(u"abcd", u"ABC"), 0);
    EXPECT_LT(U16CompareNoCase(nullptr, u""), 0);
    EXPECT_EQ(U16CompareNoCase(nullptr, nullptr), 0);
}

TEST(Utf16, Utf8RoundTripAndReplacement) {
    const std::u16string text = u"a\u00e9\u4e2d\U0001F600z";
    const std::string utf8 = U16ToUtf8(text.c_str(), text.size() + 1);
    EXPECT_EQ(utf8, "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z");
    EXPECT_EQ(Utf8ToU16(utf8), text);

    // Unpaired surrogates, including a high one cut off by the bound.
    const char16_t lone[] = {u'a', 0xDC00, u'b', 0xD83D, 0};
    EXPECT_EQ(U16ToUtf8(lone, 10), "a\uFFFDb\uFFFD");
    const char16_t pair[] = {0xD83D, 0xDE00, 0};
    EXPECT_EQ(U16ToUtf8(pair, 1), "\uFFFD");

    // Overlong, encoded surrogate, beyond U+10FFFF, stray continuation,
    // truncated sequence: one replacement each, the rest kept.
    EXPECT_EQ(Utf8ToU16("\xC0\xAF|"), u"\uFFFD\uFFFD|");
    EXPECT_EQ(Utf8ToU16("\xED\xA0\x80|"), u"\uFFFD\uFFFD\uFFFD|");
    EXPECT_EQ(Utf8ToU16("\xF4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(Utf8ToU16("\x80x"), u"\uFFFDx");
    EXPECT_EQ(Utf8ToU16("x\xE4\xB8"), u"x\uFFFD");
    EXPECT_EQ(Utf8ToU16("\xE4\xB8x"), u"\uFFFDx");
}

TEST(Utf16, PathFileExists) {
    const std::u16string here = Utf8ToU16(LUMETS_SOURCE_DIR);
    EXPECT_TRUE(PathFileExists((here + u"/CMakeLists.txt").c_str()));
    EXPECT_FALSE(PathFileExists((here + u"/no such file \u4e2d").c_str()));
    EXPECT_FALSE(PathFileExists(u""));
    EXPECT_FALSE(PathFileExists(nullptr));
}

TEST(DebugOutput, WritesOnlyWhenEnabled) {
    unsetenv("LUMETS_DEBUG_OUTPUT");
    testing::internal::CaptureStderr();
    DebugOutput("hidden\n");
    DebugOutputW(u"hidden\n");
    setenv("LUMETS_DEBUG_OUTPUT", "1", 1);
    DebugOutput("one \r");
    DebugOutputW(u"\u4e2d two\n");
    DebugOutput(nullptr);
    DebugOutputW(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "one \n\xE4\xB8\xAD two\n");
    unsetenv("LUMETS_DEBUG_OUTPUT");
}

std::array<int, 4> Edges(const RECT& r) {
    return {r.left, r.top, r.right, r.bottom};
}

TEST(Geometry, IntersectAndUnion) {
    const RECT square{0, 0, 10, 10};
    const RECT empty{-50, -50, -50, 500};
    // a, b, where they meet (all zero: nowhere), their bounds (all zero: both empty)
    const RECT cases[][4] = {
        {square, {5, -5, 20, 5}, {5, 0, 10, 5}, {0, -5, 20, 10}},
        {square, {10, 0, 20, 10}, {}, {0, 0, 20, 10}},  // touching
        {square, {20, 20, 15, 15}, {}, square},         // inverted: empty
        {empty, {100, 100, 110, 120}, {}, {100, 100, 110, 120}},
        {empty, empty, {}, {}},
    };
    for (const auto& [a, b, meet, bounds] : cases) {
        RECT dst = a;  // the destination may be an input
        EXPECT_EQ(IntersectRect(&dst, &dst, &b), Edges(meet) != Edges({}));
        EXPECT_EQ(Edges(dst), Edges(meet));
        dst = b;
        EXPECT_EQ(UnionRect(&dst, &a, &dst), Edges(bounds) != Edges({}));
        EXPECT_EQ(Edges(dst), Edges(bounds));
    }
    RECT dst{1, 2, 3, 4};
    EXPECT_FALSE(IntersectRect(&dst, nullptr, &square));
    EXPECT_FALSE(IntersectRect(nullptr, &square, &square));
    EXPECT_FALSE(UnionRect(&dst, &square, nullptr));
    EXPECT_EQ(Edges(dst), Edges({1, 2, 3, 4}));  // left alone
}

TEST(Geometry, PointsAndWrapAround) {
    const RECT r{0, 0, 10, 20};
    const std::pair<POINT, bool> points[] = {{{0, 0}, true},   {{9, 19}, true},  {{-1, 5}, false},
                                             {{10, 5}, false}, {{5, -1}, false}, {{5, 20}, false}};
    for (const auto& [pt, inside] : points) {
        EXPECT_EQ(PtInRect(&r, pt), inside) << pt.x << "," << pt.y;
    }
    EXPECT_FALSE(PtInRect(nullptr, POINT{0, 0}));
    EXPECT_TRUE(IsRectEmpty(nullptr));

    // Coordinates wrap as on the original platform instead of being undefined.
    RECT big{INT_MAX - 1, INT_MIN, INT_MAX, 1};
    EXPECT_TRUE(OffsetRect(&big, 2, 0));
    EXPECT_TRUE(InflateRect(&big, 0, 1));
    EXPECT_EQ(Edges(big), Edges({INT_MIN, INT_MAX, INT_MIN + 1, 2}));
    EXPECT_FALSE(OffsetRect(nullptr, 1, 1));
    EXPECT_EQ(Edges(NormalizeRect({10, 20, 0, 5})), Edges({0, 5, 10, 20}));
}

}  // namespace
}  // namespace lumets::platform
