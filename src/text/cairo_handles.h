// Owning handles for the Cairo objects the text renderer and the command-line
// host make.
#pragma once

#include <cairo.h>

#include "lumets_platform/c_handle.h"

namespace lumets {

using CairoPtr = CHandle<cairo_t, cairo_destroy>;
using CairoSurfacePtr = CHandle<cairo_surface_t, cairo_surface_destroy>;
using CairoPathPtr = CHandle<cairo_path_t, cairo_path_destroy>;
using CairoPatternPtr = CHandle<cairo_pattern_t, cairo_pattern_destroy>;
using CairoScaledFontPtr = CHandle<cairo_scaled_font_t, cairo_scaled_font_destroy>;
using CairoFontOptionsPtr = CHandle<cairo_font_options_t, cairo_font_options_destroy>;

}  // namespace lumets
