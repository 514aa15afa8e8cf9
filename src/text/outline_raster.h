// Text drawn as outlines (with a pen, or glyphs too large for glyph
// pictures) is rasterised with FreeType, glyph by glyph: Cairo fills or
// strokes a text's path as one polygon, at a cost that grows far faster than
// the text. A text repeats its glyphs, so each glyph shape is rasterised once
// at each sixteenth-pixel phase and its coverage stamped wherever it recurs,
// in this text or any other drawn with the same pen.
// The fill and the pen's stroke gather in two coverage masks the size of the
// picture, which the caller paints through with the fill's and the pen's
// colours.
#pragma once

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
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

    // Adds the fill (non-zero winding) and the stroke (round joins) of cr's
    // current path, taken in device space, as one glyph, and clears the path.
    // A glyph's contours fill together, so its counters stay holes and its
    // overlapping strokes join without seams; where two glyphs overlap,
    // coverage combines as the larger of the two.
    void AddGlyphAndClear(cairo_t* cr);

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

    // Stamps the glyph m_xy and m_contours hold, rasterised or from the cache.
    void AddGlyph();
    // Rasterises the glyph whose points m_xy holds relative to its anchor;
    // keep says whether it is small enough to cache. False when none of it
    // can show.
    bool Rasterise(int64_t anchorX, int64_t anchorY, Coverage* coverage, bool* keep);
    void Stamp(const Coverage& coverage, int64_t anchorX, int64_t anchorY);
    struct Cache;
    static Cache& TheCache();
    static std::shared_ptr<const Coverage> Cached(const std::string& key);
    static void Keep(std::string key, Coverage coverage);

    int32_t m_width;
    int32_t m_height;
    double m_pen;
    FreeTypeLibraryPtr m_library;
    FreeTypeStrokerPtr m_stroker;
    CairoSurfacePtr m_fill;
    CairoSurfacePtr m_stroke;
    // The glyph being added: device coordinates, FreeType point tags and
    // where each contour starts; kept to spare an allocation per glyph.
    std::vector<double> m_xy;
    std::vector<char> m_tags;
    std::vector<Contour> m_contours;
};

}  // namespace lumets
