#include "text/picture_glyphs.h"

#include <cairo-ft.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "text/cairo_handles.h"
#include "text/pango_handles.h"

namespace lumets {

namespace {

// Whether the face behind a Pango font has colour glyphs.
bool IsColourFont(PangoFont* font) {
    if (font == nullptr || !PANGO_IS_CAIRO_FONT(font)) {
        return false;
    }
    cairo_scaled_font_t* scaled = pango_cairo_font_get_scaled_font(PANGO_CAIRO_FONT(font));
    if (scaled == nullptr || cairo_scaled_font_get_type(scaled) != CAIRO_FONT_TYPE_FT) {
        return false;
    }
    const FT_Face face = cairo_ft_scaled_font_lock_face(scaled);
    const bool colour = face != nullptr && FT_HAS_COLOR(face);
    cairo_ft_scaled_font_unlock_face(scaled);
    return colour;
}

}  // namespace

CPictureGlyphs::CPictureGlyphs(PangoLayout* layout, bool missingBoxes) {
    PangoLayoutIterPtr iter(pango_layout_get_iter(layout));
    if (!iter) {
        return;
    }
    std::vector<std::pair<PangoFont*, bool>> fonts;  // a text uses few
    do {
        PangoLayoutRun* run = pango_layout_iter_get_run(iter.get());
        if (run == nullptr || run->item == nullptr || run->glyphs == nullptr) {
            continue;
        }
        PangoFont* font = run->item->analysis.font;
        auto known = std::find_if(fonts.begin(), fonts.end(),
                                  [font](const auto& entry) { return entry.first == font; });
        if (known == fonts.end()) {
            fonts.emplace_back(font, IsColourFont(font));
            known = fonts.end() - 1;
        }
        Run aside{font, run->glyphs, known->second, {}, {}, 0, 0};
        bool any = false;
        for (int i = 0; i < run->glyphs->num_glyphs; ++i) {
            PangoGlyph& glyph = run->glyphs->glyphs[i].glyph;
            const bool picture =
                known->second || (missingBoxes && (glyph & PANGO_GLYPH_UNKNOWN_FLAG) != 0);
            aside.saved.push_back(glyph);
            aside.aside.push_back(picture);
            if (picture) {
                glyph = PANGO_GLYPH_EMPTY;
                any = true;
            }
        }
        if (!any) {
            continue;
        }
        PangoRectangle logical{};
        pango_layout_iter_get_run_extents(iter.get(), nullptr, &logical);
        aside.x = logical.x;
        aside.baseline = pango_layout_iter_get_baseline(iter.get());
        m_runs.push_back(std::move(aside));
    } while (pango_layout_iter_next_run(iter.get()));
}

CPictureGlyphs::~CPictureGlyphs() {
    Restore();
}

void CPictureGlyphs::Restore() {
    if (m_restored) {
        return;
    }
    m_restored = true;
    for (Run& run : m_runs) {
        for (int i = 0; i < run.glyphs->num_glyphs; ++i) {
            run.glyphs->glyphs[i].glyph = run.saved[static_cast<size_t>(i)];
        }
    }
}

void CPictureGlyphs::Draw(cairo_t* cr, double emPixels, double maxRasterPixels) const {
    for (const Run& run : m_runs) {
        if (run.colour && emPixels > maxRasterPixels) {
            DrawScaled(cr, run, emPixels / maxRasterPixels);
            continue;
        }
        // Only the glyphs set aside show; the run is whole again after.
        for (int i = 0; i < run.glyphs->num_glyphs; ++i) {
            if (!run.aside[static_cast<size_t>(i)]) {
                run.glyphs->glyphs[i].glyph = PANGO_GLYPH_EMPTY;
            }
        }
        cairo_move_to(cr, static_cast<double>(run.x) / PANGO_SCALE,
                      static_cast<double>(run.baseline) / PANGO_SCALE);
        pango_cairo_show_glyph_string(cr, run.font, run.glyphs);
        for (int i = 0; i < run.glyphs->num_glyphs; ++i) {
            run.glyphs->glyphs[i].glyph = run.saved[static_cast<size_t>(i)];
        }
    }
}

// The run's glyphs at 1/factor of their size, in a picture that covers only
// what of the run lies in the clip, then scaled up into place.
void CPictureGlyphs::DrawScaled(cairo_t* cr, const Run& run, double factor) const {
    PangoRectangle ink{};
    pango_glyph_string_extents(run.glyphs, run.font, &ink, nullptr);
    double left = 0;
    double top = 0;
    double right = 0;
    double bottom = 0;
    cairo_clip_extents(cr, &left, &top, &right, &bottom);
    const double runLeft = static_cast<double>(run.x + ink.x) / PANGO_SCALE;
    const double runTop = static_cast<double>(run.baseline + ink.y) / PANGO_SCALE;
    left = std::max(left, runLeft) / factor;
    top = std::max(top, runTop) / factor;
    right = std::min(right, runLeft + static_cast<double>(ink.width) / PANGO_SCALE) / factor;
    bottom = std::min(bottom, runTop + static_cast<double>(ink.height) / PANGO_SCALE) / factor;
    if (!(right > left && bottom > top)) {
        return;
    }
    const double originX = std::floor(left) - 1;
    const double originY = std::floor(top) - 1;
    const int width = static_cast<int>(std::ceil(right - originX)) + 1;
    const int height = static_cast<int>(std::ceil(bottom - originY)) + 1;
    CairoSurfacePtr picture(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
    if (cairo_surface_status(picture.get()) != CAIRO_STATUS_SUCCESS) {
        return;
    }

    // The same face with an em factor times smaller.
    cairo_scaled_font_t* font = pango_cairo_font_get_scaled_font(PANGO_CAIRO_FONT(run.font));
    cairo_matrix_t fontMatrix;
    cairo_scaled_font_get_font_matrix(font, &fontMatrix);
    cairo_matrix_scale(&fontMatrix, 1 / factor, 1 / factor);
    cairo_matrix_t identity;
    cairo_matrix_init_identity(&identity);
    CairoFontOptionsPtr options(cairo_font_options_create());
    cairo_scaled_font_get_font_options(font, options.get());
    CairoScaledFontPtr small(cairo_scaled_font_create(cairo_scaled_font_get_font_face(font),
                                                      &fontMatrix, &identity, options.get()));

    std::vector<cairo_glyph_t> glyphs;
    int64_t x = run.x;
    for (int i = 0; i < run.glyphs->num_glyphs; ++i) {
        const PangoGlyphInfo& glyph = run.glyphs->glyphs[i];
        if (glyph.glyph != PANGO_GLYPH_EMPTY && (glyph.glyph & PANGO_GLYPH_UNKNOWN_FLAG) == 0) {
            glyphs.push_back(cairo_glyph_t{
                glyph.glyph,
                static_cast<double>(x + glyph.geometry.x_offset) / PANGO_SCALE / factor - originX,
                static_cast<double>(run.baseline + glyph.geometry.y_offset) / PANGO_SCALE / factor -
                    originY});
        }
        x += glyph.geometry.width;
    }
    CairoPtr pc(cairo_create(picture.get()));
    cairo_set_scaled_font(pc.get(), small.get());
    cairo_show_glyphs(pc.get(), glyphs.data(), static_cast<int>(glyphs.size()));
    pc.reset();
    cairo_surface_flush(picture.get());

    cairo_save(cr);
    cairo_scale(cr, factor, factor);
    cairo_set_source_surface(cr, picture.get(), originX, originY);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_paint(cr);
    cairo_restore(cr);
}

}  // namespace lumets
