// One picture encoded as an RGB PNG in memory, from any packed layout
// libswscale reads: the program's PNG files and the live preview share it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace lumets {

// FFmpeg's words for an error code.
std::string AvErrorText(int code);

// The picture whose top row starts at top, the next stride bytes on (negative
// for rows stored bottom-up), in format. False, with the reason in *error.
bool EncodePng(const uint8_t* top, int stride, AVPixelFormat format, int32_t width, int32_t height,
               std::vector<uint8_t>* png, std::string* error);

}  // namespace lumets
