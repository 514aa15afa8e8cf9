#include "lumets_platform/utf16.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "lumets_platform/debug_output.h"

namespace lumets::platform {
namespace {

TEST(Utf16, LengthAndCopyStayWithinTheirBounds) {
    // No terminator anywhere: the bound is all that keeps the walk inside.
    const char16_t unterminated[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(U16Length(unterminated, 4), 4u);
    EXPECT_EQ(U16Length(unterminated, 2), 2u);
    EXPECT_EQ(U16Length(nullptr, 10), 0u);

    char16_t dst[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(U16CopyTruncate(dst, 3, unterminated, 4), 2u);
    EXPECT_EQ(std::u16string(dst), u"ab");
    EXPECT_EQ(dst[3], u'x');
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
    EXPECT_EQ(U16ToUtf8(lone, 10),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD");
    const char16_t pair[] = {0xD83D, 0xDE00, 0};
    EXPECT_EQ(U16ToUtf8(pair, 1), "\xEF\xBF\xBD");
    EXPECT_EQ(U16ToUtf8(nullptr, 5), "");

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
    EXPECT_TRUE(PathFileExists(here.c_str()));
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
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    setenv("LUMETS_DEBUG_OUTPUT", "1", 1);
    testing::internal::CaptureStderr();
    DebugOutput("one \r");
    DebugOutputW(u"\u4e2d two\n");
    DebugOutput(nullptr);
    DebugOutputW(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "one \n\xE4\xB8\xAD two\n");
    unsetenv("LUMETS_DEBUG_OUTPUT");
}

}  // namespace
}  // namespace lumets::platform
