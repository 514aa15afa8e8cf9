// TextStyle: the 128-byte style record that travels with every text.
// Its layout is a binary format filled by the host; do not reorder.
#pragma once

#include <cstddef>
#include <cstdint>

struct TextStyle {
    char16_t faceName[32];  // NUL-terminated; empty selects the fallback face
    int32_t fontSize;       // points
    uint8_t bold;
    uint8_t italic;
    uint8_t underline;
    uint8_t strikeOut;
    uint8_t vertical;  // characters top to bottom, columns right to left
    uint8_t padding1[3];
    int32_t horizontalAlign;  // 0 left, 1 centre, 2 right
    int32_t verticalAlign;    // 0 top, 1 centre, 2 bottom
    uint32_t fillColor1;      // 0x00RRGGBB; the top byte is ignored
    uint32_t fillColor2;
    float fillAngle;      // degrees, clockwise from +x with y pointing down
    uint32_t fillAlpha1;  // opacity in percent
    uint32_t fillAlpha2;
    uint32_t backColor;
    uint32_t backAlpha;
    uint8_t outline;
    uint8_t padding2[3];
    float outlineWidth;  // pixels
    uint32_t outlineColor;
    uint32_t outlineAlpha;

    // Every named field gets its default; the paddings are not initialised.
    // Inline, so hosts need no export.
    TextStyle()
        : faceName{},
          fontSize(16),
          bold(0),
          italic(0),
          underline(0),
          strikeOut(0),
          vertical(0),
          horizontalAlign(0),
          verticalAlign(0),
          fillColor1(0),
          fillColor2(0),
          fillAngle(0.0f),
          fillAlpha1(100),
          fillAlpha2(100),
          backColor(0xFFFFFF),
          backAlpha(0),
          outline(0),
          outlineWidth(0.0f),
          outlineColor(0),
          outlineAlpha(100) {}
};

static_assert(sizeof(TextStyle) == 128);
static_assert(offsetof(TextStyle, faceName) == 0);
static_assert(offsetof(TextStyle, fontSize) == 64);
static_assert(offsetof(TextStyle, bold) == 68);
static_assert(offsetof(TextStyle, italic) == 69);
static_assert(offsetof(TextStyle, underline) == 70);
static_assert(offsetof(TextStyle, strikeOut) == 71);
static_assert(offsetof(TextStyle, vertical) == 72);
static_assert(offsetof(TextStyle, horizontalAlign) == 76);
static_assert(offsetof(TextStyle, verticalAlign) == 80);
static_assert(offsetof(TextStyle, fillColor1) == 84);
static_assert(offsetof(TextStyle, fillColor2) == 88);
static_assert(offsetof(TextStyle, fillAngle) == 92);
static_assert(offsetof(TextStyle, fillAlpha1) == 96);
static_assert(offsetof(TextStyle, fillAlpha2) == 100);
static_assert(offsetof(TextStyle, backColor) == 104);
static_assert(offsetof(TextStyle, backAlpha) == 108);
static_assert(offsetof(TextStyle, outline) == 112);
static_assert(offsetof(TextStyle, outlineWidth) == 116);
static_assert(offsetof(TextStyle, outlineColor) == 120);
static_assert(offsetof(TextStyle, outlineAlpha) == 124);
