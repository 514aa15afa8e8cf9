#include "lumets_common/png.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include "lumets_common/av_handles.h"

namespace lumets {

std::string AvErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

bool EncodePng(const uint8_t* top, int stride, AVPixelFormat format, int32_t width, int32_t height,
               std::vector<uint8_t>* png, std::string* error) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    AvCodecContextPtr context(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    AvFramePtr picture(av_frame_alloc());
    AvPacketPtr packet(av_packet_alloc());
    if (!context || !picture || !packet) {
        *error = "no PNG encoder";
        return false;
    }
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    context->time_base = AVRational{1, 1};
    picture->format = AV_PIX_FMT_RGB24;
    picture->width = width;
    picture->height = height;
    SwsContextPtr scaler(sws_getContext(width, height, format, width, height, AV_PIX_FMT_RGB24,
                                        SWS_POINT, nullptr, nullptr, nullptr));
    int rc = AVERROR(ENOMEM);
    if (!scaler || (rc = avcodec_open2(context.get(), codec, nullptr)) < 0 ||
        (rc = av_frame_get_buffer(picture.get(), 0)) < 0) {
        *error = "cannot encode: " + AvErrorText(rc);
        return false;
    }
    const uint8_t* data[1] = {top};
    const int strides[1] = {stride};
    sws_scale(scaler.get(), data, strides, 0, height, picture->data, picture->linesize);
    if ((rc = avcodec_send_frame(context.get(), picture.get())) < 0 ||
        (rc = avcodec_receive_packet(context.get(), packet.get())) < 0) {
        *error = "cannot encode: " + AvErrorText(rc);
        return false;
    }
    png->assign(packet->data, packet->data + packet->size);
    return true;
}

}  // namespace lumets
