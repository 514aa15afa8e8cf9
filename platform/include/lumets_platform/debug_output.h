// The debugger output: written to standard error only when the environment
// variable LUMETS_DEBUG_OUTPUT is set, otherwise dropped.
#pragma once

#include "lumets/export.h"

namespace lumets::platform {

LUMETS_PLATFORM_API void DebugOutput(const char* text);
LUMETS_PLATFORM_API void DebugOutputW(const char16_t* text);

}  // namespace lumets::platform
