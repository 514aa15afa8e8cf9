// Stroking a text's outline one contour at a time. Cairo strokes a whole
// text's path as one polygon, whose cost in time and memory grows far faster
// than the text; a text repeats its glyphs, so each contour shape is stroked
// once into a small coverage mask and the mask is stamped wherever the shape
// recurs.
#pragma once

#include <cairo.h>

#include <cstddef>
#include <string>
#include <unordered_map>

#include "text/cairo_handles.h"

namespace lumets {

class COutlineStroker {
  public:
    // pen: the line width in pixels, finite and positive.
    explicit COutlineStroker(double pen);

    // Strokes cr's current path (taken in device space) with round joins into
    // cr's target as opaque coverage, and clears the path. Contours wholly
    // outside the clip are skipped. Meant for an alpha group: coverage where
    // contours' strokes overlap is combined with OVER, not as one polygon.
    void StrokeAndClear(cairo_t* cr);

  private:
    struct Mask {
        CairoSurfacePtr surface;
        int x = 0;  // the mask's offset from the contour's whole-pixel anchor
        int y = 0;
    };

    void StrokeContour(cairo_t* cr, const cairo_path_data_t* begin, const cairo_path_data_t* end);
    const Mask* CachedMask(const cairo_path_data_t* begin, const cairo_path_data_t* end,
                           double anchorX, double anchorY);

    double m_pen;
    double m_clip[4] = {};  // left, top, right, bottom
    std::unordered_map<std::string, Mask> m_masks;
    size_t m_maskBytes = 0;
};

}  // namespace lumets
