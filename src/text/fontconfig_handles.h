// Owning handles for the fontconfig objects of the font system.
#pragma once

#include <fontconfig/fontconfig.h>

#include "lumets_platform/c_handle.h"

namespace lumets {

using FcConfigPtr = CHandle<FcConfig, FcConfigDestroy>;
using FcPatternPtr = CHandle<FcPattern, FcPatternDestroy>;

}  // namespace lumets
