#include "image/scaled_composite.h"

#include <cmath>
#include <memory>

#include <utility>

#include "image/av_handles.h"
#include "image/ffmpeg_quiet.h"
#include "image/picture_limits.h"
#include "image/pixel_ops.h"
#include "lumets_platform/geometry.h"

namespace lumets {
namespace {

// float * scale truncated toward zero, saturated to int32 (NaN gives 0).
int32_t ScaleCoordinate(int32_t value, float scale) {
    return TruncateSaturated(static_cast<double>(static_cast<float>(value) * scale));
}

}  // namespace

void EnsureScalable(PixelBuffer& buffer, uint32_t width, uint32_t height) {
    const uint32_t rowBytes = width * 4;
    const uint32_t slackRows = rowBytes == 0 ? 0 : (kScalerSlackBytes + rowBytes - 1) / rowBytes;
    buffer.Ensure(width, height + slackRows, 32);
}

bool HasScalerSlack(const PixelBuffer& buffer) {
    const ConstPictureView picture = buffer.View();
    return picture.data != nullptr && picture.bitsPerPixel == 32 &&
           buffer.Capacity() - picture.strideBytes * static_cast<size_t>(picture.height) >=
               kScalerSlackBytes;
}

bool ResizePicture32(const ConstPictureView& src, const PictureView& dst) {
    if (src.data == nullptr || dst.data == nullptr || src.bitsPerPixel != 32 ||
        dst.bitsPerPixel != 32 || src.width <= 0 || src.height <= 0 || dst.width <= 0 ||
        dst.height <= 0 || src.width > INT32_MAX / 4 || dst.width > INT32_MAX / 4 ||
        src.strideBytes < size_t{4} * static_cast<uint32_t>(src.width) ||
        dst.strideBytes < size_t{4} * static_cast<uint32_t>(dst.width) ||
        src.strideBytes > INT32_MAX || dst.strideBytes > INT32_MAX) {
        return false;
    }
    const CQuietFfmpeg quiet;
    // The buffers hold B, G, R, A; the same four-channel format on both sides
    // keeps the channels in their order.
    SwsContextPtr context(sws_getContext(src.width, src.height, AV_PIX_FMT_RGBA, dst.width,
                                         dst.height, AV_PIX_FMT_RGBA, SWS_BICUBIC, nullptr, nullptr,
                                         nullptr));
    if (!context) {
        return false;
    }
    const uint8_t* const srcPlanes[1] = {src.data};
    const int srcStrides[1] = {static_cast<int>(src.strideBytes)};
    uint8_t* const dstPlanes[1] = {dst.data};
    const int dstStrides[1] = {static_cast<int>(dst.strideBytes)};
    return sws_scale(context.get(), srcPlanes, srcStrides, 0, src.height, dstPlanes, dstStrides) ==
           dst.height;
}

void BlendScaledInto24(const PixelBuffer& source, PixelBuffer& scaled, const PictureView& frame,
                       const RECT& clip, POINT pos, float scale, uint32_t* contextsMade) {
    if (frame.data == nullptr || frame.bitsPerPixel != 24 || frame.width <= 0 ||
        frame.height <= 0) {
        return;
    }
    if (!std::isfinite(scale) || !(scale > 0.0f) || source.width < 0 || source.height < 0) {
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
    if (static_cast<uint64_t>(sw) * sh > static_cast<uint64_t>(kMaxPicturePixels)) {
        return;
    }

    scaled.bitsPerPixel = source.bitsPerPixel;
    scaled.width = static_cast<int32_t>(sw);
    scaled.height = static_cast<int32_t>(sh);
    EnsureScalable(scaled, sw, sh);

    ConstPictureView picture = source.View();
    if (source.width != scaled.width || source.height != scaled.height) {
        if (!HasScalerSlack(source)) {
            return;
        }
        if (contextsMade != nullptr) {
            ++*contextsMade;
        }
        // Without a scaling context there is no new picture to show; the
        // scaled buffer may hold anything, so nothing is blended.
        if (!ResizePicture32(picture, scaled.View())) {
            return;
        }
        picture = std::as_const(scaled).View();
    }
    if (picture.data == nullptr || picture.width == 0 || picture.height == 0) {
        return;
    }

    const RECT z{ScaleCoordinate(clip.left, scale), ScaleCoordinate(clip.top, scale),
                 ScaleCoordinate(clip.right, scale), ScaleCoordinate(clip.bottom, scale)};
    const POINT p{ScaleCoordinate(pos.x, scale), ScaleCoordinate(pos.y, scale)};
    const RECT frameRect{0, 0, frame.width, frame.height};
    RECT inFrame{};
    if (!platform::IntersectRect(&inFrame, &z, &frameRect)) {
        return;
    }
    const RECT text{p.x, p.y, SaturateToInt32(int64_t{p.x} + picture.width),
                    SaturateToInt32(int64_t{p.y} + picture.height)};
    RECT visible{};
    if (!platform::IntersectRect(&visible, &text, &inFrame)) {
        return;
    }
    // Top-down rows become memory rows: frame row y is height - 1 - y and
    // picture row v is height - 1 - v.
    const RECT dstRect{visible.left, frame.height - visible.bottom, visible.right,
                       frame.height - visible.top};
    const RECT srcRect{visible.left - p.x, picture.height - (visible.bottom - p.y),
                       visible.right - p.x, picture.height - (visible.top - p.y)};
    BlendRect(frame, dstRect, picture, srcRect);
}

}  // namespace lumets
