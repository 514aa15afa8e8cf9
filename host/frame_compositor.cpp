#include "frame_compositor.h"

#include <algorithm>

#include "image/ffmpeg_quiet.h"
#include "image/pixel_ops.h"
#include "image/scaled_composite.h"

namespace lumets::host {
namespace {

// At most 32 Mi pixels after scaling: a host asking for more gets nothing
// rather than an allocation of gigabytes.
constexpr int64_t kMaxScaledPixels = int64_t{1} << 25;

// GBRAP keeps its planes in the order G, B, R, A. One plain loop per
// direction, with the planes apart: the compiler turns each into shuffles.
void ToPlanes(const uint8_t* __restrict packed, size_t pixels, uint8_t* __restrict planes) {
    uint8_t* __restrict g = planes;
    uint8_t* __restrict b = planes + pixels;
    uint8_t* __restrict r = planes + 2 * pixels;
    uint8_t* __restrict a = planes + 3 * pixels;
    for (size_t i = 0; i < pixels; ++i) {
        b[i] = packed[4 * i];
        g[i] = packed[4 * i + 1];
        r[i] = packed[4 * i + 2];
        a[i] = packed[4 * i + 3];
    }
}

void FromPlanes(const uint8_t* __restrict planes, size_t pixels, uint8_t* __restrict packed) {
    const uint8_t* __restrict g = planes;
    const uint8_t* __restrict b = planes + pixels;
    const uint8_t* __restrict r = planes + 2 * pixels;
    const uint8_t* __restrict a = planes + 3 * pixels;
    for (size_t i = 0; i < pixels; ++i) {
        packed[4 * i] = b[i];
        packed[4 * i + 1] = g[i];
        packed[4 * i + 2] = r[i];
        packed[4 * i + 3] = a[i];
    }
}

}  // namespace

void BlendIntoFrame24(const PictureView& frame, const RECT& clip, POINT pos,
                      const ConstPictureView& picture) {
    if (frame.data == nullptr || frame.bitsPerPixel != 24 || picture.data == nullptr ||
        picture.bitsPerPixel != 32 || picture.width <= 0 || picture.height <= 0) {
        return;
    }
    // 64-bit arithmetic throughout: positions near the 32-bit limits must not wrap.
    const int64_t left = std::max<int64_t>({std::min(clip.left, clip.right), 0, pos.x});
    const int64_t right = std::min<int64_t>(
        {std::max(clip.left, clip.right), frame.width, int64_t{pos.x} + picture.width});
    const int64_t top = std::max<int64_t>({std::min(clip.top, clip.bottom), 0, pos.y});
    const int64_t bottom = std::min<int64_t>(
        {std::max(clip.top, clip.bottom), frame.height, int64_t{pos.y} + picture.height});
    if (left >= right || top >= bottom) {
        return;
    }
    // Both pictures are stored bottom-up: top-down row y is memory row
    // height - 1 - y. The library's own blend does the pixels.
    const int64_t fh = frame.height;
    const int64_t ph = picture.height;
    const RECT dstRect{static_cast<int32_t>(left), static_cast<int32_t>(fh - bottom),
                       static_cast<int32_t>(right), static_cast<int32_t>(fh - top)};
    const RECT srcRect{
        static_cast<int32_t>(left - pos.x), static_cast<int32_t>(ph - (bottom - pos.y)),
        static_cast<int32_t>(right - pos.x), static_cast<int32_t>(ph - (top - pos.y))};
    BlendRect(frame, dstRect, picture, srcRect);
}

void ScaledSize(int32_t width, int32_t height, float scale, int32_t* scaledWidth,
                int32_t* scaledHeight) {
    *scaledWidth = 0;
    *scaledHeight = 0;
    // Also false for NaN.
    if (!(scale > 0.f) || width <= 0 || height <= 0) {
        return;
    }
    const float w = static_cast<float>(width) * scale;
    const float h = static_cast<float>(height) * scale;
    if (!(w < static_cast<float>(kMaxMovieSide * 8)) ||
        !(h < static_cast<float>(kMaxMovieSide * 8))) {
        return;
    }
    const auto sw = static_cast<int32_t>(w);
    const auto sh = static_cast<int32_t>(h);
    if (sw <= 0 || sh <= 0 || int64_t{sw} * sh > kMaxScaledPixels) {
        return;
    }
    *scaledWidth = sw;
    *scaledHeight = sh;
}

const uint8_t* CScaledFrameCache::Get(const std::shared_ptr<const CMovie>& movie, size_t frameIndex,
                                      int32_t width, int32_t height) {
    if (!movie || frameIndex >= movie->frames.size() || width <= 0 || height <= 0) {
        return nullptr;
    }
    const std::vector<uint8_t>& source = movie->frames[frameIndex];
    if (width == movie->width && height == movie->height) {
        return source.data();
    }
    if (m_movie == movie && m_frameIndex == frameIndex && m_width == width && m_height == height) {
        return m_pixels.data();
    }
    m_movie.reset();
    const CQuietFfmpeg quiet;
    // Planar RGB with alpha: libswscale scales it plane by plane with its
    // vector filters and no detour through YUV, about twice as fast as packed
    // B, G, R, A; the (un)packing around it is plain copies.
    SwsContext* scaler = m_scaler.Get(movie->width, movie->height, width, height, AV_PIX_FMT_GBRAP);
    if (scaler == nullptr) {
        return nullptr;
    }
    const size_t sourcePixels =
        static_cast<size_t>(movie->width) * static_cast<size_t>(movie->height);
    const size_t scaledPixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    m_sourcePlanes.resize(sourcePixels * 4);
    m_scaledPlanes.resize(scaledPixels * 4);
    m_pixels.resize(scaledPixels * 4);
    ToPlanes(source.data(), sourcePixels, m_sourcePlanes.data());
    // Bottom-up in, bottom-up out: scaling does not care which way rows run.
    const uint8_t* srcPlanes[4];
    uint8_t* dstPlanes[4];
    int srcStrides[4];
    int dstStrides[4];
    for (size_t p = 0; p < 4; ++p) {
        srcPlanes[p] = m_sourcePlanes.data() + p * sourcePixels;
        dstPlanes[p] = m_scaledPlanes.data() + p * scaledPixels;
        srcStrides[p] = movie->width;
        dstStrides[p] = width;
    }
    if (sws_scale(scaler, srcPlanes, srcStrides, 0, movie->height, dstPlanes, dstStrides) !=
        height) {
        return nullptr;
    }
    FromPlanes(m_scaledPlanes.data(), scaledPixels, m_pixels.data());
    m_movie = movie;
    m_frameIndex = frameIndex;
    m_width = width;
    m_height = height;
    return m_pixels.data();
}

}  // namespace lumets::host
