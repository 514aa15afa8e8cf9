// Colour glyphs (emoji) are pictures, not outlines: drawn as a path, Cairo
// traces their pixels one square each, which costs memory with the square of
// the em and loses their colours. Where a layout is drawn as a path, its
// colour runs are set aside and drawn as pictures instead.
#pragma once

#include <pango/pangocairo.h>

#include <vector>

namespace lumets {

class CColourGlyphs {
  public:
    // Finds layout's colour runs and empties their glyphs until Restore (or
    // destruction). Use under the font system's lock, after the layout was
    // last updated for the context it is drawn in.
    explicit CColourGlyphs(PangoLayout* layout);
    ~CColourGlyphs();
    CColourGlyphs(const CColourGlyphs&) = delete;
    CColourGlyphs& operator=(const CColourGlyphs&) = delete;

    void Restore();
    // Draws the restored runs in cr's user space, where the layout's top-left
    // is the origin. Glyphs over maxRasterPixels are drawn that large and
    // scaled up, so no glyph picture outgrows it.
    void Draw(cairo_t* cr, double emPixels, double maxRasterPixels) const;

  private:
    struct Run {
        PangoFont* font = nullptr;
        PangoGlyphString* glyphs = nullptr;
        std::vector<PangoGlyph> saved;
        int x = 0;  // Pango units
        int baseline = 0;
    };
    void DrawScaled(cairo_t* cr, const Run& run, double factor) const;

    std::vector<Run> m_runs;
    bool m_restored = false;
};

}  // namespace lumets
