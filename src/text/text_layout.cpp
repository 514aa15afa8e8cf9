#include "text/text_layout.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "lumets_platform/utf16.h"
#include "text/cairo_handles.h"
#include "text/font_system.h"
#include "text/outline_raster.h"
#include "text/pango_handles.h"
#include "text/picture_glyphs.h"

namespace lumets {

namespace {

// Glyphs bigger than this are drawn as outlines: a rasterised glyph of a
// huge font would need more memory than the whole bitmap may have.
constexpr double kMaxRasterGlyphPixels = 512.0;
// Ems beyond this could not show a single whole glyph in a bitmap anyway, and
// a little beyond it (about 17,500 px) Pango's sizes for scaled colour emoji
// faces overflow.
constexpr double kMaxEmPixels = kMaxPictureSide;

// Sides saturate at +-2^30, which keeps the even rounding free of overflow.
int32_t TruncateSide(float value) {
    return TruncateClamped(value, -(1 << 30), 1 << 30);
}

float Finite(float value) {
    return std::isfinite(value) ? value : 0.0f;
}

PangoAlignment PangoAlign(Align align) {
    switch (align) {
        case Align::Centre:
            return PANGO_ALIGN_CENTER;
        case Align::Far:
            return PANGO_ALIGN_RIGHT;
        case Align::Near:
            break;
    }
    return PANGO_ALIGN_LEFT;
}

}  // namespace

std::u16string NormalizeText(const char16_t* text, size_t maxUnits) {
    std::u16string out;
    if (text == nullptr) {
        return out;
    }
    const size_t length = platform::U16Length(text, maxUnits);
    out.assign(text, length);
    if (length == 0) {
        return out;
    }
    std::replace(out.begin(), out.end(), u'\r', u'\n');
    if (out.back() != u'\n') {
        out.push_back(u'\n');
    }
    return out;
}

int32_t MulDiv(int32_t a, int32_t b, int32_t c) {
    if (c == 0) {
        return -1;
    }
    const int64_t product = static_cast<int64_t>(a) * b;
    const int64_t half = std::llabs(c) / 2;
    const bool negative = (product < 0) != (c < 0);
    const int64_t magnitude = (std::llabs(product) + half) / std::llabs(c);
    const int64_t result = negative ? -magnitude : magnitude;
    if (result > INT32_MAX || result < INT32_MIN) {
        return -1;
    }
    return static_cast<int32_t>(result);
}

double EmSizePixels(int32_t fontSize) {
    // A zero height asks for the default font size; a positive one (negative
    // points) asks for a cell height, taken here as the em.
    const int32_t height = -MulDiv(fontSize, 96, 72);
    double em = height == 0 ? 16.0 : std::abs(static_cast<double>(height));
    return std::min(em, kMaxEmPixels);
}

BitmapSize BitmapSizeFor(float boxWidth, float boxHeight, int32_t fontSize, bool vertical) {
    boxWidth = Finite(boxWidth);
    boxHeight = Finite(boxHeight);
    const float minimumSide = static_cast<float>(fontSize);
    int32_t w = 0;
    int32_t h = 0;
    if (!vertical) {
        h = minimumSide > boxHeight ? std::min(fontSize, 1 << 30)
                                    : TruncateSide(boxHeight + 0.0001f);
        w = TruncateSide(boxWidth + 0.0001f);
    } else {
        w = minimumSide > boxWidth ? std::min(fontSize, 1 << 30) : TruncateSide(boxWidth + 0.0001f);
        h = TruncateSide(boxHeight + 0.0001f);
    }
    // C++ remainder takes the dividend's sign, as the host's arithmetic does.
    w += w % 2;
    h += h % 2;
    const int64_t pixels = static_cast<int64_t>(w) * h;
    w = std::clamp(w, 2, kMaxPictureSide);
    h = std::clamp(h, 2, kMaxPictureSide);
    // The pixel limit works on the clamped sides; its quotient is clamped
    // again so that no side ever exceeds the limit (a long, narrow text would
    // otherwise get a side over 16384).
    if (pixels > kMaxPicturePixels) {
        if (w <= h) {
            h = std::min(static_cast<int32_t>(kMaxPicturePixels / w), kMaxPictureSide);
        } else {
            w = std::min(static_cast<int32_t>(kMaxPicturePixels / h), kMaxPictureSide);
        }
    }
    return BitmapSize{w, h};
}

namespace {

// Code points that belong to the character before them (marks, variation
// selectors, emoji modifiers and joiners), so a vertical column keeps them
// together with their base.
bool JoinsPrevious(gunichar c, gunichar previous) {
    return (c >= 0x300 && c <= 0x36F) || (c >= 0xFE00 && c <= 0xFE0F) || c == 0x200D ||
           previous == 0x200D || (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0020 && c <= 0xE007F);
}

// One column's characters, each with the marks and joiners that belong to
// it. Line and paragraph separators become spaces: in a column they are
// characters like any other, not breaks.
std::vector<std::string> StackCharacters(const std::string& line) {
    std::vector<std::string> out;
    gunichar previous = 0;
    for (const char* p = line.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
        const gunichar c = g_utf8_get_char(p);
        if (out.empty() || !JoinsPrevious(c, previous)) {
            out.emplace_back();
        }
        if (c == 0x2028 || c == 0x2029 || c == 0x85) {
            out.back().push_back(' ');
        } else {
            out.back().append(p, g_utf8_next_char(p) - p);
        }
        previous = c;
    }
    return out;
}

// A long line cut after every count characters, never before a mark or
// joiner that belongs to the character before it.
std::vector<std::string> SplitPieces(const std::string& line, size_t count) {
    std::vector<std::string> pieces(1);
    size_t inPiece = 0;
    gunichar previous = 0;
    for (const char* p = line.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
        const gunichar c = g_utf8_get_char(p);
        if (inPiece >= count && !JoinsPrevious(c, previous)) {
            pieces.emplace_back();
            inPiece = 0;
        }
        pieces.back().append(p, g_utf8_next_char(p) - p);
        ++inPiece;
        previous = c;
    }
    return pieces;
}

// parts[first, end) joined into one text of lines.
std::string JoinLines(const std::vector<std::string>& parts, size_t first, size_t end) {
    std::string text = parts[first];
    for (size_t i = first + 1; i < end; ++i) {
        text.append(1, '\n').append(parts[i]);
    }
    return text;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', begin)) {
        lines.push_back(text.substr(begin, at - begin));
        begin = at + 1;
    }
    lines.push_back(text.substr(begin));
    return lines;
}

}  // namespace

