// Animated WebP: the media library decodes single WebP pictures only, so the
// RIFF container is taken apart here. Each ANMF frame's bitstream (with its
// alpha chunk) is rewrapped as a still WebP file, decoded, and composed onto
// the canvas with the frame's offset, blending and disposal.
#include <algorithm>
#include <cstring>
#include <vector>

#include "ffmpeg_util.h"
#include "movie.h"

namespace lumets::host {
namespace {

uint32_t Le24(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (static_cast<uint32_t>(p[2]) << 16);
}
uint32_t Le32(const uint8_t* p) {
    return Le24(p) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLe32(std::vector<uint8_t>& out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

void PutLe24(std::vector<uint8_t>& out, uint32_t value) {
    for (int i = 0; i < 3; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

struct Chunk {
    char fourcc[4];
    const uint8_t* payload;
    uint32_t size;
};

// Walks the chunks in [data, data + size); false at the end or on a chunk that
// runs past it.
class CChunkReader {
  public:
    CChunkReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    bool Next(Chunk* chunk) {
        if (m_offset > m_size || m_size - m_offset < 8) {
            return false;
        }
        const uint8_t* header = m_data + m_offset;
        const uint32_t payloadSize = Le32(header + 4);
        if (payloadSize > m_size - m_offset - 8) {
            return false;
        }
        std::memcpy(chunk->fourcc, header, 4);
        chunk->payload = header + 8;
        chunk->size = payloadSize;
        // Chunks are padded to an even size.
        m_offset += 8 + static_cast<size_t>(payloadSize) + (payloadSize & 1u);
        return true;
    }

  private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_offset = 0;
};

bool Is(const Chunk& chunk, const char* fourcc) {
    return std::memcmp(chunk.fourcc, fourcc, 4) == 0;
}

void PutChunk(std::vector<uint8_t>& out, const Chunk& chunk) {
    out.insert(out.end(), chunk.fourcc, chunk.fourcc + 4);
    PutLe32(out, chunk.size);
    out.insert(out.end(), chunk.payload, chunk.payload + chunk.size);
    if ((chunk.size & 1u) != 0) {
        out.push_back(0);
    }
}

// A still WebP file holding one frame's bitstream.
std::vector<uint8_t> WrapFrame(const Chunk* alpha, const Chunk& image, uint32_t width,
                               uint32_t height) {
    std::vector<uint8_t> body = {'W', 'E', 'B', 'P'};
    if (alpha != nullptr && Is(image, "VP8 ")) {
        body.insert(body.end(), {'V', 'P', '8', 'X'});
        PutLe32(body, 10);
        body.insert(body.end(), {0x10, 0, 0, 0});  // the alpha flag
        PutLe24(body, width - 1);
        PutLe24(body, height - 1);
        PutChunk(body, *alpha);
    }
    PutChunk(body, image);
    std::vector<uint8_t> file = {'R', 'I', 'F', 'F'};
    PutLe32(file, static_cast<uint32_t>(body.size()));
    file.insert(file.end(), body.begin(), body.end());
    return file;
}

// Straight-alpha "over" of one B, G, R, A pixel onto another.
void BlendOver(uint8_t* dst, const uint8_t* src) {
    const uint32_t sa = src[3];
    if (sa == 255 || dst[3] == 0) {
        std::memcpy(dst, src, 4);
        return;
    }
    if (sa == 0) {
        return;
    }
    const uint32_t da = dst[3] * (255 - sa) / 255;
    const uint32_t outA = sa + da;
    for (int c = 0; c < 3; ++c) {
        dst[c] = static_cast<uint8_t>((src[c] * sa + dst[c] * da + outA / 2) / outA);
    }
    dst[3] = static_cast<uint8_t>(outA);
}

// Reads the file's chunks one at a time, so that memory holds one frame's
// bitstream at most, and composes each frame onto a canvas of its own.
class CWebPSource final : public CMovieSource {
  public:
    bool Open(const std::string& path, DecodedFrame* first) {
        m_file.reset(std::fopen(path.c_str(), "rb"));
        uint8_t header[12] = {};
        if (!m_file || std::fread(header, 1, sizeof header, m_file.get()) != sizeof header ||
            std::memcmp(header, "RIFF", 4) != 0 || std::memcmp(header + 8, "WEBP", 4) != 0 ||
            !OpenDecoder()) {
            return false;
        }
        m_riffEnd = 8 + static_cast<uint64_t>(Le32(header + 4));
        m_offset = sizeof header;
        // The canvas comes first; the frames follow it.
        std::vector<uint8_t> payload;
        char fourcc[4];
        while (ReadChunk(fourcc, &payload)) {
            if (std::memcmp(fourcc, "VP8X", 4) == 0 && payload.size() >= 10) {
                const uint32_t width = Le24(payload.data() + 4) + 1;
                const uint32_t height = Le24(payload.data() + 7) + 1;
                if (width > static_cast<uint32_t>(kMaxMovieSide) ||
                    height > static_cast<uint32_t>(kMaxMovieSide)) {
                    return false;
                }
                m_width = static_cast<int32_t>(width);
                m_height = static_cast<int32_t>(height);
                m_canvas.assign(static_cast<size_t>(m_width) * m_height * 4u, 0);
                m_firstFrameOffset = m_offset;
                return Next(first);
            }
        }
        return false;
    }

    bool Next(DecodedFrame* frame) override {
        std::vector<uint8_t> payload;
        char fourcc[4];
        for (int pass = 0; pass < 2; ++pass) {
            while (ReadChunk(fourcc, &payload)) {
                if (std::memcmp(fourcc, "ANMF", 4) == 0 && payload.size() >= 16 &&
                    AddFrame(payload, frame)) {
                    frame->last = AtLastFrame();
                    return true;
                }
            }
            // The pass has ended: start again, unless it held no frame at all.
            const bool played = m_passFrames > 0;
            Restart();
            if (!played) {
                return false;
            }
        }
        return false;
    }

  private:
    bool OpenDecoder() {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_WEBP);
        if (codec == nullptr) {
            return false;
        }
        m_codec.reset(avcodec_alloc_context3(codec));
        m_frame.reset(av_frame_alloc());
        m_packet.reset(av_packet_alloc());
        return m_codec && m_frame && m_packet && avcodec_open2(m_codec.get(), codec, nullptr) >= 0;
    }

    // The chunk at the read position, or false at the end of the RIFF body or
    // at a chunk that runs past it.
    bool ReadChunk(char fourcc[4], std::vector<uint8_t>* payload) {
        uint8_t header[8];
        if (m_offset + 8 > m_riffEnd ||
            std::fseek(m_file.get(), static_cast<long>(m_offset), SEEK_SET) != 0 ||
            std::fread(header, 1, sizeof header, m_file.get()) != sizeof header) {
            return false;
        }
        const uint32_t size = Le32(header + 4);
        if (size > kMaxChunkBytes || m_offset + 8 + size > m_riffEnd) {
            return false;
        }
        payload->resize(size);
        if (size > 0 && std::fread(payload->data(), 1, size, m_file.get()) != size) {
            return false;
        }
        std::memcpy(fourcc, header, 4);
        // Chunks are padded to an even size.
        m_offset += 8 + static_cast<uint64_t>(size) + (size & 1u);
        return true;
    }

    // Whether another frame follows in this pass: a look at the next chunks'
    // headers, without reading their payloads.
    bool AtLastFrame() {
        uint64_t offset = m_offset;
        uint8_t header[8];
        while (offset + 8 <= m_riffEnd &&
               std::fseek(m_file.get(), static_cast<long>(offset), SEEK_SET) == 0 &&
               std::fread(header, 1, sizeof header, m_file.get()) == sizeof header) {
            const uint32_t size = Le32(header + 4);
            if (offset + 8 + size > m_riffEnd) {
                break;
            }
            if (std::memcmp(header, "ANMF", 4) == 0 && size >= 16) {
                return false;
            }
            offset += 8 + static_cast<uint64_t>(size) + (size & 1u);
        }
        return true;
    }

    bool Restart() override {
        m_offset = m_firstFrameOffset;
        m_passMs = 0;
        m_passFrames = 0;
        std::fill(m_canvas.begin(), m_canvas.end(), uint8_t{0});
        return true;
    }

    // Composes one ANMF frame onto the canvas and hands out the canvas as the
    // frame. A picture that fails to decode leaves the canvas as it was.
    bool AddFrame(const std::vector<uint8_t>& anmf, DecodedFrame* out) {
        const uint8_t* p = anmf.data();
        const uint32_t x = Le24(p) * 2;
        const uint32_t y = Le24(p + 3) * 2;
        const uint32_t width = Le24(p + 6) + 1;
        const uint32_t height = Le24(p + 9) + 1;
        uint32_t durationMs = Le24(p + 12);
        const bool blend = (p[15] & 0x02) == 0;
        const bool disposeToBackground = (p[15] & 0x01) != 0;
        // Players show frames of no duration for a tenth of a second.
        if (durationMs == 0) {
            durationMs = 100;
        }

        const Chunk* alpha = nullptr;
        Chunk alphaChunk{};
        Chunk image{};
        bool haveImage = false;
        CChunkReader inner(p + 16, anmf.size() - 16);
        Chunk chunk{};
        while (!haveImage && inner.Next(&chunk)) {
            if (Is(chunk, "ALPH")) {
                alphaChunk = chunk;
                alpha = &alphaChunk;
            } else if (Is(chunk, "VP8 ") || Is(chunk, "VP8L")) {
                image = chunk;
                haveImage = true;
            }
        }

        const uint32_t canvasWidth = static_cast<uint32_t>(m_width);
        const uint32_t canvasHeight = static_cast<uint32_t>(m_height);
        uint32_t drawnWidth = 0;
        uint32_t drawnHeight = 0;
        if (haveImage && x < canvasWidth && y < canvasHeight) {
            const std::vector<uint8_t> still = WrapFrame(alpha, image, width, height);
            drawnWidth = std::min(width, canvasWidth - x);
            drawnHeight = std::min(height, canvasHeight - y);
            if (DecodeStill(still) && m_frame->width == static_cast<int>(width) &&
                m_frame->height == static_cast<int>(height)) {
                const uint8_t* pixels = nullptr;
                int stride = 0;
                if (m_converter.Convert(*m_frame, &pixels, &stride)) {
                    Compose(pixels, static_cast<size_t>(stride), x, y, drawnWidth, drawnHeight,
                            blend);
                }
            }
            av_frame_unref(m_frame.get());
        }
        // A frame without a picture still holds the previous one for its time.
        if (!CopyCanvas(out)) {
            return false;
        }
        if (disposeToBackground) {
            Clear(x, y, drawnWidth, drawnHeight);
        }
        m_passMs += durationMs;
        ++m_passFrames;
        out->endMs = m_passMs;
        return true;
    }

    bool CopyCanvas(DecodedFrame* out) {
        out->picture.reset(av_frame_alloc());
        if (!out->picture) {
            return false;
        }
        out->picture->format = AV_PIX_FMT_BGRA;
        out->picture->width = m_width;
        out->picture->height = m_height;
        if (av_frame_get_buffer(out->picture.get(), 0) < 0) {
            return false;
        }
        const size_t rowBytes = static_cast<size_t>(m_width) * 4u;
        for (int32_t row = 0; row < m_height; ++row) {
            std::memcpy(
                out->picture->data[0] + static_cast<size_t>(row) * out->picture->linesize[0],
                m_canvas.data() + static_cast<size_t>(row) * rowBytes, rowBytes);
        }
        return true;
    }

    bool DecodeStill(const std::vector<uint8_t>& still) {
        av_packet_unref(m_packet.get());
        if (av_new_packet(m_packet.get(), static_cast<int>(still.size())) < 0) {
            return false;
        }
        std::memcpy(m_packet->data, still.data(), still.size());
        if (avcodec_send_packet(m_codec.get(), m_packet.get()) < 0) {
            return false;
        }
        return avcodec_receive_frame(m_codec.get(), m_frame.get()) >= 0;
    }

    void Compose(const uint8_t* pixels, size_t stride, uint32_t x, uint32_t y, uint32_t width,
                 uint32_t height, bool blend) {
        const size_t canvasStride = static_cast<size_t>(m_width) * 4u;
        for (uint32_t row = 0; row < height; ++row) {
            uint8_t* dst = m_canvas.data() + (y + row) * canvasStride + x * 4u;
            const uint8_t* src = pixels + row * stride;
            if (!blend) {
                std::memcpy(dst, src, width * 4u);
                continue;
            }
            for (uint32_t col = 0; col < width; ++col) {
                BlendOver(dst + col * 4u, src + col * 4u);
            }
        }
    }

    // Disposal to the background: players clear to transparent, taking the
    // background colour of the ANIM chunk as a hint only.
    void Clear(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
        const size_t canvasStride = static_cast<size_t>(m_width) * 4u;
        for (uint32_t row = 0; row < height; ++row) {
            std::memset(m_canvas.data() + (y + row) * canvasStride + x * 4u, 0, width * 4u);
        }
    }

    FilePtr m_file;
    uint64_t m_riffEnd = 0;
    uint64_t m_offset = 0;
    uint64_t m_firstFrameOffset = 0;
    uint64_t m_passMs = 0;
    size_t m_passFrames = 0;
    CodecContextPtr m_codec;
    FramePtr m_frame;
    PacketPtr m_packet;
    CFrameConverter m_converter;
    std::vector<uint8_t> m_canvas;  // top-down B, G, R, A
};

}  // namespace

std::unique_ptr<CMovieSource> OpenAnimatedWebP(const std::string& path, DecodedFrame* first) {
    auto source = std::make_unique<CWebPSource>();
    if (!source->Open(path, first)) {
        return nullptr;
    }
    return source;
}

}  // namespace lumets::host
