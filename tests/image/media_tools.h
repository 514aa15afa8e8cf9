// Test helpers: a scratch directory, running ffmpeg/ffprobe, raw pictures in
// and out, and snapshots of a PixelBuffer to prove that a failed load left it
// alone.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "lumets_platform/utf16.h"

namespace lumets::test {

// ffmpeg with a raw picture as input: rawFormat and size describe raw, the
// rest of the arguments (codec, pixel format) come before the output.
inline bool EncodeRaw(const std::string& raw, const std::string& rawFormat, int width, int height,
                      const std::string& outputArgs, const std::string& output) {
    return RunCommand("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt " + rawFormat + " -s " +
                      std::to_string(width) + "x" + std::to_string(height) + " -i " + Quote(raw) +
                      " " + outputArgs + " -frames:v 1 " + Quote(output));
}

// "codec,pix_fmt" of the first video stream as ffprobe sees the file.
inline std::string Probe(const std::string& file) {
    RunCommand(
        "ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,pix_fmt "
        "-of csv=p=0 " +
        Quote(file) + " > " + Quote(file + ".probe"));
    const std::vector<uint8_t> out = ReadBytes(file + ".probe");
    return std::string(out.begin(), std::find(out.begin(), out.end(), '\n'));
}

inline void LoadFile(PixelBuffer& target, const std::string& file) {
    const std::u16string path = platform::Utf8ToU16(file);
    LoadImageFile(target, path.c_str());
}

// Everything a load may change, with the bytes in use.
struct Snapshot {
    const uint8_t* data;
    size_t capacity;
    int32_t width;
    int32_t height;
    int32_t bitsPerPixel;
    std::vector<uint8_t> bytes;

    explicit Snapshot(const PixelBuffer& b)
        : data(b.Data()),
          capacity(b.Capacity()),
          width(b.width),
          height(b.height),
          bitsPerPixel(b.bitsPerPixel),
          bytes(b.Data(), b.Data() + b.Capacity()) {}

    bool operator==(const Snapshot&) const = default;
};

}  // namespace lumets::test
