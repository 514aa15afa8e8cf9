#include "image/scaled_composite.h"

#include <cmath>
#include <memory>

#include "image/av_handles.h"
#include "lumets_platform/geometry.h"

namespace lumets {

namespace {

// float * scale truncated toward zero, saturated to int32 (NaN gives 0).
int32_t ScaleCoordinate(int32_t value, float scale) {
    const double scaled = static_cast<double>(static_cast<float>(value) * scale);
    if (std::isnan(scaled)) {
        return 0;
    }
    if (scaled >= 2147483647.0) {
        return INT32_MAX;
    }
    if (scaled <= -2147483648.0) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(scaled);
}

}  // namespace

void EnsureScalableBuffer(uint8_t** data, uint32_t* capacity, uint32_t width, uint32_t height) {
    const uint32_t rowBytes = width * 4;
    const uint32_t slackRows = rowBytes == 0 ? 0 : (kScalerSlackBytes + rowBytes - 1) / rowBytes;
    EnsureBuffer(data, capacity, width, height + slackRows, 32);
}

bool ResizePicture32(const uint8_t* src, uint32_t srcWidth, uint32_t srcHeight, uint8_t* dst,
                     uint32_t dstWidth, uint32_t dstHeight) {
    if (src == nullptr || dst == nullptr || srcWidth == 0 || srcHeight == 0 || dstWidth == 0 ||
        dstHeight == 0 || srcWidth > INT32_MAX / 4 || dstWidth > INT32_MAX / 4 ||
        srcHeight > INT32_MAX || dstHeight > INT32_MAX) {
        return false;
    }
    // The buffers hold B, G, R, A; the same four-channel format on both sides
    // keeps the channels in their order.
    SwsContextPtr context(sws_getContext(static_cast<int>(srcWidth), static_cast<int>(srcHeight),
                                         AV_PIX_FMT_RGBA, static_cast<int>(dstWidth),
                                         static_cast<int>(dstHeight), AV_PIX_FMT_RGBA, SWS_BICUBIC,
                                         nullptr, nullptr, nullptr));
    if (!context) {
        return false;
    }
    const uint8_t* const srcPlanes[1] = {src};
    const int srcStrides[1] = {static_cast<int>(RowStride(srcWidth, 32))};
    uint8_t* const dstPlanes[1] = {dst};
    const int dstStrides[1] = {static_cast<int>(RowStride(dstWidth, 32))};
    return sws_scale(context.get(), srcPlanes, srcStrides, 0, static_cast<int>(srcHeight),
                     dstPlanes, dstStrides) == static_cast<int>(dstHeight);
}

void BlendScaledInto24(PixelBuffer& source, PixelBuffer& scaled, uint8_t* dst, int32_t dstWidth,
                       int32_t dstHeight, const RECT& clip, POINT pos, float scale,
                       uint32_t* contextsMade) {
    if (dst == nullptr || dstWidth <= 0 || dstHeight <= 0) {
        return;
    }
    if (!std::isfinite(scale) || !(scale > 0.0f)) {
        return;
    }
    const float scaledWidth = static_cast<float>(source.width) * scale;
    const float scaledHeight = static_cast<float>(source.height) * scale;
    if (!(scaledWidth < 4294967296.0f) || !(scaledHeight < 4294967296.0f)) {
        return;
    }
    const uint32_t sw = static_cast<uint32_t>(scaledWidth);
    const uint32_t sh = static_cast<uint32_t>(scaledHeight);
    if (sw == 0 || sh == 0) {
        return;
    }
    if (static_cast<uint64_t>(sw) * sh > kMaxScaledPixels) {
        return;
    }

    scaled.bitsPerPixel = source.bitsPerPixel;
    scaled.width = sw;
    scaled.height = sh;
    EnsureScalableBuffer(&scaled.data, &scaled.capacity, sw, sh);

    const PixelBuffer* picture = &source;
    if (source.width != sw || source.height != sh) {
        if (source.bitsPerPixel != 32) {
            return;
        }
        if (contextsMade != nullptr) {
            ++*contextsMade;
        }
        // Without a scaling context there is no new picture to show; the
        // scaled buffer may hold anything, so nothing is blended.
        if (!ResizePicture32(source.data, source.width, source.height, scaled.data, sw, sh)) {
            return;
        }
        picture = &scaled;
    }
    if (picture->data == nullptr || picture->width == 0 || picture->height == 0) {
        return;
    }

    const RECT z{ScaleCoordinate(clip.left, scale), ScaleCoordinate(clip.top, scale),
                 ScaleCoordinate(clip.right, scale), ScaleCoordinate(clip.bottom, scale)};
    const POINT p{ScaleCoordinate(pos.x, scale), ScaleCoordinate(pos.y, scale)};
    const RECT frame{0, 0, dstWidth, dstHeight};
    RECT inFrame{};
    if (!platform::IntersectRect(&inFrame, &z, &frame)) {
        return;
    }
    const int64_t right = static_cast<int64_t>(p.x) + picture->width;
    const int64_t bottom = static_cast<int64_t>(p.y) + picture->height;
    const RECT text{p.x, p.y, static_cast<int32_t>(std::min<int64_t>(right, INT32_MAX)),
                    static_cast<int32_t>(std::min<int64_t>(bottom, INT32_MAX))};
    RECT visible{};
    if (!platform::IntersectRect(&visible, &text, &inFrame)) {
        return;
    }
    // Top-down rows become memory rows: frame row y is dstHeight - 1 - y and
    // picture row v is height - 1 - v.
    const int32_t pictureHeight = static_cast<int32_t>(picture->height);
    const RECT dstRect{visible.left, dstHeight - visible.bottom, visible.right,
                       dstHeight - visible.top};
    const RECT srcRect{visible.left - p.x, pictureHeight - (visible.bottom - p.y),
                       visible.right - p.x, pictureHeight - (visible.top - p.y)};
    BlendRect(dst, dstWidth, dstHeight, 24, dstRect, picture->data,
              static_cast<int32_t>(picture->width), pictureHeight,
              static_cast<int32_t>(picture->bitsPerPixel), srcRect);
}

}  // namespace lumets