StyledLayout::StyledLayout(const std::u16string& text, const TextStyle& style)
    : m_style(style),
      m_horizontalAlign(ToAlign(style.horizontalAlign)),
      m_verticalAlign(ToAlign(style.verticalAlign)),
      m_vertical(style.vertical != 0),
      m_empty(text.empty()) {
    m_utf8 = platform::U16ToUtf8(text.data(), text.size());
    m_emPixels = EmSizePixels(style.fontSize);

    FontSystem& fonts = FontSystem::Get();
    if (fonts.FontMap() == nullptr) {
        return;
    }
    // The face as the host names it, cut to 31 units; an empty name or one
    // that no installed face really has falls back to the default face.
    std::string face = platform::U16ToUtf8(style.faceName, platform::U16Length(style.faceName, 31));
    if (face.empty() || !fonts.HasFamily(face)) {
        face = kFallbackFace;
    }

    m_context.reset(pango_font_map_create_context(fonts.FontMap()));
    const CairoFontOptionsPtr options(cairo_font_options_create());
    cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_NONE);
    cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
    pango_cairo_context_set_font_options(m_context.get(), options.get());
    pango_context_set_round_glyph_positions(m_context.get(), FALSE);

    const PangoFontDescriptionPtr description(pango_font_description_new());
    pango_font_description_set_family(description.get(), face.c_str());
    pango_font_description_set_absolute_size(description.get(), m_emPixels * PANGO_SCALE);
    pango_font_description_set_weight(description.get(),
                                      style.bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    pango_font_description_set_style(description.get(),
                                     style.italic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);

    m_layout.reset(pango_layout_new(m_context.get()));
    PangoLayout* layout = m_layout.get();
    pango_layout_set_font_description(layout, description.get());

    const PangoAttrListPtr attributes(pango_attr_list_new());
    if (style.underline) {
        pango_attr_list_insert(attributes.get(), pango_attr_underline_new(PANGO_UNDERLINE_SINGLE));
    }
    if (style.strikeOut) {
        pango_attr_list_insert(attributes.get(), pango_attr_strikethrough_new(TRUE));
    }
    if (m_vertical) {
        // Upright characters follow each other one em apart down a column;
        // a column is one line of the font wide and centres its characters.
        const PangoFontMetricsPtr metrics(
            pango_context_get_metrics(m_context.get(), description.get(), nullptr));
        m_columnWidth = pango_font_metrics_get_ascent(metrics.get()) +
                        pango_font_metrics_get_descent(metrics.get());
        m_lineHeight = static_cast<int>(m_emPixels * PANGO_SCALE);
        pango_attr_list_insert(attributes.get(), pango_attr_line_height_new_absolute(m_lineHeight));
        pango_layout_set_alignment(layout, PANGO_ALIGN_CENTER);
        pango_layout_set_width(layout, m_columnWidth);
    } else {
        // Along a line: near, centre or far; across lines the block always
        // starts at the top edge (see MoveTo).
        pango_layout_set_alignment(layout, PangoAlign(m_horizontalAlign));
    }
    pango_layout_set_attributes(layout, attributes.get());

    if (!m_vertical) {
        m_blocks = MakeBlocks(m_utf8);
    } else {
        m_columns = MakeColumns(m_utf8);
    }
}

