// Owning handles for the FFmpeg objects the media player uses.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <cstdio>
#include <memory>

#include "lumets_common/av_handles.h"

namespace lumets::host {

using FormatContextPtr = AvFormatContextPtr;
using CodecContextPtr = AvCodecContextPtr;
using FramePtr = AvFramePtr;
using PacketPtr = AvPacketPtr;

struct FileClose {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;

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
