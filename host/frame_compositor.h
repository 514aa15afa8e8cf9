// Putting movie frames into the host's 24-bit frames: scaling with libswscale
// and straight-alpha blending, clipped.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ffmpeg_util.h"
#include "image/picture.h"
#include "image/scaled_composite.h"
#include "lumets/win_types.h"
#include "movie.h"

namespace lumets::host {

// Blends a bottom-up 32-bit picture into a 24-bit bottom-up frame. The
// picture's top-left lands at pos (top-down frame coordinates); only pixels
// inside clip (put into order first) and inside the frame change, each as
// D = ((255 - a) * D + S * a) / 255.
void BlendIntoFrame24(const PictureView& frame, const RECT& clip, POINT pos,
                      const ConstPictureView& picture);

// The size of a movie frame drawn at scale, truncated toward zero; 0 x 0 when
// the scale is not a positive number or the result would exceed the limits.
void ScaledSize(int32_t width, int32_t height, float scale, int32_t* scaledWidth,
                int32_t* scaledHeight);

// Keeps the last scaled frame, so that a host drawing faster than the movie
// changes pays for one scale per movie frame. Thread-safe.
class CScaledFrameCache {
  public:
    // Calls draw with the frame's pixels at the requested size (scaled with
    // SWS_BICUBIC when it differs from the movie's), under the cache's lock.
    // A frame is scaled once per frame index and size, with a context kept
    // while the sizes stay.
    template <typename Draw>
    void WithFrame(const std::shared_ptr<const CMovie>& movie, size_t frameIndex, int32_t width,
                   int32_t height, Draw&& draw) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (const uint8_t* pixels = Get(movie, frameIndex, width, height)) {
            draw(pixels);
        }
    }

    // For tests: the scaling contexts made so far.
    uint32_t ContextCount() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_scaler.ContextsMade();
    }

  private:
    const uint8_t* Get(const std::shared_ptr<const CMovie>& movie, size_t frameIndex, int32_t width,
                       int32_t height);

    std::mutex m_mutex;
    std::shared_ptr<const CMovie> m_movie;
    size_t m_frameIndex = 0;
    int32_t m_width = 0;
    int32_t m_height = 0;
    std::vector<uint8_t> m_pixels;  // the scaled frame, B, G, R, A
    std::vector<uint8_t> m_sourcePlanes;
    std::vector<uint8_t> m_scaledPlanes;
    CScalerCache m_scaler;
};

}  // namespace lumets::host
