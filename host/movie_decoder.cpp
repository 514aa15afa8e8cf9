// Movies that FFmpeg demuxes and decodes, a frame at a time.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>

#include "ffmpeg_util.h"
#include "lumets_common/ffmpeg_quiet.h"
#include "movie.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace lumets::host {
namespace {

// Containers this player opens. Others are refused even when FFmpeg could
// probe them: a stray text file would otherwise "play" as terminal art.
constexpr const char* kContainers = "apng,gif,gif_pipe,matroska,webm,mov,mp4,webp_pipe,png_pipe";

bool IsPlayableCodec(AVCodecID id) {
    switch (id) {
        case AV_CODEC_ID_APNG:
        case AV_CODEC_ID_PNG:
        case AV_CODEC_ID_GIF:
        case AV_CODEC_ID_WEBP:
        case AV_CODEC_ID_VP8:
        case AV_CODEC_ID_VP9:
        case AV_CODEC_ID_AV1:
        case AV_CODEC_ID_H264:
        case AV_CODEC_ID_HEVC:
        case AV_CODEC_ID_MPEG4:
            return true;
        default:
            return false;
    }
}

// FFmpeg's own VP8/VP9 decoders ignore the alpha plane that WebM carries
// beside the picture; the libvpx wrappers decode it into a YUVA picture.
const AVCodec* FindDecoder(const AVStream& stream) {
    const AVCodecID id = stream.codecpar->codec_id;
    const AVDictionaryEntry* alpha = av_dict_get(stream.metadata, "alpha_mode", nullptr, 0);
    if (alpha != nullptr && std::strcmp(alpha->value, "1") == 0) {
        const char* name = id == AV_CODEC_ID_VP9   ? "libvpx-vp9"
                           : id == AV_CODEC_ID_VP8 ? "libvpx"
                                                   : nullptr;
        if (name != nullptr) {
            if (const AVCodec* codec = avcodec_find_decoder_by_name(name)) {
                return codec;
            }
        }
    }
    return avcodec_find_decoder(id);
}

bool LooksLikeAnimatedWebP(const std::string& path) {
    const FilePtr file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        return false;
    }
    uint8_t header[21] = {};
    const size_t got = std::fread(header, 1, sizeof header, file.get());
    // RIFF....WEBPVP8X, then the VP8X flags byte with its animation bit.
    return got == sizeof header && std::memcmp(header, "RIFF", 4) == 0 &&
           std::memcmp(header + 8, "WEBPVP8X", 8) == 0 && (header[20] & 0x02) != 0;
}

// Frame times in milliseconds from the stream's time stamps, one pass at a
// time. Missing or non-increasing stamps fall back to the nominal frame
// duration.
class CFrameClock {
  public:
    explicit CFrameClock(const AVStream& stream) : m_timeBase(stream.time_base) {
        AVRational rate = stream.avg_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) {
            rate = stream.r_frame_rate;
        }
        m_fps = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0.0;
        m_nominalMs = m_fps >= 0.1 && m_fps <= 1000.0 ? std::llround(1000.0 / m_fps) : 100;
    }

    double Fps() const { return m_fps; }

    // A new pass: its first frame starts at 0.
    void Restart() {
        m_firstStamp = AV_NOPTS_VALUE;
        m_lastStartMs = -1;
    }

    // The start of a frame with this stamp and duration (stream time base units).
    uint64_t Add(int64_t stamp, int64_t duration) {
        int64_t startMs = -1;
        if (stamp != AV_NOPTS_VALUE && m_timeBase.num > 0 && m_timeBase.den > 0) {
            if (m_firstStamp == AV_NOPTS_VALUE) {
                m_firstStamp = stamp;
            }
            startMs = av_rescale_q(stamp - m_firstStamp, m_timeBase, AVRational{1, 1000});
        }
        if (startMs <= m_lastStartMs) {
            startMs = m_lastStartMs < 0 ? 0 : m_lastStartMs + m_nominalMs;
        }
        m_lastStartMs = startMs;
        m_lastDurationMs = duration > 0 && m_timeBase.num > 0
                               ? av_rescale_q(duration, m_timeBase, AVRational{1, 1000})
                               : m_nominalMs;
        if (m_lastDurationMs <= 0) {
            m_lastDurationMs = m_nominalMs;
        }
        return static_cast<uint64_t>(startMs);
    }

    // How long the frame added last lasts when no frame follows it.
    uint64_t LastDurationMs() const { return static_cast<uint64_t>(m_lastDurationMs); }

  private:
    AVRational m_timeBase;
    double m_fps = 0;
    int64_t m_nominalMs = 100;
    int64_t m_firstStamp = AV_NOPTS_VALUE;
    int64_t m_lastStartMs = -1;
    int64_t m_lastDurationMs = 100;
};

