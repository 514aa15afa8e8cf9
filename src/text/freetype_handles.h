// Owning handles for the FreeType objects that rasterise text outlines.
#pragma once

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_STROKER_H

#include "lumets_platform/c_handle.h"

namespace lumets {

using FreeTypeLibraryPtr = CHandle<FT_LibraryRec_, FT_Done_FreeType>;
using FreeTypeStrokerPtr = CHandle<FT_StrokerRec_, FT_Stroker_Done>;

}  // namespace lumets