float StyledLayout::ColumnHeight(const Column& column) const {
    return static_cast<float>(static_cast<double>(column.characters) * m_emPixels);
}

StyledLayout::LayoutPtr StyledLayout::WithText(const std::string& utf8) const {
    LayoutPtr layout(pango_layout_copy(m_layout.get()));
    pango_layout_set_text(layout.get(), utf8.data(), static_cast<int>(utf8.size()));
    return layout;
}

size_t StyledLayout::PieceCharacters() const {
    constexpr double kMaxExtentPixels = 2147483647.0 / PANGO_SCALE;
    return std::max<size_t>(1, static_cast<size_t>(kMaxExtentPixels / (16 * m_emPixels)));
}

std::vector<StyledLayout::Block> StyledLayout::MakeBlocks(const std::string& utf8) const {
    const std::vector<std::string> lines = SplitLines(utf8);
    const size_t pieceCharacters = PieceCharacters();
    auto isLong = [&](const std::string& line) {
        return static_cast<size_t>(g_utf8_strlen(line.data(), static_cast<gssize>(line.size()))) >
               pieceCharacters;
    };
    std::vector<Block> blocks;
    // Heights add up in Pango units, as within one layout, so every line lands
    // where one layout of the whole text would put it.
    int64_t top = 0;
    auto measured = [&](const std::string& text, int64_t x, PangoRectangle* logical) {
        Block block;
        block.layout = WithText(text);
        pango_layout_get_extents(block.layout.get(), nullptr, logical);
        block.x = static_cast<double>(x) / PANGO_SCALE;
        block.y = static_cast<double>(top) / PANGO_SCALE;
        block.width = static_cast<double>(logical->width) / PANGO_SCALE;
        block.height = static_cast<double>(logical->height) / PANGO_SCALE;
        block.lineWidth = block.width;
        return block;
    };
    for (size_t first = 0; first < lines.size();) {
        PangoRectangle logical{};
        if (isLong(lines[first])) {
            // Pieces side by side make the line, on one baseline as within one
            // layout: the highest ascent above it, the deepest descent below.
            const size_t firstPiece = blocks.size();
            std::vector<int> baselines;
            int64_t x = 0;
            int64_t ascent = 0;
            int64_t descent = 0;
            for (const std::string& piece : SplitPieces(lines[first], pieceCharacters)) {
                blocks.push_back(measured(piece, x, &logical));
                baselines.push_back(pango_layout_get_baseline(blocks.back().layout.get()));
                x += logical.width;
                ascent = std::max<int64_t>(ascent, baselines.back());
                descent = std::max<int64_t>(descent, logical.height - baselines.back());
            }
            for (size_t i = firstPiece; i < blocks.size(); ++i) {
                blocks[i].lineWidth = static_cast<double>(x) / PANGO_SCALE;
                blocks[i].y +=
                    static_cast<double>(ascent - baselines[i - firstPiece]) / PANGO_SCALE;
            }
            top += ascent + descent;
            ++first;
            continue;
        }
        size_t end = first + 1;
        while (end < lines.size() && end - first < kBlockLines && !isLong(lines[end])) {
            ++end;
        }
        blocks.push_back(measured(JoinLines(lines, first, end), 0, &logical));
        top += logical.height;
        first = end;
    }
    return blocks;
}