// A movie FFmpeg demuxes and decodes, one frame ahead: a frame's end is the
// start of the frame after it.
class CFfmpegSource final : public CMovieSource {
  public:
    bool Open(const std::string& path, DecodedFrame* first) {
        m_path = path;
        return OpenFile() && Next(first);
    }

    bool Next(DecodedFrame* frame) override {
        const CQuietFfmpeg quiet;
        if (!m_pending.picture) {
            if (m_passEnded && !Rewind()) {
                return false;
            }
            m_passEnded = false;
            if (!ReadPicture(&m_pending)) {
                return false;
            }
        }
        Picture following;
        if (ReadPicture(&following)) {
            frame->endMs = following.startMs;
            frame->last = false;
            frame->picture = std::move(m_pending.picture);
            m_pending = std::move(following);
            return true;
        }
        frame->endMs = m_pending.startMs + m_clock->LastDurationMs();
        frame->last = true;
        frame->picture = std::move(m_pending.picture);
        m_passEnded = true;
        return true;
    }

    bool Restart() override {
        const CQuietFfmpeg quiet;
        m_pending = Picture{};
        m_passEnded = false;
        return Rewind();
    }

  private:
    struct Picture {
        FramePtr picture;
        uint64_t startMs = 0;
    };

    bool OpenFile() {
        m_format.reset();
        m_codec.reset();
        AVFormatContext* raw = nullptr;
        AVDictionary* options = nullptr;
        av_dict_set(&options, "format_whitelist", kContainers, 0);
        const int opened = avformat_open_input(&raw, m_path.c_str(), nullptr, &options);
        const AvDictionaryPtr unusedOptions(options);  // what the demuxer did not take
        if (opened < 0) {
            return false;
        }
        m_format.reset(raw);
        if (avformat_find_stream_info(m_format.get(), nullptr) < 0) {
            return false;
        }
        m_streamIndex = av_find_best_stream(m_format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (m_streamIndex < 0) {
            return false;
        }
        const AVStream& stream = *m_format->streams[m_streamIndex];
        if (!IsPlayableCodec(stream.codecpar->codec_id) || !OpenDecoder(stream)) {
            return false;
        }
        m_clock.emplace(stream);
        m_nominalFps = m_clock->Fps();
        m_packet.reset(av_packet_alloc());
        m_frame.reset(av_frame_alloc());
        m_draining = false;
        return m_packet && m_frame;
    }

    bool OpenDecoder(const AVStream& stream) {
        const AVCodec* codec = FindDecoder(stream);
        if (codec == nullptr) {
            return false;
        }
        m_codec.reset(avcodec_alloc_context3(codec));
        if (!m_codec || avcodec_parameters_to_context(m_codec.get(), stream.codecpar) < 0) {
            return false;
        }
        // One thread per movie: the player's own. The decoder's threads would
        // only compete with the host's and hide their synchronisation from
        // the thread sanitizer.
        m_codec->thread_count = 1;
        return avcodec_open2(m_codec.get(), codec, nullptr) >= 0;
    }

    // Back to the first frame: a seek where the container has an index, a
    // new start of the file where it has not (or the seek fails).
    bool Rewind() {
        m_clock->Restart();
        m_draining = false;
        const char* name = m_format->iformat->name;
        const bool indexed =
            std::strstr(name, "matroska") != nullptr || std::strstr(name, "mp4") != nullptr;
        if (indexed &&
            av_seek_frame(m_format.get(), m_streamIndex, INT64_MIN, AVSEEK_FLAG_BACKWARD) >= 0) {
            avcodec_flush_buffers(m_codec.get());
            return true;
        }
        return OpenFile();
    }

    // The next picture of the stream, or false at its end. Damaged packets are
    // skipped; so are pictures of another size than the first.
    bool ReadPicture(Picture* out) {
        for (;;) {
            const int received = avcodec_receive_frame(m_codec.get(), m_frame.get());
            if (received == 0) {
                if (m_frame->width != m_width || m_frame->height != m_height) {
                    if (m_width != 0 || m_frame->width <= 0 || m_frame->height <= 0 ||
                        m_frame->width > kMaxMovieSide || m_frame->height > kMaxMovieSide) {
                        av_frame_unref(m_frame.get());
                        if (m_width == 0) {
                            return false;  // too large: refused
                        }
                        continue;
                    }
                    m_width = m_frame->width;
                    m_height = m_frame->height;
                }
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 30, 100)
                out->startMs = m_clock->Add(m_frame->best_effort_timestamp, m_frame->duration);
#else
                out->startMs = m_clock->Add(m_frame->best_effort_timestamp, m_frame->pkt_duration);
#endif
                out->picture.reset(av_frame_alloc());
                if (!out->picture) {
                    av_frame_unref(m_frame.get());
                    return false;
                }
                av_frame_move_ref(out->picture.get(), m_frame.get());
                return true;
            }
            if (received != AVERROR(EAGAIN) || m_draining) {
                return false;  // the end, or a decoder that gave up
            }
            if (av_read_frame(m_format.get(), m_packet.get()) < 0) {
                m_draining = true;
                if (avcodec_send_packet(m_codec.get(), nullptr) < 0) {
                    return false;
                }
                continue;
            }
            if (m_packet->stream_index == m_streamIndex) {
                avcodec_send_packet(m_codec.get(), m_packet.get());
            }
            av_packet_unref(m_packet.get());
        }
    }

