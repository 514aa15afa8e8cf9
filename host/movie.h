// A decoded movie: every frame of a short animation as a 32-bit picture, with
// the times at which each frame ends. Immutable once made, so the playing
// thread and any number of render calls share it without a lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lumets::host {

struct CMovie {
    int32_t width = 0;
    int32_t height = 0;
    // B, G, R, A with straight alpha, rows of width x 4 bytes stored bottom-up
    // (OpenGL's order), one vector per frame.
    std::vector<std::vector<uint8_t>> frames;
    // frameEndMs[i]: when frame i gives way to the next one, in milliseconds
    // from the start of a pass; strictly increasing. The last is the pass length.
    std::vector<uint64_t> frameEndMs;

    uint64_t DurationMs() const { return frameEndMs.empty() ? 0 : frameEndMs.back(); }
    size_t FrameBytes() const {
        return static_cast<size_t>(width) * static_cast<size_t>(height) * 4u;
    }
};

// Limits on what a movie may hold: a longer one is cut short at the limit, a
// larger picture is refused.
inline constexpr int32_t kMaxMovieSide = 8192;
inline constexpr size_t kMaxMovieBytes = size_t{256} << 20;
inline constexpr size_t kMaxMovieFrames = 10000;

// Decodes the whole movie at path (UTF-8). Null when the file is missing,
// empty, of a kind this player does not play, or holds no decodable frame.
std::shared_ptr<const CMovie> DecodeMovie(const std::string& path);

// Frames of an animated WebP file (a RIFF container whose frames the media
// library decodes one by one). Null when data is not an animated WebP.
std::shared_ptr<const CMovie> DecodeAnimatedWebP(const std::vector<uint8_t>& data);

// Helper for decoders: appends one picture (top-down rows of width x 4 bytes,
// B, G, R, A) as the next frame, ending at endMs. False when the movie's limits
// are reached.
bool AppendTopDownFrame(CMovie& movie, const uint8_t* pixels, size_t strideBytes, uint64_t endMs);

}  // namespace lumets::host