std::vector<StyledLayout::Column> StyledLayout::MakeColumns(const std::string& utf8) const {
    std::vector<Column> columns;
    for (const std::string& line : SplitLines(utf8)) {
        const std::vector<std::string> characters = StackCharacters(line);
        Column column;
        column.characters = characters.size();
        // Every line is exactly one line height below the one before.
        for (size_t first = 0; first < characters.size(); first += kBlockLines) {
            const size_t end = std::min(characters.size(), first + kBlockLines);
            Block block;
            block.layout = WithText(JoinLines(characters, first, end));
            block.y = static_cast<double>(first) * m_lineHeight / PANGO_SCALE;
            block.height = static_cast<double>(end - first) * m_lineHeight / PANGO_SCALE;
            column.blocks.push_back(std::move(block));
        }
        columns.push_back(std::move(column));
    }
    return columns;
}

RectF StyledLayout::Box(const std::vector<Block>& blocks) {
    double width = 0;
    double height = 0;
    for (const Block& block : blocks) {
        width = std::max(width, block.lineWidth);
        height = std::max(height, block.y + block.height);
    }
    return RectF{0, 0, static_cast<float>(width), static_cast<float>(height)};
}

RectF StyledLayout::Box(const std::vector<Column>& columns) const {
    float height = 0.0f;
    for (const Column& column : columns) {
        height = std::max(height, ColumnHeight(column));
    }
    const float columnWidth = static_cast<float>(m_columnWidth) / PANGO_SCALE;
    return RectF{0, 0, columnWidth * static_cast<float>(columns.size()), height};
}

RectF StyledLayout::MeasureText(const std::string& utf8) const {
    return m_vertical ? Box(MakeColumns(utf8)) : Box(MakeBlocks(utf8));
}

RectF StyledLayout::Measure() const {
    if (m_layout == nullptr || m_empty) {
        return RectF{};
    }
    // The text's own layouts already exist; measure them as they are.
    return m_vertical ? Box(m_columns) : Box(m_blocks);
}

void StyledLayout::Layout(RectF* layoutRect, BitmapSize* size) {
    RectF r;
    RectF measured;
    if (m_layout != nullptr && !m_empty) {
        measured = Measure();
        r = RectF{0, 0, measured.width, measured.height};
        // What one more (empty) line adds: the final line feed of every text
        // makes the measured box a line too large, so take it off again.
        const RectF one = MeasureText("W");
        const RectF two = MeasureText("W\n");
        float dW = two.width - one.width;
        float dH = two.height - one.height;
        if (!m_vertical) {
            if (dW >= 1.0f) {
                dW -= 1.0f;
            }
            if (m_verticalAlign == Align::Centre) {
                r.y -= dH * 0.5f;
            } else if (m_verticalAlign == Align::Far) {
                r.y -= dH;
            }
        } else {
            if (dH >= 1.0f) {
                dH -= 1.0f;
            }
            if (m_horizontalAlign == Align::Centre) {
                r.x -= dW * 0.5f;
            } else if (m_horizontalAlign == Align::Far) {
                r.x -= dW;
            }
        }
        m_shift = RectF{r.x, r.y, 0, 0};
        m_emptyLine = m_vertical ? two.width - one.width : two.height - one.height;
        r.width -= dW;
        r.height -= dH;
        if (m_style.outline) {
            r.width += m_style.outlineWidth;
            r.height += m_style.outlineWidth;
        }
    }
    *size = BitmapSizeFor(r.width, r.height, m_style.fontSize, m_vertical);
    r.width = measured.width;
    r.height = measured.height;
    *layoutRect = r;
}

StyledLayout::CullBox StyledLayout::Drawable(cairo_t* cr) const {
    CullBox box;
    cairo_clip_extents(cr, &box.left, &box.top, &box.right, &box.bottom);
    const double pen = std::isfinite(m_style.outlineWidth)
                           ? std::min<double>(std::fabs(m_style.outlineWidth), m_emPixels)
                           : 0;
    box.margin = 2 * m_emPixels + pen;
    return box;
}

