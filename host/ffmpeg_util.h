// Owning handles for the FFmpeg objects the media player uses.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <memory>

namespace lumets::host {

struct FormatContextDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct SwsContextDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;

// Converts decoded frames of any size and format into top-down B, G, R, A
// pictures of the same size, keeping one scaler for as long as the input stays
// the same.
class CFrameConverter {
  public:
    // Points *pixels and *strideBytes at the converted picture, valid until the
    // next call. False when the frame cannot be converted.
    bool Convert(const AVFrame& frame, const uint8_t** pixels, int* strideBytes);

  private:
    SwsContextPtr m_scaler;
    FramePtr m_output;
};

}  // namespace lumets::host