    std::string m_path;
    FormatContextPtr m_format;
    CodecContextPtr m_codec;
    PacketPtr m_packet;
    FramePtr m_frame;
    std::optional<CFrameClock> m_clock;
    int m_streamIndex = -1;
    bool m_draining = false;
    bool m_passEnded = false;
    Picture m_pending;  // decoded, its end not yet known
};

}  // namespace

bool CFrameConverter::Convert(const AVFrame& frame, const uint8_t** pixels, int* strideBytes) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    if (format == AV_PIX_FMT_NONE || frame.width <= 0 || frame.height <= 0) {
        return false;
    }
    if (format == AV_PIX_FMT_BGRA) {
        *pixels = frame.data[0];
        *strideBytes = frame.linesize[0];
        return frame.linesize[0] >= frame.width * 4;
    }
    if (!m_output || m_output->width != frame.width || m_output->height != frame.height) {
        m_output.reset(av_frame_alloc());
        if (!m_output) {
            return false;
        }
        m_output->format = AV_PIX_FMT_BGRA;
        m_output->width = frame.width;
        m_output->height = frame.height;
        if (av_frame_get_buffer(m_output.get(), 0) < 0) {
            m_output.reset();
            return false;
        }
    }
    SwsContext* scaler =
        sws_getCachedContext(m_scaler.release(), frame.width, frame.height, format, frame.width,
                             frame.height, AV_PIX_FMT_BGRA, SWS_BICUBIC, nullptr, nullptr, nullptr);
    m_scaler.reset(scaler);
    if (scaler == nullptr) {
        return false;
    }
    if (sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, m_output->data,
                  m_output->linesize) != frame.height) {
        return false;
    }
    *pixels = m_output->data[0];
    *strideBytes = m_output->linesize[0];
    return true;
}

std::unique_ptr<CMovieSource> OpenMovieSource(const std::string& path, DecodedFrame* first) {
    const CQuietFfmpeg quiet;
    if (LooksLikeAnimatedWebP(path)) {
        return OpenAnimatedWebP(path, first);
    }
    auto source = std::make_unique<CFfmpegSource>();
    if (!source->Open(path, first)) {
        return nullptr;
    }
    return source;
}

}  // namespace lumets::host
