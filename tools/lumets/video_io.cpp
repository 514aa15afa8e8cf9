#include "video_io.h"

#include <lumets/host/flash_player.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include "files.h"
#include "lumets_common/png.h"
#include "lumets_platform/utf16.h"

namespace lumets::tool {
namespace {

// The library's bottom-up rows as a top-down picture for libswscale: start at
// the last row and step backwards.
void TopDown(const uint8_t* frame, int32_t width, int32_t height, const uint8_t** data,
             int* stride) {
    *stride = -static_cast<int>(FrameStride(width));
    *data = frame + FrameStride(width) * static_cast<size_t>(height - 1);
}

}  // namespace

const VideoFormat* FindVideoFormat(const std::string& extension) {
    static const VideoFormat kFormats[] = {{".mp4", "mp4", "libx264"},
                                           {".mkv", "matroska", "libx264"},
                                           {".mov", "mov", "libx264"},
                                           {".webm", "webm", "libvpx-vp9"}};
    for (const VideoFormat& format : kFormats) {
        if (extension == format.extension) {
            return &format;
        }
    }
    return nullptr;
}

std::string VideoFormatList() {
    return "MP4, MKV, MOV or WebM (.mp4, .mkv, .mov, .webm)";
}

CVideoWriter::~CVideoWriter() {
    if (m_open) {
        Close();
    }
}

bool CVideoWriter::Fail(const std::string& what, int code) {
    m_error = what + ": " + AvErrorText(code);
    return false;
}

bool CVideoWriter::Open(const std::string& path, const VideoFormat& container, int32_t width,
                        int32_t height, double fps) {
    m_width = width;
    m_height = height;
    AVFormatContext* format = nullptr;
    int rc = avformat_alloc_output_context2(&format, nullptr, container.muxer, path.c_str());
    m_format.reset(format);
    if (rc < 0) {
        return Fail("cannot make the container", rc);
    }
    const AVCodec* codec = avcodec_find_encoder_by_name(container.encoder);
    if (codec == nullptr) {
        m_error = std::string("this FFmpeg has no ") + container.encoder + " encoder";
        return false;
    }
    m_stream = avformat_new_stream(format, nullptr);
    m_codec.reset(avcodec_alloc_context3(codec));
    if (m_stream == nullptr || !m_codec) {
        return Fail("cannot start the encoder", AVERROR(ENOMEM));
    }
    // Frame rates like 29.97 as exact fractions.
    const AVRational rate = av_d2q(fps, 100000);
    m_codec->width = width;
    m_codec->height = height;
    m_codec->pix_fmt = AV_PIX_FMT_YUV420P;
    m_codec->time_base = av_inv_q(rate);
    m_codec->framerate = rate;
    m_codec->gop_size = static_cast<int>(std::lround(fps * 2));
    if ((format->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
        m_codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    if (codec->id == AV_CODEC_ID_H264) {
        av_opt_set(m_codec->priv_data, "preset", "veryfast", 0);
        av_opt_set(m_codec->priv_data, "crf", "20", 0);
    } else {
        // Constant quality at about the speed of the H.264 preset.
        m_codec->bit_rate = 0;
        av_opt_set(m_codec->priv_data, "crf", "32", 0);
        av_opt_set(m_codec->priv_data, "deadline", "realtime", 0);
        av_opt_set(m_codec->priv_data, "cpu-used", "8", 0);
        av_opt_set(m_codec->priv_data, "row-mt", "1", 0);
    }
    if ((rc = avcodec_open2(m_codec.get(), codec, nullptr)) < 0) {
        return Fail("cannot start the encoder", rc);
    }
    if ((rc = avcodec_parameters_from_context(m_stream->codecpar, m_codec.get())) < 0) {
        return Fail("cannot start the encoder", rc);
    }
    m_stream->time_base = m_codec->time_base;
    m_stream->avg_frame_rate = rate;
    if ((rc = avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0 ||
        (rc = avformat_write_header(format, nullptr)) < 0) {
        return Fail("cannot write", rc);
    }
    m_frame.reset(av_frame_alloc());
    m_packet.reset(av_packet_alloc());
    m_scaler.reset(sws_getContext(width, height, AV_PIX_FMT_BGR24, width, height,
                                  AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!m_frame || !m_packet || !m_scaler) {
        return Fail("cannot convert the frames", AVERROR(ENOMEM));
    }
    m_frame->format = AV_PIX_FMT_YUV420P;
    m_frame->width = width;
    m_frame->height = height;
    if ((rc = av_frame_get_buffer(m_frame.get(), 0)) < 0) {
        return Fail("cannot convert the frames", rc);
    }
    m_open = true;
    return true;
}

bool CVideoWriter::Write(const uint8_t* frame) {
    if (!m_open) {
        m_error = "the video is not open";
        return false;
    }
    int rc = av_frame_make_writable(m_frame.get());
    if (rc < 0) {
        return Fail("cannot convert the frames", rc);
    }
    const uint8_t* data[1];
    int stride[1];
    TopDown(frame, m_width, m_height, &data[0], &stride[0]);
    sws_scale(m_scaler.get(), data, stride, 0, m_height, m_frame->data, m_frame->linesize);
    m_frame->pts = m_next++;
    if ((rc = avcodec_send_frame(m_codec.get(), m_frame.get())) < 0) {
        return Fail("cannot encode", rc);
    }
    return Drain();
}

bool CVideoWriter::Drain() {
    for (;;) {
        int rc = avcodec_receive_packet(m_codec.get(), m_packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
            break;
        }
        if (rc < 0) {
            return Fail("cannot encode", rc);
        }
        av_packet_rescale_ts(m_packet.get(), m_codec->time_base, m_stream->time_base);
        m_packet->stream_index = m_stream->index;
        if ((rc = av_interleaved_write_frame(m_format.get(), m_packet.get())) < 0) {
            return Fail("cannot write", rc);
        }
    }
    // Writes go through a buffer: a full disk shows here first.
    return m_format->pb->error >= 0 || Fail("cannot write", m_format->pb->error);
}

bool CVideoWriter::Close() {
    if (!m_open) {
        return false;
    }
    m_open = false;
    int rc = avcodec_send_frame(m_codec.get(), nullptr);
    if (rc < 0) {
        Fail("cannot encode", rc);
    }
    bool ok = rc >= 0 && Drain();
    if ((rc = av_write_trailer(m_format.get())) < 0 && ok) {
        ok = Fail("cannot write", rc);
    }
    avio_flush(m_format->pb);
    if (m_format->pb->error < 0 && ok) {
        ok = Fail("cannot write", m_format->pb->error);
    }
    if ((rc = avio_closep(&m_format->pb)) < 0 && ok) {
        ok = Fail("cannot write", rc);
    }
    return ok;
}

bool WritePng(const std::string& path, const uint8_t* frame, int32_t width, int32_t height,
              std::string* error) {
    const uint8_t* top = nullptr;
    int stride = 0;
    TopDown(frame, width, height, &top, &stride);
    std::vector<uint8_t> png;
    return EncodePng(top, stride, AV_PIX_FMT_BGR24, width, height, &png, error) &&
           WriteWholeFile(path, png.data(), png.size(), error);
}

std::string WhyNotUsable(const std::string& path, MediaUse use) {
    std::string why = WhyNotAFile(path);
    std::error_code error;
    if (why.empty() && std::filesystem::file_size(path, error) == 0) {
        why = "is empty";
    }
    if (!why.empty()) {
        return why;
    }
    if (use == MediaUse::Movie) {
        // The player the library itself will use, so that what passes here plays.
        const std::unique_ptr<IFlashPlayer, void (*)(IFlashPlayer*)> player(CreateFlashPlayer(),
                                                                            DeleteFlashPlayer);
        uint32_t width = 0;
        uint32_t height = 0;
        if (player) {
            player->Open(platform::Utf8ToU16(path).c_str(), 0, false);
        }
        if (!player || !player->GetSize(&width, &height)) {
            return "holds no movie that can be played (an animated PNG, GIF or WebP, a WebM or "
                   "an MP4)";
        }
        return {};
    }
    if (!CBackdrop::Open(path, 16, 16, &why)) {
        return "holds no picture that can be decoded: " + why;
    }
    return {};
}

std::unique_ptr<CBackdrop> CBackdrop::Open(const std::string& path, int32_t width, int32_t height,
                                           std::string* error) {
    auto backdrop = std::unique_ptr<CBackdrop>(new CBackdrop());
    AVFormatContext* format = nullptr;
    int rc = avformat_open_input(&format, path.c_str(), nullptr, nullptr);
    backdrop->m_format.reset(format);
    if (rc < 0 || (rc = avformat_find_stream_info(format, nullptr)) < 0) {
        *error = AvErrorText(rc);
        return nullptr;
    }
    const AVCodec* codec = nullptr;
    backdrop->m_stream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (backdrop->m_stream < 0 || codec == nullptr) {
        *error = "no picture in it";
        return nullptr;
    }
    const AVStream* stream = format->streams[backdrop->m_stream];
    backdrop->m_codec.reset(avcodec_alloc_context3(codec));
    backdrop->m_decoded.reset(av_frame_alloc());
    backdrop->m_packet.reset(av_packet_alloc());
    if (!backdrop->m_codec || !backdrop->m_decoded || !backdrop->m_packet ||
        avcodec_parameters_to_context(backdrop->m_codec.get(), stream->codecpar) < 0 ||
        avcodec_open2(backdrop->m_codec.get(), codec, nullptr) < 0) {
        *error = "cannot decode it";
        return nullptr;
    }
    backdrop->m_timeBase = av_q2d(stream->time_base);
    backdrop->m_width = width;
    backdrop->m_height = height;
    backdrop->m_picture.assign(FrameBytes(width, height), 0);
    backdrop->m_next.assign(FrameBytes(width, height), 0);
    if (!backdrop->DecodeInto(backdrop->m_picture, &backdrop->m_pictureTime)) {
        *error = "no picture could be decoded";
        return nullptr;
    }
    backdrop->m_hasNext = backdrop->DecodeInto(backdrop->m_next, &backdrop->m_nextTime);
    return backdrop;
}

bool CBackdrop::DecodeInto(std::vector<uint8_t>& picture, double* time) {
    for (;;) {
        int rc = avcodec_receive_frame(m_codec.get(), m_decoded.get());
        if (rc == 0) {
            break;
        }
        if (rc == AVERROR_EOF) {
            return false;
        }
        rc = av_read_frame(m_format.get(), m_packet.get());
        if (rc < 0) {
            if (avcodec_send_packet(m_codec.get(), nullptr) < 0) {
                return false;
            }
            continue;
        }
        if (m_packet->stream_index == m_stream) {
            avcodec_send_packet(m_codec.get(), m_packet.get());
        }
        av_packet_unref(m_packet.get());
    }
    const AVFrame& f = *m_decoded;
    m_scaler.reset(sws_getCachedContext(m_scaler.release(), f.width, f.height,
                                        static_cast<AVPixelFormat>(f.format), m_width, m_height,
                                        AV_PIX_FMT_BGR24, SWS_BICUBIC, nullptr, nullptr, nullptr));
    bool ok = m_scaler != nullptr;
    if (ok) {
        uint8_t* data[1] = {picture.data() + FrameStride(m_width) * (m_height - 1)};
        int stride[1] = {-static_cast<int>(FrameStride(m_width))};
        sws_scale(m_scaler.get(), f.data, f.linesize, 0, f.height, data, stride);
        const int64_t pts = f.best_effort_timestamp == AV_NOPTS_VALUE ? 0 : f.best_effort_timestamp;
        *time = static_cast<double>(pts) * m_timeBase;
    }
    av_frame_unref(m_decoded.get());
    return ok;
}

void CBackdrop::Restart() {
    av_seek_frame(m_format.get(), m_stream, 0, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(m_codec.get());
    DecodeInto(m_picture, &m_pictureTime);
    m_hasNext = DecodeInto(m_next, &m_nextTime);
}

void CBackdrop::FrameAt(double seconds, uint8_t* frame) {
    // A video plays on and starts again at its end.
    const double length =
        m_format->duration > 0 ? static_cast<double>(m_format->duration) / 1e6 : 0;
    const double t =
        length > 0 && (m_hasNext || m_pictureTime > 0) ? std::fmod(seconds, length) : seconds;
    if (t + 1e-6 < m_pictureTime) {
        Restart();
    }
    while (m_hasNext && m_nextTime <= t + 1e-6) {
        m_picture.swap(m_next);
        m_pictureTime = m_nextTime;
        m_hasNext = DecodeInto(m_next, &m_nextTime);
    }
    std::memcpy(frame, m_picture.data(), m_picture.size());
}

}  // namespace lumets::tool
