// Win32 geometry records with their Windows layout: signed 32-bit fields.
// Rectangles exclude their right and bottom edges.
#pragma once

#include <cstdint>

struct RECT {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
};

struct POINT {
    int32_t x;
    int32_t y;
};

struct SIZE {
    int32_t cx;
    int32_t cy;
};

static_assert(sizeof(RECT) == 16);
static_assert(sizeof(POINT) == 8);
static_assert(sizeof(SIZE) == 8);
