// The size limits every picture of the library obeys (texts, loaded images,
// plates and their scaled copies), and the float and wide-integer conversions
// that turn sizes and positions into pixel coordinates.
//
// Float-to-integer conversions of sizes and positions truncate toward zero;
// where the value may be out of range they saturate instead of wrapping.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace lumets {

// No picture is wider or taller than this, nor larger in all.
inline constexpr int32_t kMaxPictureSide = 16384;
inline constexpr int64_t kMaxPicturePixels = 16777216;

// The memory limit alone: at least one pixel, and no more than
// kMaxPicturePixels in all, whatever the shape (image files, whose strips may
// be long).
constexpr bool PicturePixelsAllowed(int64_t width, int64_t height) {
    return width > 0 && height > 0 && width <= kMaxPicturePixels && height <= kMaxPicturePixels &&
           width * height <= kMaxPicturePixels;
}

// True for a picture of at least one pixel within both limits.
constexpr bool PictureSizeAllowed(int64_t width, int64_t height) {
    return PicturePixelsAllowed(width, height) && width <= kMaxPictureSide &&
           height <= kMaxPictureSide;
}

// value clamped into the int32 range.
constexpr int32_t SaturateToInt32(int64_t value) {
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

// value clamped into [lo, hi] and truncated toward zero; NaN gives 0.
inline int32_t TruncateClamped(double value, int32_t lo, int32_t hi) {
    if (std::isnan(value)) {
        return 0;
    }
    return static_cast<int32_t>(
        std::clamp(value, static_cast<double>(lo), static_cast<double>(hi)));
}

// value truncated toward zero and saturated to int32; NaN gives 0.
inline int32_t TruncateSaturated(double value) {
    return TruncateClamped(value, std::numeric_limits<int32_t>::min(),
                           std::numeric_limits<int32_t>::max());
}

// value truncated toward zero into out; false (out untouched) when it is not
// finite or does not fit.
inline bool TruncateToInt32(float value, int32_t& out) {
    if (!(value > -2147483648.0f && value < 2147483648.0f)) {
        return false;
    }
    out = static_cast<int32_t>(value);
    return true;
}

}  // namespace lumets
