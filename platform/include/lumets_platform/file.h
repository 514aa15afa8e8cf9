// Reading whole files named by the host: only regular files, never blocking,
// never more than a given size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "lumets/export.h"

namespace lumets::platform {

// Reads the whole regular file at path (UTF-8) into the block that
// allocate(size) returns; size is at least 1 and at most maxBytes. Anything
// else is refused without reading: missing files, FIFOs, devices, sockets and
// directories (opened without blocking), empty files and larger ones. False
// when refused, when allocate returns null, or when the read fails (the block
// then holds anything).
LUMETS_PLATFORM_API bool ReadRegularFile(const char* path, size_t maxBytes,
                                         const std::function<uint8_t*(size_t)>& allocate);

}  // namespace lumets::platform
