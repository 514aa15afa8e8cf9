// Glyphs that are pictures, not outlines. A colour glyph (emoji) drawn as a
// path is traced one pixel square at a time, which costs memory with the
// square of the em and loses its colours; the box that stands for a missing
// glyph is a frame with the code's digits, a dozen outlines of its own, all
// different. Where a layout is drawn as a path, such glyphs are set aside and
// drawn as pictures instead.
#pragma once

#include <pango/pangocairo.h>

#include <vector>

namespace lumets {

class CPictureGlyphs {
  public:
    // Finds layout's colour glyphs, and with missingBoxes the boxes for
    // missing glyphs, and empties them until Restore (or destruction). Use
    // under the font system's lock, after the layout was last updated for the
    // context it is drawn in.
    CPictureGlyphs(PangoLayout* layout, bool missingBoxes);
    ~CPictureGlyphs();
    CPictureGlyphs(const CPictureGlyphs&) = delete;
    CPictureGlyphs& operator=(const CPictureGlyphs&) = delete;

    void Restore();
    // Draws the restored glyphs in cr's user space, where the layout's
    // top-left is the origin. Colour glyphs over maxRasterPixels are drawn
    // that large and scaled up, so no glyph picture outgrows it.
    void Draw(cairo_t* cr, double emPixels, double maxRasterPixels) const;

  private:
    struct Run {
        PangoFont* font = nullptr;
        PangoGlyphString* glyphs = nullptr;
        bool colour = false;
        std::vector<PangoGlyph> saved;
        std::vector<bool> aside;
        int x = 0;  // Pango units
        int baseline = 0;
    };
    void DrawScaled(cairo_t* cr, const Run& run, double factor) const;

    std::vector<Run> m_runs;
    bool m_restored = false;
};

}  // namespace lumets
