// Owning handles for the FFmpeg objects the library and the media player make: each frees its
// object with the matching FFmpeg call when it goes out of scope. Null is a
// valid, empty handle.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace lumets {

struct AvFormatContextFree {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct AvCodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct AvFrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct AvPacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct AvDictionaryFree {
    void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};
struct SwsContextFree {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using AvFormatContextPtr = std::unique_ptr<AVFormatContext, AvFormatContextFree>;
using AvCodecContextPtr = std::unique_ptr<AVCodecContext, AvCodecContextFree>;
using AvFramePtr = std::unique_ptr<AVFrame, AvFrameFree>;
using AvPacketPtr = std::unique_ptr<AVPacket, AvPacketFree>;
using AvDictionaryPtr = std::unique_ptr<AVDictionary, AvDictionaryFree>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextFree>;

}  // namespace lumets