// The block of lines always starts at the unshifted top edge (horizontal
// text) or right edge (vertical text): the alignment shifts of Layout exactly
// cancel the alignment of a block that is one empty line shorter than the
// measured box, so only the real lines are placed. Vertical columns are
// aligned along the box's height by the vertical alignment.
template <typename Paint>
void StyledLayout::ForEachBlock(cairo_t* cr, const RectF& rect, Paint paint) const {
    const double x = rect.x - m_shift.x;
    const double y = rect.y - m_shift.y;
    // Blocks wholly outside what can be drawn are skipped.
    const CullBox drawable = Drawable(cr);
    auto paintAt = [&](const Block& block, double blockX, double blockY, double blockWidth) {
        if (drawable.Misses(blockX, blockY, blockWidth, block.height)) {
            return;
        }
        cairo_save(cr);
        cairo_translate(cr, blockX, blockY);
        paint(block.layout.get());
        cairo_restore(cr);
    };
    if (!m_vertical) {
        // Pango aligns a block's lines within the block's widest line; moving
        // the block by the rest of the widest line of all keeps every line
        // where one layout of the whole text would put it. Pieces of a long
        // line follow each other from where their whole line is placed.
        const double width = Box(m_blocks).width;
        const double alignment = m_horizontalAlign == Align::Centre ? 0.5
                                 : m_horizontalAlign == Align::Far  ? 1.0
                                                                    : 0.0;
        for (const Block& block : m_blocks) {
            paintAt(block, x + (width - block.lineWidth) * alignment + block.x, y + block.y,
                    block.width);
        }
        return;
    }
    const double columnWidth = static_cast<double>(m_columnWidth) / PANGO_SCALE;
    double columnRight = x + rect.width - m_emptyLine;
    for (const Column& column : m_columns) {
        const double slack = rect.height - ColumnHeight(column);
        const double along = m_verticalAlign == Align::Centre ? slack / 2
                             : m_verticalAlign == Align::Far  ? slack
                                                              : 0.0;
        for (const Block& block : column.blocks) {
            paintAt(block, columnRight - columnWidth, y + along + block.y, columnWidth);
        }
        columnRight -= columnWidth;
    }
}

namespace {

// The underlines and strike-outs of line at cr's current point. Pango draws
// them together with the glyphs, which are emptied meanwhile.
void DecorationPath(cairo_t* cr, PangoLayoutLine* line) {
    std::vector<PangoGlyph> saved;
    for (GSList* l = line->runs; l != nullptr; l = l->next) {
        PangoGlyphString* glyphs = static_cast<PangoLayoutRun*>(l->data)->glyphs;
        for (int i = 0; i < glyphs->num_glyphs; ++i) {
            saved.push_back(glyphs->glyphs[i].glyph);
            glyphs->glyphs[i].glyph = PANGO_GLYPH_EMPTY;
        }
    }
    pango_cairo_layout_line_path(cr, line);
    size_t next = 0;
    for (GSList* l = line->runs; l != nullptr; l = l->next) {
        PangoGlyphString* glyphs = static_cast<PangoLayoutRun*>(l->data)->glyphs;
        for (int i = 0; i < glyphs->num_glyphs; ++i) {
            glyphs->glyphs[i].glyph = saved[next++];
        }
    }
}

// Puts each glyph of run, its origin at (x, y) in device space, into cr's
// path on its own and calls use(cr): the glyph boundaries are Pango's, not
// guessed from the path. single is a one-glyph string to draw with.
void EachGlyphPath(cairo_t* cr, const PangoLayoutRun& run, double x, double y,
                   PangoGlyphString* single, const std::function<void(cairo_t*)>& use) {
    PangoFont* font = run.item->analysis.font;
    cairo_scaled_font_t* scaled = font != nullptr && PANGO_IS_CAIRO_FONT(font)
                                      ? pango_cairo_font_get_scaled_font(PANGO_CAIRO_FONT(font))
                                      : nullptr;
    const bool outlines =
        scaled != nullptr && cairo_scaled_font_status(scaled) == CAIRO_STATUS_SUCCESS;
    bool fontSet = false;
    int64_t advance = 0;  // Pango units
    for (int i = 0; i < run.glyphs->num_glyphs; ++i) {
        const PangoGlyphInfo& info = run.glyphs->glyphs[i];
        const double glyphX = x + static_cast<double>(advance) / PANGO_SCALE;
        advance += info.geometry.width;
        if (info.glyph == PANGO_GLYPH_EMPTY) {
            continue;
        }
        if (outlines && (info.glyph & PANGO_GLYPH_UNKNOWN_FLAG) == 0) {
            if (!fontSet) {
                cairo_set_scaled_font(cr, scaled);
                fontSet = true;
            }
            const cairo_glyph_t glyph{
                info.glyph, glyphX + static_cast<double>(info.geometry.x_offset) / PANGO_SCALE,
                y + static_cast<double>(info.geometry.y_offset) / PANGO_SCALE};
            cairo_glyph_path(cr, &glyph, 1);
        } else {
            // A missing glyph's box, or a font Cairo cannot draw: Pango
            // knows what stands in for it.
            single->glyphs[0] = info;
            single->log_clusters[0] = 0;
            cairo_move_to(cr, glyphX, y);
            pango_cairo_glyph_string_path(cr, font, single);
            fontSet = false;
        }
        use(cr);
    }
}

}  // namespace

