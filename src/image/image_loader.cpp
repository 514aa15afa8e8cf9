#include "image/image_loader.h"

#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "image/resources.h"
#include "lumets_common/av_handles.h"
#include "lumets_common/ffmpeg_quiet.h"
#include "lumets_common/picture_limits.h"
#include "lumets_platform/file.h"
#include "lumets_platform/utf16.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/pixfmt.h>
}

namespace lumets {
namespace {

// Larger files are refused unread: the largest picture we accept is 16 Mi
// pixels, which even as an uncompressed 64-bit TIFF stays far below this.
constexpr size_t kMaxFileBytes = size_t{256} << 20;

// Host paths arrive in fixed or NUL-terminated UTF-16 buffers; read no further
// than the longest path Windows accepts.
constexpr size_t kMaxPathUnits = 32767;

// ---------------------------------------------------------------------------
// Row converters: one top-down row of a decoded frame (packed formats only)
// into one row of the converted picture, B, G, R or B, G, R, A.

using ConvertRow = void (*)(const uint8_t* src, uint8_t* dst, uint32_t width);

// 16-bit channel to 8 bits, rounded.
inline uint8_t Narrow16(uint8_t high, uint8_t low) {
    return static_cast<uint8_t>(((high << 8 | low) * 255u + 32767u) / 65535u);
}

void CopyBgr(const uint8_t* src, uint8_t* dst, uint32_t width) {
    std::memcpy(dst, src, size_t{width} * 3);
}

void RgbToBgr(const uint8_t* src, uint8_t* dst, uint32_t width) {
    for (uint32_t x = 0; x < width; ++x, src += 3, dst += 3) {
        dst[0] = src[2];
        dst[1] = src[1];
        dst[2] = src[0];
    }
}

// B, G, R, A and B, G, R, X: the fourth byte is kept as decoded.
void CopyBgra(const uint8_t* src, uint8_t* dst, uint32_t width) {
    std::memcpy(dst, src, size_t{width} * 4);
}

// Reorders the four bytes of each pixel into B, G, R, A: each parameter
// names the input byte that lands there.
template <int B, int G, int R, int A>
void SwizzleToBgra(const uint8_t* src, uint8_t* dst, uint32_t width) {
    for (uint32_t x = 0; x < width; ++x, src += 4, dst += 4) {
        dst[0] = src[B];
        dst[1] = src[G];
        dst[2] = src[R];
        dst[3] = src[A];
    }
}

void GreyAlphaToBgra(const uint8_t* src, uint8_t* dst, uint32_t width) {
    for (uint32_t x = 0; x < width; ++x, src += 2, dst += 4) {
        dst[0] = dst[1] = dst[2] = src[0];
        dst[3] = src[1];
    }
}

void GreyAlpha16BeToBgra(const uint8_t* src, uint8_t* dst, uint32_t width) {
    for (uint32_t x = 0; x < width; ++x, src += 4, dst += 4) {
        dst[0] = dst[1] = dst[2] = Narrow16(src[0], src[1]);
        dst[3] = Narrow16(src[2], src[3]);
    }
}

// 16-bit channels at byte offsets r, g, b (and a) of each pixel, high byte
// first (hi = 0) or second (hi = 1); without an alpha channel the result is
// opaque, as a 48-bit picture drawn onto a 32-bit surface would be.
template <int kPixelBytes, int kHi, int kR, int kG, int kB, int kA>
void Wide16ToBgra(const uint8_t* src, uint8_t* dst, uint32_t width) {
    constexpr int kLo = 1 - kHi;
    for (uint32_t x = 0; x < width; ++x, src += kPixelBytes, dst += 4) {
        dst[0] = Narrow16(src[kB + kHi], src[kB + kLo]);
        dst[1] = Narrow16(src[kG + kHi], src[kG + kLo]);
        dst[2] = Narrow16(src[kR + kHi], src[kR + kLo]);
        dst[3] = kA < 0 ? 255 : Narrow16(src[kA + kHi], src[kA + kLo]);
    }
}

// ---------------------------------------------------------------------------
// The format table: which decoded pictures load, at which depth, and how.
// Codec and decoded pixel format as FFmpeg reports them (measured with
// Debian's FFmpeg 5.1). A codec row with AV_PIX_FMT_NONE matches every format
// of that codec. A pair with no row is refused.

enum class Depth : uint32_t { Refused = 0, Bits24 = 24, Bits32 = 32 };

struct FormatRule {
    AVCodecID codec;
    AVPixelFormat format;
    Depth depth;
    ConvertRow convert;  // null for planar YUV: converted by libswscale
};

constexpr FormatRule kFormatTable[] = {
    // GIF decodes to bgra, yet a GIF is a paletted picture: refused by codec.
    {AV_CODEC_ID_GIF, AV_PIX_FMT_NONE, Depth::Refused, nullptr},

    {AV_CODEC_ID_PNG, AV_PIX_FMT_RGBA, Depth::Bits32, SwizzleToBgra<2, 1, 0, 3>},
    {AV_CODEC_ID_PNG, AV_PIX_FMT_YA8, Depth::Bits32, GreyAlphaToBgra},
    {AV_CODEC_ID_PNG, AV_PIX_FMT_RGBA64BE, Depth::Bits32, Wide16ToBgra<8, 0, 0, 2, 4, 6>},
    {AV_CODEC_ID_PNG, AV_PIX_FMT_YA16BE, Depth::Bits32, GreyAlpha16BeToBgra},
    {AV_CODEC_ID_PNG, AV_PIX_FMT_RGB24, Depth::Bits24, RgbToBgr},
    {AV_CODEC_ID_PNG, AV_PIX_FMT_RGB48BE, Depth::Bits32, Wide16ToBgra<6, 0, 0, 2, 4, -1>},
    // pal8, monob, gray, gray16be: refused (no row).

    // Colour JPEGs are full-range YCbCr; grey ones (gray) are refused.
    {AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P, Depth::Bits24, nullptr},
    {AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ422P, Depth::Bits24, nullptr},
    {AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ444P, Depth::Bits24, nullptr},
    {AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ440P, Depth::Bits24, nullptr},
    {AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ411P, Depth::Bits24, nullptr},

    {AV_CODEC_ID_BMP, AV_PIX_FMT_BGR24, Depth::Bits24, CopyBgr},
    // 32-bit BMPs: the fourth byte is whatever the file holds, alpha or not.
    {AV_CODEC_ID_BMP, AV_PIX_FMT_BGRA, Depth::Bits32, CopyBgra},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_BGR0, Depth::Bits32, CopyBgra},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_RGBA, Depth::Bits32, SwizzleToBgra<2, 1, 0, 3>},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_RGB0, Depth::Bits32, SwizzleToBgra<2, 1, 0, 3>},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_ARGB, Depth::Bits32, SwizzleToBgra<3, 2, 1, 0>},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_0RGB, Depth::Bits32, SwizzleToBgra<3, 2, 1, 0>},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_ABGR, Depth::Bits32, SwizzleToBgra<1, 2, 3, 0>},
    {AV_CODEC_ID_BMP, AV_PIX_FMT_0BGR, Depth::Bits32, SwizzleToBgra<1, 2, 3, 0>},
    // 16-bit (rgb565le, rgb555le, rgb444le), paletted and 1-bit: refused.

    // Lossless WebP decodes to argb; lossy to yuv420p, with alpha yuva420p.
    {AV_CODEC_ID_WEBP, AV_PIX_FMT_ARGB, Depth::Bits32, SwizzleToBgra<3, 2, 1, 0>},
    {AV_CODEC_ID_WEBP, AV_PIX_FMT_YUV420P, Depth::Bits24, nullptr},
    {AV_CODEC_ID_WEBP, AV_PIX_FMT_YUVA420P, Depth::Bits32, nullptr},

    {AV_CODEC_ID_TIFF, AV_PIX_FMT_RGB24, Depth::Bits24, RgbToBgr},
    {AV_CODEC_ID_TIFF, AV_PIX_FMT_RGBA, Depth::Bits32, SwizzleToBgra<2, 1, 0, 3>},
    {AV_CODEC_ID_TIFF, AV_PIX_FMT_YA8, Depth::Bits32, GreyAlphaToBgra},
    {AV_CODEC_ID_TIFF, AV_PIX_FMT_RGB48LE, Depth::Bits32, Wide16ToBgra<6, 1, 0, 2, 4, -1>},
    {AV_CODEC_ID_TIFF, AV_PIX_FMT_RGB48BE, Depth::Bits32, Wide16ToBgra<6, 0, 0, 2, 4, -1>},
    {AV_CODEC_ID_TIFF, AV_PIX_FMT_RGBA64LE, Depth::Bits32, Wide16ToBgra<8, 1, 0, 2, 4, 6>},
    {AV_CODEC_ID_TIFF, AV_PIX_FMT_RGBA64BE, Depth::Bits32, Wide16ToBgra<8, 0, 0, 2, 4, 6>},
};

