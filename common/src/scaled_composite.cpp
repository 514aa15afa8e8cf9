#include "lumets_common/scaled_composite.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>

#include <utility>

#include "lumets_common/av_handles.h"
#include "lumets_common/ffmpeg_quiet.h"
#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_platform/geometry.h"

namespace lumets {

int32_t ScaleCoordinate(int32_t value, float scale) {
    return TruncateSaturated(static_cast<double>(static_cast<float>(value) * scale));
}

namespace {

// The rectangle of a width x height picture with its top-left at at.
RECT Placed(POINT at, int64_t width, int64_t height) {
    return RECT{at.x, at.y, SaturateToInt32(at.x + width), SaturateToInt32(at.y + height)};
}

// The columns to scale so that scaled columns [first, last) come out as
// scaling whole rows would give them: where the sampling grid repeats every
// few source pixels (its period, source / gcd), a part that starts and ends
// on it samples the very positions the whole row would.
struct Span {
    int64_t srcStart = 0;
    int64_t srcLength = 0;
    int64_t dstStart = 0;
    int64_t dstLength = 0;
};

constexpr int64_t kMaxAlignedPeriod = 256;

bool AlignedSpan(int64_t sourceLength, int64_t scaledLength, int64_t first, int64_t last,
                 Span* span) {
    const int64_t g = std::gcd(sourceLength, scaledLength);
    const int64_t srcPeriod = sourceLength / g;
    const int64_t dstPeriod = scaledLength / g;
    if (srcPeriod > kMaxAlignedPeriod) {
        return false;
    }
    const double ratio = static_cast<double>(sourceLength) / static_cast<double>(scaledLength);
    // The bicubic filter reaches two source pixels each way, widened when
    // shrinking; one more covers rounding.
    const double margin = 2 * std::max(1.0, ratio) + 1;
    const double from = (static_cast<double>(first) * ratio - margin) / srcPeriod;
    const double to = (static_cast<double>(last) * ratio + margin) / srcPeriod;
    const int64_t k0 = std::clamp<int64_t>(static_cast<int64_t>(std::floor(from)), 0, g);
    const int64_t k1 = std::clamp<int64_t>(static_cast<int64_t>(std::ceil(to)), k0, g);
    *span = Span{k0 * srcPeriod, (k1 - k0) * srcPeriod, k0 * dstPeriod, (k1 - k0) * dstPeriod};
    return true;
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

SwsContext* CScalerCache::Get(int32_t srcWidth, int32_t srcHeight, int32_t dstWidth,
                              int32_t dstHeight, AVPixelFormat format) {
    const int32_t key[5] = {srcWidth, srcHeight, dstWidth, dstHeight, static_cast<int32_t>(format)};
    if (!m_context || !std::equal(key, key + 5, m_key)) {
        const CQuietFfmpeg quiet;
        m_context.reset(sws_getContext(srcWidth, srcHeight, format, dstWidth, dstHeight, format,
                                       SWS_BICUBIC, nullptr, nullptr, nullptr));
        std::copy(key, key + 5, m_key);
        ++m_made;
    }
    return m_context.get();
}

bool ResizeRows32(const ConstPictureView& src, const PictureView& dst, int32_t scaledHeight,
                  int32_t firstRow, CScalerCache* scaler) {
    if (src.data == nullptr || dst.data == nullptr || src.bitsPerPixel != 32 ||
        dst.bitsPerPixel != 32 || src.width <= 0 || src.height <= 0 || dst.width <= 0 ||
        dst.height <= 0 || src.width > INT32_MAX / 4 || dst.width > INT32_MAX / 4 ||
        src.strideBytes < size_t{4} * static_cast<uint32_t>(src.width) ||
        dst.strideBytes < size_t{4} * static_cast<uint32_t>(dst.width) ||
        src.strideBytes > INT32_MAX || dst.strideBytes > INT32_MAX || firstRow < 0 ||
        scaledHeight < dst.height || firstRow > scaledHeight - dst.height) {
        return false;
    }
    const CQuietFfmpeg quiet;
    CScalerCache once;
    // The buffers hold B, G, R, A; the same four-channel format on both sides
    // keeps the channels in their order.
    SwsContext* const context =
        (scaler != nullptr ? scaler : &once)
            ->Get(src.width, src.height, dst.width, scaledHeight, AV_PIX_FMT_RGBA);
    if (context == nullptr) {
        return false;
    }
    const int srcStrides[1] = {static_cast<int>(src.strideBytes)};
    const int dstStrides[1] = {static_cast<int>(dst.strideBytes)};
    if (firstRow == 0 && dst.height == scaledHeight) {
        const uint8_t* const srcPlanes[1] = {src.data};
        uint8_t* const dstPlanes[1] = {dst.data};
        return sws_scale(context, srcPlanes, srcStrides, 0, src.height, dstPlanes, dstStrides) ==
               dst.height;
    }

    // Some rows only: the frame interface hands the scaler the whole source
    // and asks for those rows of the whole result. Both frames borrow the
    // pictures' memory; the scaler addresses the rows it writes from where
    // the whole result would start.
    AvFramePtr in(av_frame_alloc());
    AvFramePtr out(av_frame_alloc());
    if (!in || !out) {
        return false;
    }
    auto borrow = [](uint8_t* data, size_t size, int flags) {
        return av_buffer_create(
            data, size, [](void*, uint8_t*) {}, nullptr, flags);
    };
    in->buf[0] = borrow(const_cast<uint8_t*>(src.data), src.strideBytes * src.height,
                        AV_BUFFER_FLAG_READONLY);
    out->buf[0] = borrow(dst.data, dst.strideBytes * dst.height, 0);
    if (in->buf[0] == nullptr || out->buf[0] == nullptr) {
        return false;
    }
    in->data[0] = const_cast<uint8_t*>(src.data);
    in->linesize[0] = srcStrides[0];
    in->width = src.width;
    in->height = src.height;
    in->format = AV_PIX_FMT_RGBA;
    out->data[0] = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(dst.data) -
                                              dst.strideBytes * static_cast<size_t>(firstRow));
    out->linesize[0] = dstStrides[0];
    out->width = dst.width;
    out->height = scaledHeight;
    out->format = AV_PIX_FMT_RGBA;
    bool done = sws_frame_start(context, out.get(), in.get()) >= 0;
    done = done && sws_send_slice(context, 0, static_cast<unsigned>(src.height)) >= 0 &&
           sws_receive_slice(context, static_cast<unsigned>(firstRow),
                             static_cast<unsigned>(dst.height)) >= 0;
    sws_frame_end(context);
    return done;
}

bool ResizePicture32(const ConstPictureView& src, const PictureView& dst, CScalerCache* scaler) {
    return ResizeRows32(src, dst, dst.height, 0, scaler);
}

ConstPictureView CScaledCopy::Get(const PixelBuffer& source, uint64_t version, int32_t width,
                                  int32_t height) {
    if (version != 0 && version == m_madeFrom && width == m_scaled.width &&
        height == m_scaled.height) {
        return std::as_const(m_scaled).View();
    }
    if (!PictureSizeAllowed(width, height) || !HasScalerSlack(source)) {
        return {};
    }
    m_madeFrom = 0;
    ++m_scales;
    EnsureScalable(m_scaled, width, height);
    m_scaled.width = width;
    m_scaled.height = height;
    m_scaled.bitsPerPixel = 32;
    if (!ResizePicture32(source.View(), m_scaled.View(), &m_scaler)) {
        return {};
    }
    m_madeFrom = version;
    return std::as_const(m_scaled).View();
}

void BlendScaledIntoFrame(const PixelBuffer& source, PixelBuffer& scaled, const PictureView& frame,
                          const RECT& clip, POINT pos, float scale, uint32_t* rescales,
                          ScaledReuse* reuse, int64_t wholeLimit) {
    if (frame.data == nullptr || !IsFrameLayout(frame) || frame.width <= 0 || frame.height <= 0) {
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
    const int64_t sw = static_cast<int64_t>(scaledWidth);
    const int64_t sh = static_cast<int64_t>(scaledHeight);
    if (sw == 0 || sh == 0) {
        return;
    }

    // Where the scaled picture lands, and the part of it that can show.
    const RECT z{ScaleCoordinate(clip.left, scale), ScaleCoordinate(clip.top, scale),
                 ScaleCoordinate(clip.right, scale), ScaleCoordinate(clip.bottom, scale)};
    const POINT p{ScaleCoordinate(pos.x, scale), ScaleCoordinate(pos.y, scale)};
    const RECT frameRect{0, 0, frame.width, frame.height};
    const RECT whole = Placed(p, sw, sh);
    RECT inFrame{};
    RECT visible{};
    if (!platform::IntersectRect(&inFrame, &z, &frameRect) ||
        !platform::IntersectRect(&visible, &whole, &inFrame)) {
        return;
    }

    ConstPictureView picture = source.View();
    POINT at = p;
    const bool rescaled = source.width != sw || source.height != sh;
    if (rescaled) {
        if (!HasScalerSlack(source)) {
            return;
        }
        // While the whole scaled picture stays within wholeLimit it is scaled
        // whole, so that a text that only moves reuses it; beyond, only the
        // visible rows (memory rows run bottom-up), and the visible columns
        // where the sampling grid allows.
        int64_t rows = sh;
        int64_t firstRow = 0;
        Span columns{0, source.width, 0, sw};
        if (sw > wholeLimit || sh > wholeLimit / sw) {
            rows = int64_t{visible.bottom} - visible.top;
            firstRow = sh - (visible.bottom - int64_t{p.y});
            AlignedSpan(source.width, sw, visible.left - int64_t{p.x}, visible.right - int64_t{p.x},
                        &columns);
        }
        if (columns.dstLength > kMaxPicturePixels || columns.dstLength * rows > kMaxPicturePixels ||
            sh > INT32_MAX) {
            return;
        }
        const bool reusable = reuse != nullptr && reuse->source != 0 &&
                              reuse->madeFrom == reuse->source && reuse->scale == scale &&
                              reuse->columnStart == columns.srcStart &&
                              reuse->columns == columns.srcLength && reuse->firstRow == firstRow &&
                              reuse->rows == rows;
        if (!reusable) {
            if (reuse != nullptr) {
                reuse->madeFrom = 0;  // the buffer is about to change
                ++reuse->scaledVersion;
            }
            scaled.bitsPerPixel = 32;
            scaled.width = static_cast<int32_t>(columns.dstLength);
            scaled.height = static_cast<int32_t>(rows);
            EnsureScalable(scaled, scaled.width, scaled.height);
            if (rescales != nullptr) {
                ++*rescales;
            }
            // The part's rows end where the source's do or before, so the
            // source's slack serves the part too.
            const ConstPictureView part{
                picture.data + size_t{4} * static_cast<size_t>(columns.srcStart),
                static_cast<int32_t>(columns.srcLength), picture.height, 32, picture.strideBytes};
            // Without a scaling context there is no new picture to show; the
            // scaled buffer may hold anything, so nothing is blended.
            if (!ResizeRows32(part, scaled.View(), static_cast<int32_t>(sh),
                              static_cast<int32_t>(firstRow),
                              reuse != nullptr ? &reuse->scaler : nullptr)) {
                return;
            }
            if (reuse != nullptr) {
                reuse->madeFrom = reuse->source;
                reuse->scale = scale;
                reuse->columnStart = columns.srcStart;
                reuse->columns = columns.srcLength;
                reuse->firstRow = firstRow;
                reuse->rows = rows;
            }
        }
        picture = std::as_const(scaled).View();
        at = POINT{SaturateToInt32(p.x + columns.dstStart),
                   SaturateToInt32(p.y + (sh - firstRow - rows))};
    }
    const RECT placed = Placed(at, picture.width, picture.height);
    if (picture.data == nullptr || picture.width == 0 || picture.height == 0 ||
        !platform::IntersectRect(&visible, &placed, &inFrame)) {
        return;
    }
    // Top-down rows become memory rows: frame row y is height - 1 - y and
    // picture row v is height - 1 - v.
    const RECT dstRect{visible.left, frame.height - visible.bottom, visible.right,
                       frame.height - visible.top};
    const RECT srcRect{visible.left - at.x, picture.height - (visible.bottom - at.y),
                       visible.right - at.x, picture.height - (visible.top - at.y)};
    // The runs hold a packed copy of what shows: kept for pictures of
    // moderate size only.
    constexpr int64_t kMaxRunsPixels = int64_t{1} << 22;
    if (reuse == nullptr || reuse->source == 0 ||
        int64_t{picture.width} * picture.height > kMaxRunsPixels) {
        BlendRect(frame, dstRect, picture, srcRect);
        return;
    }
    // A picture seen once may never be seen again (a part scaled for this
    // frame alone): its runs are found when it comes back unchanged.
    const std::pair<uint64_t, uint64_t> blended{reuse->source, rescaled ? reuse->scaledVersion : 0};
    if (blended != reuse->runsOf && blended == reuse->lastBlended) {
        reuse->runs = FindRuns(picture);
        reuse->runsOf = blended;
    }
    reuse->lastBlended = blended;
    if (blended == reuse->runsOf) {
        BlendRectRuns(frame, dstRect, picture, srcRect, reuse->runs);
    } else {
        BlendRect(frame, dstRect, picture, srcRect);
    }
}

}  // namespace lumets
