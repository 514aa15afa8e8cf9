// Writes the library's bottom-up pictures as PNG files (through Cairo), for the
// command-line host and for golden pictures.
#pragma once

#include <string>

#include "lumets_common/picture.h"

namespace lumets {

// A 24-bit B, G, R or 32-bit B, G, R, A (straight alpha) picture. False when
// the picture is empty or the file cannot be written.
bool WritePng(const std::string& path, const ConstPictureView& picture);

}  // namespace lumets
