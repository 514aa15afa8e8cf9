// Frames in and out of files with FFmpeg: H.264 MP4 and PNG writing, and
// backdrops read from an image or a video. Frames here are the library's:
// 24-bit B, G, R, rows bottom-up, padded to 4 bytes (FrameStride).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "files.h"
#include "lumets_common/av_handles.h"

namespace lumets::tool {

inline size_t FrameStride(int32_t width) {
    return (static_cast<size_t>(width) * 3 + 3) & ~size_t{3};
}
inline size_t FrameBytes(int32_t width, int32_t height) {
    return FrameStride(width) * static_cast<size_t>(height);
}

// A video file kind the writer makes, chosen by the output's extension.
struct VideoFormat {
    const char* extension;  // ".mp4"
    const char* muxer;      // FFmpeg's name for the container
    const char* encoder;    // and for the encoder
};

// The format for a lower-case extension; null for one that is not a video.
const VideoFormat* FindVideoFormat(const std::string& extension);
// "MP4, MKV, MOV or WebM (.mp4, .mkv, .mov, .webm)", for messages.
std::string VideoFormatList();

// A yuv420p video (H.264, or VP9 in WebM) at a constant frame rate.
class CVideoWriter {
  public:
    ~CVideoWriter();
    // False, with the reason in Error(), when the file cannot be made.
    bool Open(const std::string& path, const VideoFormat& format, int32_t width, int32_t height,
              double fps);
    bool Write(const uint8_t* frame);
    // Flushes the encoder and finishes the file.
    bool Close();
    // Why the last call failed: FFmpeg's or the system's own words.
    const std::string& Error() const { return m_error; }

  private:
    // Writes the packets the encoder has ready.
    bool Drain();
    // Notes a failure of what, with FFmpeg's text for code; always false.
    bool Fail(const std::string& what, int code);

    AvFormatContextPtr m_format;
    AvCodecContextPtr m_codec;
    AvFramePtr m_frame;
    AvPacketPtr m_packet;
    SwsContextPtr m_scaler;
    AVStream* m_stream = nullptr;
    int32_t m_width = 0;
    int32_t m_height = 0;
    int64_t m_next = 0;
    bool m_open = false;
    std::string m_error;
};

// Writes one frame as an RGB PNG, under a temporary name until it is whole.
// False, with the reason in *error, when it cannot.
bool WritePng(const std::string& path, const uint8_t* frame, int32_t width, int32_t height,
              std::string* error);

// Empty when path is a file that can serve as use; otherwise why not, in
// words ("not found", "is a folder, not a file", "is empty", "holds no
// movie ..."). Decodes the file's first picture, so it takes a moment.
std::string WhyNotUsable(const std::string& path, MediaUse use);

// A backdrop from an image (the same picture every frame) or a video (its
// frame at each time, looping), scaled to width x height.
class CBackdrop {
  public:
    // Null, with the reason in *error (without the path), when the file
    // cannot be decoded.
    static std::unique_ptr<CBackdrop> Open(const std::string& path, int32_t width, int32_t height,
                                           std::string* error);
    // Fills frame with the picture at time seconds.
    void FrameAt(double seconds, uint8_t* frame);

  private:
    // The next picture of the file into picture, with its time.
    bool DecodeInto(std::vector<uint8_t>& picture, double* time);
    void Restart();

    AvFormatContextPtr m_format;
    AvCodecContextPtr m_codec;
    AvFramePtr m_decoded;
    AvPacketPtr m_packet;
    SwsContextPtr m_scaler;
    int m_stream = -1;
    double m_timeBase = 0;
    int32_t m_width = 0;
    int32_t m_height = 0;
    // The picture shown and the one after it, in the library's layout.
    std::vector<uint8_t> m_picture;
    double m_pictureTime = 0;
    std::vector<uint8_t> m_next;
    double m_nextTime = 0;
    bool m_hasNext = false;  // false for a still picture and at a video's end
};

}  // namespace lumets::tool
