// Decoding a whole short movie with FFmpeg into 32-bit frames.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>

#include "ffmpeg_util.h"
#include "image/ffmpeg_quiet.h"
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

std::vector<uint8_t> ReadFile(const std::string& path, size_t maxBytes) {
    std::vector<uint8_t> data;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return data;
    }
    uint8_t chunk[65536];
    size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0 && data.size() < maxBytes) {
        data.insert(data.end(), chunk, chunk + got);
    }
    std::fclose(file);
    return data;
}

bool LooksLikeAnimatedWebP(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    uint8_t header[21] = {};
    const size_t got = std::fread(header, 1, sizeof header, file);
    std::fclose(file);
    // RIFF....WEBPVP8X, then the VP8X flags byte with its animation bit.
    return got == sizeof header && std::memcmp(header, "RIFF", 4) == 0 &&
           std::memcmp(header + 8, "WEBPVP8X", 8) == 0 && (header[20] & 0x02) != 0;
}

// Frame times in milliseconds from the stream's time stamps. Missing or
// non-increasing stamps fall back to the nominal frame duration.
class CFrameClock {
  public:
    explicit CFrameClock(const AVStream& stream) : m_timeBase(stream.time_base) {
        AVRational rate = stream.avg_frame_rate;
        if (rate.num <= 0 || rate.den <= 0) {
            rate = stream.r_frame_rate;
        }
        const double fps = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0.0;
        m_nominalMs = fps >= 0.1 && fps <= 1000.0 ? std::llround(1000.0 / fps) : 100;
    }

    // Start of a frame with this stamp and duration, in stream time base units.
    void Add(int64_t stamp, int64_t duration) {
        int64_t startMs = -1;
        if (stamp != AV_NOPTS_VALUE && m_timeBase.num > 0 && m_timeBase.den > 0) {
            if (m_firstStamp == AV_NOPTS_VALUE) {
                m_firstStamp = stamp;
            }
            startMs = av_rescale_q(stamp - m_firstStamp, m_timeBase, AVRational{1, 1000});
        }
        const int64_t previous = m_startsMs.empty() ? -1 : m_startsMs.back();
        if (startMs <= previous) {
            startMs = previous < 0 ? 0 : previous + m_nominalMs;
        }
        m_startsMs.push_back(startMs);
        m_lastDurationMs = duration > 0 && m_timeBase.num > 0
                               ? av_rescale_q(duration, m_timeBase, AVRational{1, 1000})
                               : m_nominalMs;
        if (m_lastDurationMs <= 0) {
            m_lastDurationMs = m_nominalMs;
        }
    }

    // End of frame i, known once frame i + 1 has arrived or the stream ended.
    uint64_t EndMs(size_t i) const {
        if (i + 1 < m_startsMs.size()) {
            return static_cast<uint64_t>(m_startsMs[i + 1]);
        }
        return static_cast<uint64_t>(m_startsMs[i] + m_lastDurationMs);
    }

  private:
    AVRational m_timeBase;
    int64_t m_nominalMs = 100;
    int64_t m_firstStamp = AV_NOPTS_VALUE;
    int64_t m_lastDurationMs = 100;
    std::vector<int64_t> m_startsMs;
};

