// The host's binary records for SWF subtitle items. Every layout here is
// fixed by the host; the asserts below pin each size and offset.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumets/text_style.h"
#include "lumets/win_types.h"

namespace lumets {

// Scroll directions of a layer, the codes of the records' nDirection fields;
// any other code stands still. Write them as static_cast<int32_t>(...).
enum class ScrollDirection : int32_t {
    None = 0,
    Right = 1,
    Left = 2,
    Down = 3,
    Up = 4,
};

}  // namespace lumets

struct SwfPart {
    char16_t szPath[260];  // movie path, NUL-terminated
    uint8_t bIgnoreMovieEnd;
    uint8_t padding1[3];
    RECT rcClip;  // put into order on use
    int32_t x;
    int32_t y;
    int32_t nDirection;  // lumets::ScrollDirection
    uint32_t nSpeed;     // pixels per second
    uint8_t bWrap;
    uint8_t padding2[3];
};

// The text block: 65536 UTF-16 units, then the style, then the geometry.
struct TextPart {
    char16_t text[65536];
    TextStyle style;
    RECT rcClip;
    int32_t x;
    int32_t y;
    int32_t nDirection;
    uint32_t nSpeed;
    uint8_t bWrap;
    uint8_t padding[3];
};

struct BackgroundPart {
    uint32_t crColor;   // bits 0..7 blue, 8..15 green, 16..23 red
    uint32_t nOpacity;  // percent; 0 means no plate
    uint8_t bSpanClip;  // exactly 1: the plate spans the text clip rectangle
    uint8_t padding[3];
};

// One element of the array handed to ILumetManager::AddSubtitle.
struct ItemDescription {
    SwfPart* pSwf;
    TextPart* pText;
    BackgroundPart* pBackground;
    int32_t nPlayCount;  // 0 without end, negative none, positive that many
    uint8_t reserved[8];
};

// Written back by ILumetManager::GetPlayingInGroup.
struct SubtitleRectEntry {
    char16_t id[260];  // NUL-terminated, truncated to 259 units
    RECT rect;         // target coordinates
};

static_assert(sizeof(SwfPart) == 560);
static_assert(offsetof(SwfPart, szPath) == 0);
static_assert(offsetof(SwfPart, bIgnoreMovieEnd) == 520);
static_assert(offsetof(SwfPart, rcClip) == 524);
static_assert(offsetof(SwfPart, x) == 540);
static_assert(offsetof(SwfPart, y) == 544);
static_assert(offsetof(SwfPart, nDirection) == 548);
static_assert(offsetof(SwfPart, nSpeed) == 552);
static_assert(offsetof(SwfPart, bWrap) == 556);

static_assert(sizeof(TextPart) == 131236);
static_assert(offsetof(TextPart, text) == 0);
static_assert(offsetof(TextPart, style) == 0x20000);
static_assert(offsetof(TextPart, rcClip) == 131200);
static_assert(offsetof(TextPart, x) == 131216);
static_assert(offsetof(TextPart, y) == 131220);
static_assert(offsetof(TextPart, nDirection) == 131224);
static_assert(offsetof(TextPart, nSpeed) == 131228);
static_assert(offsetof(TextPart, bWrap) == 131232);

static_assert(sizeof(BackgroundPart) == 12);
static_assert(offsetof(BackgroundPart, nOpacity) == 4);
static_assert(offsetof(BackgroundPart, bSpanClip) == 8);

static_assert(sizeof(SubtitleRectEntry) == 536);
static_assert(offsetof(SubtitleRectEntry, rect) == 520);

// Three pointers, the play count and 8 reserved bytes: 24 bytes on 32-bit
// targets, 40 on 64-bit ones (pointer alignment pads the tail).
static_assert(offsetof(ItemDescription, pSwf) == 0);
static_assert(offsetof(ItemDescription, pText) == sizeof(void*));
static_assert(offsetof(ItemDescription, pBackground) == 2 * sizeof(void*));
static_assert(offsetof(ItemDescription, nPlayCount) == 3 * sizeof(void*));
static_assert(sizeof(void*) != 4 || sizeof(ItemDescription) == 24);
static_assert(sizeof(void*) != 8 || sizeof(ItemDescription) == 40);