const FormatRule* FindRule(AVCodecID codec, AVPixelFormat format) {
    for (const FormatRule& rule : kFormatTable) {
        if (rule.codec == codec && (rule.format == AV_PIX_FMT_NONE || rule.format == format)) {
            return &rule;
        }
    }
    return nullptr;
}

// A codec that can give a picture we keep; GIF and unknown codecs are not
// even decoded.
bool CodecMayLoad(AVCodecID codec) {
    bool anyKept = false;
    for (const FormatRule& rule : kFormatTable) {
        if (rule.codec != codec) {
            continue;
        }
        if (rule.format == AV_PIX_FMT_NONE) {
            return rule.depth != Depth::Refused;
        }
        anyKept = anyKept || rule.depth != Depth::Refused;
    }
    return anyKept;
}

// The decoder for the bytes, from the file signature alone: only still-image
// formats are considered, never a container that could hold anything.
AVCodecID SniffCodec(const uint8_t* bytes, size_t size) {
    auto startsWith = [&](size_t offset, std::string_view magic) {
        return size >= offset + magic.size() &&
               std::memcmp(bytes + offset, magic.data(), magic.size()) == 0;
    };
    if (startsWith(0, "\x89PNG\r\n\x1a\n")) {
        return AV_CODEC_ID_PNG;
    }
    if (startsWith(0, "\xFF\xD8\xFF")) {
        return AV_CODEC_ID_MJPEG;
    }
    if (startsWith(0, "BM")) {
        return AV_CODEC_ID_BMP;
    }
    if (startsWith(0, "RIFF") && startsWith(8, "WEBP")) {
        return AV_CODEC_ID_WEBP;
    }
    if (startsWith(0, std::string_view("II*\0", 4)) ||
        startsWith(0, std::string_view("MM\0*", 4))) {
        return AV_CODEC_ID_TIFF;
    }
    if (startsWith(0, "GIF87a") || startsWith(0, "GIF89a")) {
        return AV_CODEC_ID_GIF;
    }
    return AV_CODEC_ID_NONE;
}

