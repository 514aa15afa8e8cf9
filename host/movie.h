// Movies decoded as they play: a source hands out one frame at a time, each
// with the time at which it ends, and starts the movie again at its end. Only
// the frames a player keeps ahead are ever in memory, whatever the movie's
// length.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ffmpeg_util.h"

namespace lumets::host {

// Host paths are at most a few hundred units; this only bounds their reading.
inline constexpr size_t kMaxPathUnits = 32768;
// A larger picture is refused.
inline constexpr int32_t kMaxMovieSide = 8192;
// The most a file holding a movie may be read into memory at once (one
// animated WebP frame's chunk, say).
inline constexpr size_t kMaxChunkBytes = size_t{64} << 20;

// One frame as the decoder made it, in whatever pixel format it has (planar
// YUV, with alpha or not; packed RGB; B, G, R, A for animated WebP); it is
// converted for drawing only when drawn, to the size it is drawn at.
// A frame converted for drawing: bottom-up B, G, R, A at width x height.
struct ConvertedFrame {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> pixels;
};

// Converts picture into *out at width x height in one libswscale pass
// (bicubic), with *context kept while the sizes and the format stay. False
// when libswscale refuses.
bool ConvertFrame(const AVFrame& picture, int32_t width, int32_t height, SwsContextPtr* context,
                  ConvertedFrame* out);

struct DecodedFrame {
    FramePtr picture;
    // The player's thread converts each frame ahead, to the size drawn last,
    // before it shares the frame; null when nothing was drawn yet.
    std::shared_ptr<const ConvertedFrame> converted;
    // When the frame gives way to the next one, in milliseconds from the start
    // of its pass; strictly increasing within a pass. A pass's last frame's
    // end is the pass's length.
    uint64_t endMs = 0;
    bool last = false;  // the last frame of its pass
};

class CMovieSource {
  public:
    virtual ~CMovieSource() = default;
    // The next frame; after a pass's last frame, the first of the next pass.
    // False when no frame can be decoded any more (a file truncated or
    // replaced under a playing movie that no longer opens).
    virtual bool Next(DecodedFrame* frame) = 0;
    // Back to the start: the next frame is the first. False when the file can
    // no longer be opened.
    virtual bool Restart() = 0;

    int32_t Width() const { return m_width; }
    int32_t Height() const { return m_height; }
    // Frames per second as the file states it (0 when it does not).
    double NominalFps() const { return m_nominalFps; }

  protected:
    int32_t m_width = 0;
    int32_t m_height = 0;
    double m_nominalFps = 0;
};

// Opens the movie at path (UTF-8) and decodes its first frame into *first.
// Null when the file is missing, empty, of a kind this player does not play,
// larger than kMaxMovieSide a side, or holds no decodable frame.
std::unique_ptr<CMovieSource> OpenMovieSource(const std::string& path, DecodedFrame* first);

// The animated WebP source for path, whose first bytes say it is one; null
// when it holds no frame that decodes. The media library decodes still WebP
// pictures only, so the container is taken apart here.
std::unique_ptr<CMovieSource> OpenAnimatedWebP(const std::string& path, DecodedFrame* first);

// Opens path and decodes its first frame now, on the calling thread, and keeps
// both for a few seconds: a player that opens the same unchanged file
// meanwhile takes them instead of opening it under its caller's locks.
void PrepareMovie(const std::string& path);

}  // namespace lumets::host