void StyledLayout::ForEachPath(cairo_t* cr, const RectF& rect,
                               const std::function<void(cairo_t*)>& use) const {
    if (m_layout == nullptr || m_empty) {
        return;
    }
    const bool decorated = m_style.underline || m_style.strikeOut;
    const PangoGlyphStringPtr single(pango_glyph_string_new());
    pango_glyph_string_set_size(single.get(), 1);
    ForEachBlock(cr, rect, [&](PangoLayout* layout) {
        pango_cairo_update_layout(cr, layout);
        // Missing glyphs' boxes at a huge em would make huge digit pictures.
        const CPictureGlyphs pictures(layout, m_emPixels <= kMaxRasterGlyphPixels);
        // Lines outside the clip are skipped.
        const CullBox drawable = Drawable(cr);
        // A block is only moved, so its glyphs are placed in device space
        // directly and the matrix stays the identity throughout.
        cairo_matrix_t block;
        cairo_get_matrix(cr, &block);
        cairo_identity_matrix(cr);
        PangoLayoutIterPtr iter(pango_layout_get_iter(layout));
        do {
            PangoRectangle logical{};
            pango_layout_iter_get_line_extents(iter.get(), nullptr, &logical);
            const double x = static_cast<double>(logical.x) / PANGO_SCALE;
            const double y = static_cast<double>(logical.y) / PANGO_SCALE;
            if (drawable.Misses(x, y, logical.width / double{PANGO_SCALE},
                                logical.height / double{PANGO_SCALE})) {
                continue;
            }
            const double lineX = block.x0 + x;
            const double baseline =
                block.y0 +
                static_cast<double>(pango_layout_iter_get_baseline(iter.get())) / PANGO_SCALE;
            PangoLayoutLine* line = pango_layout_iter_get_line_readonly(iter.get());
            if (decorated) {
                cairo_move_to(cr, lineX, baseline);
                DecorationPath(cr, line);
                use(cr);
            }
            // Runs follow each other along the line as Pango's renderer
            // places them: each one its glyphs' advances after the last.
            int64_t runX = 0;  // Pango units
            for (GSList* l = line->runs; l != nullptr; l = l->next) {
                const auto& run = *static_cast<const PangoLayoutRun*>(l->data);
                EachGlyphPath(cr, run, lineX + static_cast<double>(runX) / PANGO_SCALE,
                              baseline - static_cast<double>(run.y_offset) / PANGO_SCALE,
                              single.get(), use);
                runX += pango_glyph_string_get_width(run.glyphs);
            }
        } while (pango_layout_iter_next_line(iter.get()));
        cairo_set_matrix(cr, &block);
    });
}

void StyledLayout::DrawPictureGlyphs(cairo_t* cr, const RectF& rect) const {
    if (m_layout == nullptr || m_empty) {
        return;
    }
    ForEachBlock(cr, rect, [&](PangoLayout* layout) {
        pango_cairo_update_layout(cr, layout);
        CPictureGlyphs pictures(layout, m_emPixels <= kMaxRasterGlyphPixels);
        pictures.Restore();
        pictures.Draw(cr, m_emPixels, kMaxRasterGlyphPixels);
    });
}

void StyledLayout::ShowIn(cairo_t* cr, const RectF& rect) const {
    if (m_layout == nullptr || m_empty) {
        return;
    }
    cairo_save(cr);
    cairo_rectangle(cr, rect.x, rect.y, rect.width, rect.height);
    cairo_clip(cr);
    if (m_emPixels > kMaxRasterGlyphPixels) {
        cairo_surface_t* target = cairo_get_target(cr);
        COutlineRaster raster(cairo_image_surface_get_width(target),
                              cairo_image_surface_get_height(target), 0);
        if (raster.Ready()) {
            ForEachPath(cr, rect, [&raster](cairo_t* c) { raster.AddGlyphAndClear(c); });
            cairo_mask_surface(cr, raster.Fill(), 0, 0);
        }
        DrawPictureGlyphs(cr, rect);
    } else {
        ForEachBlock(cr, rect, [cr](PangoLayout* layout) {
            pango_cairo_update_layout(cr, layout);
            pango_cairo_show_layout(cr, layout);
        });
    }
    cairo_restore(cr);
}

}  // namespace lumets