// Every pixel allocation of a decoder passes here first, so an oversized
// picture is refused before its memory exists.
int LimitedGetBuffer(AVCodecContext* context, AVFrame* frame, int flags) {
    if (!PicturePixelsAllowed(context->width, context->height)) {
        return AVERROR(EINVAL);
    }
    return avcodec_default_get_buffer2(context, frame, flags);
}

// libswscale's output writers may store up to a vector's width past the last
// pixel of a row, so every row it writes gets this much room after it.
constexpr size_t kSwsRowSlackBytes = 64;

// Planar YUV (JPEG, lossy WebP) to packed B, G, R (, A) through libswscale,
// rows strideBytes apart.
bool ConvertYuv(const AVFrame& frame, Depth depth, uint8_t* dst, size_t strideBytes) {
    AVPixelFormat source = static_cast<AVPixelFormat>(frame.format);
    bool fullRange = frame.color_range == AVCOL_RANGE_JPEG;
    // The "J" formats only say "full range"; naming the range explicitly
    // keeps libswscale from warning about a deprecated format.
    const AVPixelFormat fullRangeAliases[][2] = {
        {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P}, {AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV422P},
        {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P}, {AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUV440P},
        {AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUV411P},
    };
    for (const auto& alias : fullRangeAliases) {
        if (source == alias[0]) {
            source = alias[1];
            fullRange = true;
        }
    }
    // Full chroma interpolation, but not SWS_ACCURATE_RND: that one tripled the
    // time of a 1080p JPEG without moving any test picture out of tolerance.
    const AVPixelFormat target = depth == Depth::Bits32 ? AV_PIX_FMT_BGRA : AV_PIX_FMT_BGR24;
    SwsContextPtr context(sws_getContext(frame.width, frame.height, source, frame.width,
                                         frame.height, target, SWS_BICUBIC | SWS_FULL_CHR_H_INT,
                                         nullptr, nullptr, nullptr));
    if (!context) {
        return false;
    }
    // JPEG and VP8 both use the BT.601 matrix.
    const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
    sws_setColorspaceDetails(context.get(), coefficients, fullRange ? 1 : 0, coefficients, 1, 0,
                             1 << 16, 1 << 16);
    uint8_t* planes[4] = {dst, nullptr, nullptr, nullptr};
    int strides[4] = {static_cast<int>(strideBytes), 0, 0, 0};
    return sws_scale(context.get(), frame.data, frame.linesize, 0, frame.height, planes, strides) ==
           frame.height;
}

