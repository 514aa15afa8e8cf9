// Text drawn as outlines (with a pen, or glyphs too large for glyph
// pictures) is rasterised with FreeType, glyph by glyph: Cairo fills or
// strokes a text's path as one polygon, at a cost that grows far faster than
// the text. A text repeats its glyphs, so each glyph shape is rasterised once
// at each sixteenth-pixel phase and its coverage stamped wherever it recurs.
// The fill and the pen's stroke gather in two coverage masks the size of the
// picture, which the caller paints through with the fill's and the pen's
// colours.
#pragma once

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "text/cairo_handles.h"
#include "text/freetype_handles.h"

namespace lumets {

class COutlineRaster {
  public:
    // Masks for a width x height picture; pen is the stroke's width in
    // pixels, none when not finite and positive.
    COutlineRaster(int32_t width, int32_t height, double pen);

    // False when the masks or FreeType could not be set up: nothing is drawn.
    bool Ready() const;

    // Adds the fill (even-odd within each glyph) and the stroke (round joins)
    // of cr's current path, taken in device space, and clears the path.
    // Where glyphs overlap, coverage combines as the larger of the two.
    void AddAndClear(cairo_t* cr);

    cairo_surface_t* Fill() const { return m_fill.get(); }
    cairo_surface_t* Stroke() const { return m_stroke.get(); }  // empty without a pen

  private:
    // A box that grows to hold points and boxes; empty (inverted) at first.
    struct Box {
        double left = INFINITY;
        double top = INFINITY;
        double right = -INFINITY;
        double bottom = -INFINITY;
        void Add(double x, double y) {
            left = std::min(left, x);
            top = std::min(top, y);
            right = std::max(right, x);
            bottom = std::max(bottom, y);
        }
        void Add(const Box& box) {
            Add(box.left, box.top);
            Add(box.right, box.bottom);
        }
        bool Holds(const Box& box) const {
            return box.left >= left && box.right <= right && box.top >= top && box.bottom <= bottom;
        }
    };
    struct Contour {
        size_t first = 0;  // its first point in m_xy
        Box box;
    };
    // A glyph's coverage, offset from its whole-pixel anchor.
    struct Coverage {
        int32_t x = 0;
        int32_t y = 0;
        int32_t width = 0;
        int32_t height = 0;
        std::vector<uint8_t> fill;
        std::vector<uint8_t> stroke;
    };

    void AddGlyph(const std::vector<Contour>& contours, size_t begin, size_t end);
    // Rasterises the glyph whose points m_xy holds relative to its anchor.
    bool Rasterise(const std::vector<Contour>& contours, size_t begin, size_t end,
                   Coverage* coverage);
    void Stamp(const Coverage& coverage, int64_t anchorX, int64_t anchorY);

    int32_t m_width;
    int32_t m_height;
    double m_pen;
    FreeTypeLibraryPtr m_library;
    FreeTypeStrokerPtr m_stroker;
    CairoSurfacePtr m_fill;
    CairoSurfacePtr m_stroke;
    // The path being added: device coordinates and FreeType point tags.
    std::vector<double> m_xy;
    std::vector<char> m_tags;
    std::unordered_map<std::string, Coverage> m_cache;
    size_t m_cacheBytes = 0;
};

}  // namespace lumets