class CMovieDecoder {
  public:
    std::shared_ptr<const CMovie> Decode(const std::string& path) {
        AVFormatContext* raw = nullptr;
        AVDictionary* options = nullptr;
        av_dict_set(&options, "format_whitelist", kContainers, 0);
        const int opened = avformat_open_input(&raw, path.c_str(), nullptr, &options);
        const AvDictionaryPtr unusedOptions(options);  // what the demuxer did not take
        if (opened < 0) {
            return nullptr;
        }
        m_format.reset(raw);
        if (avformat_find_stream_info(m_format.get(), nullptr) < 0) {
            return nullptr;
        }
        m_streamIndex = av_find_best_stream(m_format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (m_streamIndex < 0) {
            return nullptr;
        }
        const AVStream& stream = *m_format->streams[m_streamIndex];
        if (!IsPlayableCodec(stream.codecpar->codec_id) || !OpenDecoder(stream)) {
            return nullptr;
        }
        m_clock.emplace(stream);
        PacketPtr packet(av_packet_alloc());
        m_frame.reset(av_frame_alloc());
        if (!packet || !m_frame) {
            return nullptr;
        }
        while (!m_full && av_read_frame(m_format.get(), packet.get()) >= 0) {
            if (packet->stream_index == m_streamIndex) {
                // A damaged packet is skipped; the frames around it still play.
                if (avcodec_send_packet(m_codec.get(), packet.get()) >= 0) {
                    ReceiveFrames();
                }
            }
            av_packet_unref(packet.get());
        }
        if (!m_full && avcodec_send_packet(m_codec.get(), nullptr) >= 0) {
            ReceiveFrames();
        }
        return Finish();
    }

  private:
    bool OpenDecoder(const AVStream& stream) {
        const AVCodec* codec = FindDecoder(stream);
        if (codec == nullptr) {
            return false;
        }
        m_codec.reset(avcodec_alloc_context3(codec));
        if (!m_codec || avcodec_parameters_to_context(m_codec.get(), stream.codecpar) < 0) {
            return false;
        }
        // The movies are short and decoded once; the decoder's own threads
        // would only compete with the host's and hide their synchronisation
        // from the thread sanitizer.
        m_codec->thread_count = 1;
        return avcodec_open2(m_codec.get(), codec, nullptr) >= 0;
    }

    void ReceiveFrames() {
        while (!m_full && avcodec_receive_frame(m_codec.get(), m_frame.get()) >= 0) {
            AddFrame(*m_frame);
            av_frame_unref(m_frame.get());
        }
    }

    void AddFrame(const AVFrame& frame) {
        if (m_movie->frames.empty()) {
            if (frame.width <= 0 || frame.height <= 0 || frame.width > kMaxMovieSide ||
                frame.height > kMaxMovieSide) {
                m_full = true;
                return;
            }
            m_movie->width = frame.width;
            m_movie->height = frame.height;
        } else if (frame.width != m_movie->width || frame.height != m_movie->height) {
            return;  // a size change mid-stream: keep the first size, drop the odd frame
        }
        const uint8_t* pixels = nullptr;
        int stride = 0;
        if (!m_converter.Convert(frame, &pixels, &stride)) {
            return;
        }
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 30, 100)
        m_clock->Add(frame.best_effort_timestamp, frame.duration);
#else
        m_clock->Add(frame.best_effort_timestamp, frame.pkt_duration);
#endif
        // The end of the frame before is known now; this one's is provisional.
        const size_t index = m_movie->frames.size();
        if (index > 0) {
            m_movie->frameEndMs[index - 1] = m_clock->EndMs(index - 1);
        }
        if (!AppendTopDownFrame(*m_movie, pixels, static_cast<size_t>(stride),
                                m_clock->EndMs(index))) {
            m_full = true;
        }
    }

    std::shared_ptr<const CMovie> Finish() {
        if (m_movie->frames.empty()) {
            return nullptr;
        }
        const size_t last = m_movie->frames.size() - 1;
        m_movie->frameEndMs[last] = std::max(m_clock->EndMs(last), m_movie->frameEndMs[last]);
        return std::move(m_movie);
    }

    FormatContextPtr m_format;
    CodecContextPtr m_codec;
    FramePtr m_frame;
    CFrameConverter m_converter;
    std::optional<CFrameClock> m_clock;
    std::shared_ptr<CMovie> m_movie = std::make_shared<CMovie>();
    int m_streamIndex = -1;
    bool m_full = false;
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

bool AppendTopDownFrame(CMovie& movie, const uint8_t* pixels, size_t strideBytes, uint64_t endMs) {
    const size_t bytes = movie.FrameBytes();
    if (bytes == 0 || movie.frames.size() >= kMaxMovieFrames ||
        (movie.frames.size() + 1) * bytes > kMaxMovieBytes) {
        return false;
    }
    const size_t rowBytes = static_cast<size_t>(movie.width) * 4u;
    std::vector<uint8_t> picture(bytes);
    // Bottom-up storage: the picture's top row goes last.
    for (int32_t y = 0; y < movie.height; ++y) {
        std::memcpy(picture.data() + static_cast<size_t>(movie.height - 1 - y) * rowBytes,
                    pixels + static_cast<size_t>(y) * strideBytes, rowBytes);
    }
    if (!movie.frameEndMs.empty() && endMs <= movie.frameEndMs.back()) {
        endMs = movie.frameEndMs.back() + 1;
    }
    movie.frames.push_back(std::move(picture));
    movie.frameEndMs.push_back(endMs);
    return true;
}

std::shared_ptr<const CMovie> DecodeMovie(const std::string& path) {
    const CQuietFfmpeg quiet;
    if (LooksLikeAnimatedWebP(path)) {
        return DecodeAnimatedWebP(ReadFile(path, kMaxMovieBytes));
    }
    return CMovieDecoder().Decode(path);
}

}  // namespace lumets::host
