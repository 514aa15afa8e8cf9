// Putting movie frames into the host's frames: converting and scaling with
// libswscale and straight-alpha blending, clipped.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ffmpeg_util.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "lumets_common/scaled_composite.h"
#include "movie.h"

namespace lumets::host {

// The size of a movie frame drawn at scale, truncated toward zero; 0 x 0 when
// the scale is not a positive number or the result would exceed the limits.
void ScaledSize(int32_t width, int32_t height, float scale, int32_t* scaledWidth,
                int32_t* scaledHeight);

// Turns decoded movie frames into bottom-up B, G, R, A pictures at the size
// they are drawn at: the one the player's thread made ahead when the size is
// that, or else one libswscale pass (bicubic) from the decoder's own format,
// kept, so that a host drawing faster than the movie changes pays for one
// conversion per movie frame and size. Thread-safe.
class CFrameConversion {
  public:
    // Calls draw with the frame's pixels at width x height, under the
    // conversion's lock. Nothing is drawn when the frame cannot be converted.
    template <typename Draw>
    void WithFrame(const std::shared_ptr<const DecodedFrame>& frame, int32_t width, int32_t height,
                   Draw&& draw) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (const uint8_t* pixels = Get(frame, width, height)) {
            draw(pixels);
        }
    }

  private:
    const uint8_t* Get(const std::shared_ptr<const DecodedFrame>& frame, int32_t width,
                       int32_t height);

    std::mutex m_mutex;
    std::shared_ptr<const DecodedFrame> m_frame;  // the frame m_converted shows
    ConvertedFrame m_converted;
    SwsContextPtr m_scaler;
};

}  // namespace lumets::host
