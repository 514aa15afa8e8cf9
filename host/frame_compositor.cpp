#include "frame_compositor.h"

#include <algorithm>

#include "lumets_common/ffmpeg_quiet.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_common/scaled_composite.h"

namespace lumets::host {
namespace {

// At most 32 Mi pixels after scaling: a host asking for more gets nothing
// rather than an allocation of gigabytes.
constexpr int64_t kMaxScaledPixels = int64_t{1} << 25;

}  // namespace

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

bool ConvertFrame(const AVFrame& picture, int32_t width, int32_t height, SwsContextPtr* scaler,
                  ConvertedFrame* out) {
    if (width <= 0 || height <= 0) {
        return false;
    }
    const CQuietFfmpeg quiet;
    SwsContext* context =
        sws_getCachedContext(scaler->release(), picture.width, picture.height,
                             static_cast<AVPixelFormat>(picture.format), width, height,
                             AV_PIX_FMT_BGRA, SWS_BICUBIC, nullptr, nullptr, nullptr);
    scaler->reset(context);
    if (context == nullptr) {
        return false;
    }
    // Bottom-up out: start at the last row and step backwards. The slack
    // covers vector stores past the last pixel.
    const size_t rowBytes = static_cast<size_t>(width) * 4u;
    out->pixels.resize(rowBytes * static_cast<size_t>(height) + 64);
    uint8_t* rows[4] = {out->pixels.data() + rowBytes * static_cast<size_t>(height - 1)};
    const int strides[4] = {-static_cast<int>(rowBytes)};
    if (sws_scale(context, picture.data, picture.linesize, 0, picture.height, rows, strides) !=
        height) {
        return false;
    }
    out->width = width;
    out->height = height;
    return true;
}

const uint8_t* CFrameConversion::Get(const std::shared_ptr<const DecodedFrame>& frame,
                                     int32_t width, int32_t height) {
    if (!frame || !frame->picture || width <= 0 || height <= 0) {
        return nullptr;
    }
    const ConvertedFrame* ahead = frame->converted.get();
    if (ahead != nullptr && ahead->width == width && ahead->height == height) {
        if (m_frame) {
            // Frames come converted at this size now: the kept one can go.
            m_frame.reset();
            m_converted = ConvertedFrame{};
        }
        return ahead->pixels.data();
    }
    if (m_frame == frame && m_converted.width == width && m_converted.height == height) {
        return m_converted.pixels.data();
    }
    m_frame.reset();
    if (!ConvertFrame(*frame->picture, width, height, &m_scaler, &m_converted)) {
        return nullptr;
    }
    m_frame = frame;
    return m_converted.pixels.data();
}

}  // namespace lumets::host