// Decodes the one picture in packet (which holds the whole file) and converts
// it as the format table says. False, with image untouched, on any failure.
bool DecodeImage(AVCodecID codecId, const AVPacket& packet, DecodedImage& image) {
    const AVCodec* codec = avcodec_find_decoder(codecId);
    if (codec == nullptr) {
        return false;
    }
    AvCodecContextPtr context(avcodec_alloc_context3(codec));
    if (!context) {
        return false;
    }
    context->thread_count = 1;
    context->get_buffer2 = LimitedGetBuffer;
    // The exact limits are checked in LimitedGetBuffer; this one lets the
    // decoders refuse absurd headers early while leaving room for the
    // alignment FFmpeg adds to the width before comparing.
    context->max_pixels = kMaxPicturePixels + int64_t{kMaxPictureSide} * 64;
    // A corrupt picture is an ordinary failure here: keep the decoder's
    // complaints out of the host's log unless it asked for debug output.
    context->log_level_offset = AV_LOG_DEBUG - AV_LOG_ERROR;
    if (avcodec_open2(context.get(), codec, nullptr) < 0) {
        return false;
    }
    AvFramePtr frame(av_frame_alloc());
    if (!frame) {
        return false;
    }
    if (avcodec_send_packet(context.get(), &packet) < 0) {
        return false;
    }
    int result = avcodec_receive_frame(context.get(), frame.get());
    if (result == AVERROR(EAGAIN)) {
        avcodec_send_packet(context.get(), nullptr);
        result = avcodec_receive_frame(context.get(), frame.get());
    }
    if (result < 0 || !PicturePixelsAllowed(frame->width, frame->height)) {
        return false;
    }
    const FormatRule* rule = FindRule(codecId, static_cast<AVPixelFormat>(frame->format));
    if (rule == nullptr || rule->depth == Depth::Refused) {
        return false;
    }

    const uint32_t width = static_cast<uint32_t>(frame->width);
    const uint32_t height = static_cast<uint32_t>(frame->height);
    const uint32_t bitsPerPixel = static_cast<uint32_t>(rule->depth);
    const size_t rowBytes = size_t{width} * bitsPerPixel / 8;
    const bool viaSwscale = rule->convert == nullptr;
    const size_t stride = viaSwscale ? (rowBytes + 63) / 64 * 64 + kSwsRowSlackBytes : rowBytes;
    std::unique_ptr<uint8_t[]> pixels(new uint8_t[stride * height]);
    if (!viaSwscale) {
        const uint8_t* source = frame->data[0];
        for (uint32_t y = 0; y < height; ++y, source += frame->linesize[0]) {
            rule->convert(source, pixels.get() + stride * y, width);
        }
    } else if (!ConvertYuv(*frame, rule->depth, pixels.get(), stride)) {
        return false;
    }
    image.width = width;
    image.height = height;
    image.bitsPerPixel = bitsPerPixel;
    image.strideBytes = stride;
    image.pixels = std::move(pixels);
    return true;
}

