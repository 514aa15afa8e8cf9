// Text layout: the fonts, the measuring and the size arithmetic that turn a
// text and a style into a layout rectangle and a bitmap size. Measuring
// follows the host's typographic text format: no padding, trailing spaces
// counted, no wrapping.
#pragma once

#include <pango/pangocairo.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lumets/text_style.h"
#include "lumets_common/picture_limits.h"
#include "text/pango_handles.h"

namespace lumets {

struct RectF {
    float x = 0;
    float y = 0;
    float width = 0;
    float height = 0;
};

struct BitmapSize {
    int32_t width = 0;
    int32_t height = 0;
};

// Carriage returns become line feeds and a final line feed is added, so
// CR LF gives an empty line and every text ends with a line feed. An empty
// text stays empty.
std::u16string NormalizeText(const char16_t* text, size_t maxUnits);

// MulDiv(a, b, c): a * b / c rounded to nearest, halves away from zero.
int32_t MulDiv(int32_t a, int32_t b, int32_t c);

// The em size in pixels for a font size in points on a 96 dpi screen.
double EmSizePixels(int32_t fontSize);

// The bitmap size from the corrected layout box: at least the font size
// across lines, both sides made even, clamped to kMaxPictureSide and to
// kMaxPicturePixels in all. Non-finite boxes count as 0.
BitmapSize BitmapSizeFor(float boxWidth, float boxHeight, int32_t fontSize, bool vertical);

// An alignment code of the text style (0 near, 1 centre, 2 far) as the
// layout uses it; unknown codes are near, as 0 is.
enum class Align : uint8_t { Near, Centre, Far };

constexpr Align ToAlign(int32_t code) {
    return code == 1 ? Align::Centre : code == 2 ? Align::Far : Align::Near;
}

// A Pango layout set up for one style. Owns its objects; use under the font
// system's lock.
class StyledLayout {
  public:
    StyledLayout(const std::u16string& text, const TextStyle& style);
    StyledLayout(const StyledLayout&) = delete;
    StyledLayout& operator=(const StyledLayout&) = delete;

    // False when no font could be made: nothing is measured or drawn.
    bool HasFont() const { return m_layout != nullptr; }
    bool Vertical() const { return m_vertical; }

    // The measured box of the whole text (on screen axes).
    RectF Measure() const;
    // The layout rectangle (x, y corrected, measured size) and the bitmap size.
    void Layout(RectF* layoutRect, BitmapSize* size);

    double EmPixels() const { return m_emPixels; }

    // With the text's box at rect, puts the outline of each glyph of the
    // lines that can reach the clip into cr's path in turn, and calls use(cr)
    // with the identity matrix to consume it; a line's underlines and
    // strike-outs come as one more path of their own. Glyphs that are
    // pictures (colour glyphs, boxes for missing glyphs) are left out;
    // DrawPictureGlyphs draws them.
    // For drawing without outline, ShowIn paints the text with the current
    // source, clipped to rect.
    void ForEachPath(cairo_t* cr, const RectF& rect,
                     const std::function<void(cairo_t*)>& use) const;
    void DrawPictureGlyphs(cairo_t* cr, const RectF& rect) const;
    void ShowIn(cairo_t* cr, const RectF& rect) const;

  private:
    using LayoutPtr = GObjectPtr<PangoLayout>;
    // Pango lays out a text's lines in time that grows with the square of
    // their count, so texts are cut into blocks of at most this many lines
    // (horizontal) or characters (a vertical column), stacked.
    static constexpr size_t kBlockLines = 256;
    // A block of short lines, or one piece of a long line (horizontal text),
    // or up to kBlockLines characters of a column (vertical text).
    struct Block {
        LayoutPtr layout;
        double x = 0;          // pixels from the start of its line (pieces)
        double y = 0;          // pixels from the top of the text or column
        double width = 0;      // pixels; measured for horizontal text only
        double height = 0;     // pixels
        double lineWidth = 0;  // what alignment sees: the block's, or its whole line's
    };
    struct Column {
        std::vector<Block> blocks;
        size_t characters = 0;
    };

    // A copy of the prototype layout holding utf8.
    LayoutPtr WithText(const std::string& utf8) const;
    // Characters in one piece of a long line: few enough that its width stays
    // within Pango's 32-bit extents even if every glyph were sixteen ems wide.
    size_t PieceCharacters() const;
    // Horizontal text: utf8's lines in measured blocks; a line longer than
    // PieceCharacters is measured and drawn piece by piece.
    std::vector<Block> MakeBlocks(const std::string& utf8) const;
    // Vertical text: one column per line of utf8, its characters stacked.
    std::vector<Column> MakeColumns(const std::string& utf8) const;
    static RectF Box(const std::vector<Block>& blocks);
    RectF Box(const std::vector<Column>& columns) const;
    RectF MeasureText(const std::string& utf8) const;
    float ColumnHeight(const Column& column) const;
    // What can be drawn in cr (its clip), with the margin by which a block or
    // line may draw beyond its box: glyphs that reach past it, and the pen.
    struct CullBox {
        double left = 0;
        double top = 0;
        double right = 0;
        double bottom = 0;
        double margin = 0;
        bool Misses(double x, double y, double width, double height) const {
            return y + height + margin < top || y - margin > bottom || x + width + margin < left ||
                   x - margin > right;
        }
    };
    CullBox Drawable(cairo_t* cr) const;
    template <typename Paint>
    void ForEachBlock(cairo_t* cr, const RectF& rect, Paint paint) const;

    TextStyle m_style;
    Align m_horizontalAlign = Align::Near;  // the style's codes, read once
    Align m_verticalAlign = Align::Near;
    bool m_vertical = false;
    bool m_empty = true;
    double m_emPixels = 0;
    RectF m_shift;          // the alignment shift Layout applied to the rectangle
    float m_emptyLine = 0;  // what the final empty line adds across lines
    GObjectPtr<PangoContext> m_context;
    LayoutPtr m_layout;             // the prototype every block copies
    std::vector<Block> m_blocks;    // horizontal text
    std::vector<Column> m_columns;  // vertical text
    int m_columnWidth = 0;          // Pango units
    int m_lineHeight = 0;           // Pango units, vertical text
    std::string m_utf8;
};

}  // namespace lumets
