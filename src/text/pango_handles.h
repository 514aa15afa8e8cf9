// Owning handles for the GObject and Pango objects of the text layout.
#pragma once

#include <pango/pango.h>

#include "lumets_platform/c_handle.h"

namespace lumets {

// Any GObject (a font map, a context, a layout): one reference, dropped once.
template <typename T>
using GObjectPtr = CHandle<T, g_object_unref>;

using PangoAttrListPtr = CHandle<PangoAttrList, pango_attr_list_unref>;
using PangoFontDescriptionPtr = CHandle<PangoFontDescription, pango_font_description_free>;
using PangoGlyphStringPtr = CHandle<PangoGlyphString, pango_glyph_string_free>;
using PangoFontMetricsPtr = CHandle<PangoFontMetrics, pango_font_metrics_unref>;
using PangoLayoutIterPtr = CHandle<PangoLayoutIter, pango_layout_iter_free>;

}  // namespace lumets