// Decodes packet, which holds a whole file, into target.
void LoadPacket(PixelBuffer& target, const AVPacket& packet) {
    const AVCodecID codec = SniffCodec(packet.data, static_cast<size_t>(packet.size));
    if (!CodecMayLoad(codec)) {
        return;
    }
    DecodedImage image;
    bool decoded = false;
    {
        const CQuietFfmpeg quiet;
        decoded = DecodeImage(codec, packet, image);
    }
    if (decoded) {
        CopyImageToBuffer(target, &image);
    }
}

// A packet holding size bytes (plus the zeroed padding decoders need).
AvPacketPtr MakePacket(size_t size) {
    if (size == 0 || size > kMaxFileBytes) {
        return nullptr;
    }
    AvPacketPtr packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), static_cast<int>(size)) < 0) {
        return nullptr;
    }
    return packet;
}

// The whole regular file at path in a packet; null for anything else.
AvPacketPtr ReadFileIntoPacket(const std::string& path) {
    AvPacketPtr packet;
    const bool read = platform::ReadRegularFile(path.c_str(), kMaxFileBytes, [&](size_t size) {
        packet = MakePacket(size);
        return packet ? packet->data : nullptr;
    });
    return read ? std::move(packet) : nullptr;
}

}  // namespace

void LoadImageFile(PixelBuffer& target, const char16_t* path) {
    if (path == nullptr) {
        return;
    }
    const std::string utf8 = platform::U16ToUtf8(path, kMaxPathUnits);
    if (utf8.empty()) {
        return;
    }
    AvPacketPtr packet = ReadFileIntoPacket(utf8);
    if (packet) {
        LoadPacket(target, *packet);
    }
}

void LoadImageResource(PixelBuffer& target, const char16_t* moduleName, int32_t id,
                       const char16_t* type) {
    const std::span<const uint8_t> bytes = FindModuleResource(moduleName, id, type);
    LoadImageBytes(target, bytes.data(), bytes.size());
}

void LoadImageBytes(PixelBuffer& target, const uint8_t* bytes, size_t size) {
    if (bytes == nullptr) {
        return;
    }
    AvPacketPtr packet = MakePacket(size);
    if (packet) {
        std::memcpy(packet->data, bytes, size);
        LoadPacket(target, *packet);
    }
}

void CopyImageToBuffer(PixelBuffer& target, const DecodedImage* image) {
    if (image == nullptr || !image->pixels ||
        (image->bitsPerPixel != 24 && image->bitsPerPixel != 32) ||
        !PicturePixelsAllowed(image->width, image->height)) {
        return;
    }
    const uint32_t width = image->width;
    const uint32_t height = image->height;
    const uint32_t depth = image->bitsPerPixel;
    const size_t rowBytes = size_t{width} * depth / 8;
    const size_t sourceStride = image->strideBytes == 0 ? rowBytes : image->strideBytes;
    if (sourceStride < rowBytes) {
        return;
    }
    const uint32_t stride = RowStride(width, depth);
    const uint32_t needed = stride * height;  // at most 64 MiB: no overflow
    if (target.Capacity() < needed) {
        target.EnsureBytes(size_t{needed} + 1);
        target.Data()[needed] = 0;  // every byte of the block holds a defined value
    }
    target.width = static_cast<int32_t>(width);
    target.height = static_cast<int32_t>(height);
    target.bitsPerPixel = static_cast<int32_t>(depth);

    // Pictures arrive top-down; buffer row 0 is the picture's bottom row.
    // Pixels were traditionally written four bytes at a time, the fourth of a
    // 24-bit pixel being 255, so the byte after a 24-bit row's last pixel is
    // 255: in the row's padding or, for the last row without padding, in the
    // block's spare byte. The rest of the padding is cleared.
    uint8_t* const data = target.Data();
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = data + size_t{stride} * y;
        std::memcpy(row, image->pixels.get() + sourceStride * (height - 1 - y), rowBytes);
        if (rowBytes < stride) {
            std::memset(row + rowBytes, 0, stride - rowBytes);
        }
        const size_t after = size_t{stride} * y + rowBytes;
        if (depth == 24 && (rowBytes < stride || (y + 1 == height && after < target.Capacity()))) {
            data[after] = 255;
        }
    }
}

}  // namespace lumets
