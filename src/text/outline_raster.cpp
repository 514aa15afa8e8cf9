#include "text/outline_raster.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace lumets {

namespace {

// A glyph's place is kept to 1/16 pixel and its shape to 1/256 pixel: finer
// than anti-aliasing shows, coarse enough that a glyph repeats.
constexpr double kPhaseSteps = 16;
constexpr double kShapeSteps = 256;
// Glyphs larger than this are rasterised each time, only where they meet the
// picture, and not kept.
constexpr int64_t kMaxCachedPixels = 1 << 20;
// All kept coverage together, in the process; beyond it the cache starts again.
constexpr size_t kMaxCacheBytes = 32u << 20;
// FreeType outlines count points in 16 bits, and the stroker makes several
// of each: a glyph with more is left out.
constexpr size_t kMaxGlyphPoints = 4096;
// How far apart (pixels) the two control points a cubic implies for a
// quadratic may be and still make it one.
constexpr double kQuadraticSlack = 1.0 / 256;
// Glyph coordinates relative to their anchor stay well inside 26.6 range.
constexpr double kMaxGlyphExtent = 1 << 20;

struct SpanTarget {
    uint8_t* data;
    int32_t width;
    int32_t height;
};

// Coverage from FreeType's rasteriser into a top-down bitmap, combined with
// what it holds as the larger of the two. Span rows count up from the bottom.
void MaxSpans(int y, int count, const FT_Span* spans, void* user) {
    const SpanTarget& target = *static_cast<const SpanTarget*>(user);
    const int row = target.height - 1 - y;
    if (row < 0 || row >= target.height) {
        return;
    }
    uint8_t* line = target.data + static_cast<size_t>(row) * static_cast<size_t>(target.width);
    for (int i = 0; i < count; ++i) {
        const int from = std::max(0, static_cast<int>(spans[i].x));
        const int to = std::min(target.width, spans[i].x + static_cast<int>(spans[i].len));
        for (int x = from; x < to; ++x) {
            line[x] = std::max<uint8_t>(line[x], spans[i].coverage);
        }
    }
}

// Fills with the non-zero winding rule, as fonts mean their outlines: a
// counter turns against the contour around it, and contours that overlap
// (strokes of a variable or emboldened face, the pen's two borders) turn
// alike and fill as one.
void Render(FT_Library library, FT_Outline* outline, std::vector<uint8_t>* bitmap, int32_t width,
            int32_t height) {
    bitmap->assign(static_cast<size_t>(width) * static_cast<size_t>(height), 0);
    SpanTarget target{bitmap->data(), width, height};
    outline->flags = FT_OUTLINE_NONE;
    FT_Raster_Params params{};
    params.source = outline;
    params.flags = FT_RASTER_FLAG_AA | FT_RASTER_FLAG_DIRECT | FT_RASTER_FLAG_CLIP;
    params.gray_spans = MaxSpans;
    params.user = &target;
    params.clip_box = FT_BBox{0, 0, width, height};
    FT_Outline_Render(library, outline, &params);
}

FT_Pos Fixed(double pixels) {
    return static_cast<FT_Pos>(std::lround(pixels * 64));
}

}  // namespace

COutlineRaster::COutlineRaster(int32_t width, int32_t height, double pen)
    : m_width(width), m_height(height), m_pen(std::isfinite(pen) && pen > 0 ? pen : 0) {
    FT_Library library = nullptr;
    if (FT_Init_FreeType(&library) != 0) {
        return;
    }
    m_library.reset(library);
    FT_Stroker stroker = nullptr;
    if (FT_Stroker_New(library, &stroker) != 0) {
        return;
    }
    m_stroker.reset(stroker);
    FT_Stroker_Set(stroker, std::max<FT_Fixed>(1, Fixed(m_pen / 2)), FT_STROKER_LINECAP_BUTT,
                   FT_STROKER_LINEJOIN_ROUND, 0);
    m_fill.reset(cairo_image_surface_create(CAIRO_FORMAT_A8, width, height));
    m_stroke.reset(
        cairo_image_surface_create(CAIRO_FORMAT_A8, m_pen > 0 ? width : 0, m_pen > 0 ? height : 0));
}

bool COutlineRaster::Ready() const {
    return m_stroker != nullptr && m_fill != nullptr &&
           cairo_surface_status(m_fill.get()) == CAIRO_STATUS_SUCCESS && m_stroke != nullptr &&
           cairo_surface_status(m_stroke.get()) == CAIRO_STATUS_SUCCESS;
}

void COutlineRaster::AddGlyphAndClear(cairo_t* cr) {
    CairoPathPtr path(cairo_copy_path(cr));
    cairo_new_path(cr);
    if (!Ready() || path == nullptr || path->status != CAIRO_STATUS_SUCCESS) {
        return;
    }
    m_xy.clear();
    m_tags.clear();
    std::vector<Contour>& contours = m_contours;
    contours.clear();
    const double reach = m_pen / 2 + 1;
    bool open = false;
    auto finish = [&] {
        if (!open) {
            return;
        }
        open = false;
        const Contour& c = contours.back();
        const size_t points = m_tags.size() - c.first;
        // FreeType closes contours itself: a repeated start point goes.
        if (points > 1 && m_tags.back() == FT_CURVE_TAG_ON &&
            m_xy[2 * c.first] == m_xy[m_xy.size() - 2] && m_xy[2 * c.first + 1] == m_xy.back()) {
            m_xy.resize(m_xy.size() - 2);
            m_tags.pop_back();
        }
        const bool visible = c.box.right + reach >= 0 && c.box.left - reach <= m_width &&
                             c.box.bottom + reach >= 0 && c.box.top - reach <= m_height;
        if (m_tags.size() - c.first < 2 || !visible) {  // not finite is not visible
            m_xy.resize(2 * c.first);
            m_tags.resize(c.first);
            contours.pop_back();
        }
    };
    auto add = [&](const cairo_path_data_t& point, char tag) {
        Contour& c = contours.back();
        const double x = point.point.x;
        const double y = point.point.y;
        c.box.Add(x, y);
        m_xy.push_back(x);
        m_xy.push_back(y);
        m_tags.push_back(tag);
    };
    const cairo_path_data_t* end = path->data + path->num_data;
    for (const cairo_path_data_t* p = path->data; p < end; p += p->header.length) {
        switch (p->header.type) {
            case CAIRO_PATH_MOVE_TO:
                finish();
                contours.push_back(Contour{m_tags.size(), Box{}});
                open = true;
                add(p[1], FT_CURVE_TAG_ON);
                break;
            case CAIRO_PATH_LINE_TO:
                if (open) {
                    add(p[1], FT_CURVE_TAG_ON);
                }
                break;
            case CAIRO_PATH_CURVE_TO:
                if (open) {
                    // Glyph outlines are mostly quadratic curves that Cairo
                    // raised to cubics; as quadratics again they stroke at a
                    // fraction of the cost.
                    const double startX = m_xy[m_xy.size() - 2];
                    const double startY = m_xy.back();
                    const double qx1 = (3 * p[1].point.x - startX) / 2;
                    const double qy1 = (3 * p[1].point.y - startY) / 2;
                    const double qx2 = (3 * p[2].point.x - p[3].point.x) / 2;
                    const double qy2 = (3 * p[2].point.y - p[3].point.y) / 2;
                    if (std::fabs(qx1 - qx2) < kQuadraticSlack &&
                        std::fabs(qy1 - qy2) < kQuadraticSlack) {
                        cairo_path_data_t control{};
                        control.point.x = (qx1 + qx2) / 2;
                        control.point.y = (qy1 + qy2) / 2;
                        add(control, FT_CURVE_TAG_CONIC);
                    } else {
                        add(p[1], FT_CURVE_TAG_CUBIC);
                        add(p[2], FT_CURVE_TAG_CUBIC);
                    }
                    add(p[3], FT_CURVE_TAG_ON);
                }
                break;
            case CAIRO_PATH_CLOSE_PATH:
                finish();
                break;
        }
    }
    finish();

    if (!contours.empty()) {
        AddGlyph();
    }
    cairo_surface_mark_dirty(m_fill.get());
    cairo_surface_mark_dirty(m_stroke.get());
}

void COutlineRaster::AddGlyph() {
    const std::vector<Contour>& contours = m_contours;
    const size_t last = m_tags.size();
    Box box;
    for (const Contour& contour : contours) {
        box.Add(contour.box);
    }
    if (last > kMaxGlyphPoints || !(box.right - box.left < kMaxGlyphExtent) ||
        !(box.bottom - box.top < kMaxGlyphExtent)) {
        return;
    }
    // The key: the start's phase, then the contours' sizes, tags and points
    // relative to the start.
    const double startX = m_xy[0];
    const double startY = m_xy[1];
    const double anchorX = std::floor(startX);
    const double anchorY = std::floor(startY);
    const double phaseX = std::round((startX - anchorX) * kPhaseSteps) / kPhaseSteps;
    const double phaseY = std::round((startY - anchorY) * kPhaseSteps) / kPhaseSteps;
    std::string key;
    key.reserve(16 + last * 9 + contours.size() * 4);
    auto append = [&key](int32_t value) {
        key.append(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    append(static_cast<int32_t>(phaseX * kPhaseSteps));
    append(static_cast<int32_t>(phaseY * kPhaseSteps));
    for (size_t i = 0; i < contours.size(); ++i) {
        append(static_cast<int32_t>((i + 1 < contours.size() ? contours[i + 1].first : last) -
                                    contours[i].first));
    }
    for (size_t i = 0; i < last; ++i) {
        key.push_back(m_tags[i]);
        append(static_cast<int32_t>(std::lround((m_xy[2 * i] - startX) * kShapeSteps)));
        append(static_cast<int32_t>(std::lround((m_xy[2 * i + 1] - startY) * kShapeSteps)));
    }
    const auto anchorXi = static_cast<int64_t>(anchorX);
    const auto anchorYi = static_cast<int64_t>(anchorY);
    // The pen makes the stroke: texts of one pen share their glyphs.
    key.append(reinterpret_cast<const char*>(&m_pen), sizeof(m_pen));
    if (const std::shared_ptr<const Coverage> found = Cached(key)) {
        Stamp(*found, anchorXi, anchorYi);
        return;
    }
    // Drawn from the key's own numbers, so that every hit gets the same.
    const char* cursor = key.data() + 8 + contours.size() * 4;
    for (size_t i = 0; i < last; ++i) {
        int32_t xy[2];
        std::memcpy(xy, cursor + 1, sizeof(xy));
        cursor += 1 + sizeof(xy);
        m_xy[2 * i] = phaseX + xy[0] / kShapeSteps;
        m_xy[2 * i + 1] = phaseY + xy[1] / kShapeSteps;
    }
    Coverage coverage;
    bool keep = false;
    if (!Rasterise(anchorXi, anchorYi, &coverage, &keep)) {
        return;
    }
    Stamp(coverage, anchorXi, anchorYi);
    if (!keep) {
        return;
    }
    Keep(std::move(key), std::move(coverage));
}

// One cache for the process: subtitles set up together (a chat wall, a
// ticker board) draw the same glyphs, and each is rasterised once. Its
// coverage is shared, so one dropped from the cache lives on while stamped.
struct COutlineRaster::Cache {
    std::mutex lock;
    std::unordered_map<std::string, std::shared_ptr<const Coverage>> glyphs;
    size_t bytes = 0;
};

COutlineRaster::Cache& COutlineRaster::TheCache() {
    // Never destroyed: a library thread may still draw text at exit.
    static Cache* const cache = new Cache;
    return *cache;
}

std::shared_ptr<const COutlineRaster::Coverage> COutlineRaster::Cached(const std::string& key) {
    Cache& cache = TheCache();
    const std::lock_guard<std::mutex> lock(cache.lock);
    const auto found = cache.glyphs.find(key);
    return found != cache.glyphs.end() ? found->second : nullptr;
}

void COutlineRaster::Keep(std::string key, Coverage coverage) {
    const size_t bytes = coverage.fill.size() + coverage.stroke.size() + key.size();
    auto kept = std::make_shared<const Coverage>(std::move(coverage));
    Cache& cache = TheCache();
    const std::lock_guard<std::mutex> lock(cache.lock);
    if (cache.bytes + bytes > kMaxCacheBytes) {
        cache.glyphs.clear();
        cache.bytes = 0;
    }
    if (cache.glyphs.emplace(std::move(key), std::move(kept)).second) {
        cache.bytes += bytes;
    }
}

bool COutlineRaster::Rasterise(int64_t anchorX, int64_t anchorY, Coverage* coverage, bool* keep) {
    const std::vector<Contour>& contours = m_contours;
    const size_t last = m_tags.size();
    Box box;
    for (size_t i = 0; i < last; ++i) {
        box.Add(m_xy[2 * i], m_xy[2 * i + 1]);
    }
    const double reach = m_pen / 2 + 1;
    auto left = static_cast<int64_t>(std::floor(box.left - reach));
    auto top = static_cast<int64_t>(std::floor(box.top - reach));
    auto right = static_cast<int64_t>(std::ceil(box.right + reach));
    auto bottom = static_cast<int64_t>(std::ceil(box.bottom + reach));
    *keep = (right - left) * (bottom - top) <= kMaxCachedPixels;
    if (!*keep) {
        // A line's underline, or a glyph of a huge em, may reach far beyond
        // the picture: its coverage need not.
        left = std::max(left, -anchorX);
        top = std::max(top, -anchorY);
        right = std::min(right, m_width - anchorX);
        bottom = std::min(bottom, m_height - anchorY);
        if (left >= right || top >= bottom) {
            return false;
        }
    }
    coverage->x = static_cast<int32_t>(left);
    coverage->y = static_cast<int32_t>(top);
    coverage->width = static_cast<int32_t>(right - left);
    coverage->height = static_cast<int32_t>(bottom - top);
    // FreeType's y runs up from the bitmap's bottom edge.
    std::vector<FT_Vector> points;
    points.reserve(last);
    for (size_t i = 0; i < last; ++i) {
        points.push_back(FT_Vector{Fixed(m_xy[2 * i] - coverage->x),
                                   Fixed(coverage->y + coverage->height - m_xy[2 * i + 1])});
    }
    std::vector<short> ends;
    ends.reserve(contours.size());
    for (size_t i = 1; i <= contours.size(); ++i) {
        const size_t next = i < contours.size() ? contours[i].first : last;
        ends.push_back(static_cast<short>(next - 1));
    }
    FT_Outline outline{};
    outline.n_contours = static_cast<short>(ends.size());
    outline.n_points = static_cast<short>(points.size());
    outline.points = points.data();
    outline.tags = m_tags.data();
    outline.contours = ends.data();
    Render(m_library.get(), &outline, &coverage->fill, coverage->width, coverage->height);
    if (m_pen <= 0) {
        return true;
    }
    FT_UInt pointCount = 0;
    FT_UInt contourCount = 0;
    if (FT_Stroker_ParseOutline(m_stroker.get(), &outline, 0) != 0 ||
        FT_Stroker_GetCounts(m_stroker.get(), &pointCount, &contourCount) != 0 ||
        pointCount > SHRT_MAX || contourCount > SHRT_MAX) {
        return true;
    }
    std::vector<FT_Vector> strokePoints(pointCount);
    std::vector<char> strokeTags(pointCount);
    std::vector<short> strokeEnds(contourCount);
    FT_Outline stroked{};
    stroked.points = strokePoints.data();
    stroked.tags = strokeTags.data();
    stroked.contours = strokeEnds.data();
    FT_Stroker_Export(m_stroker.get(), &stroked);
    Render(m_library.get(), &stroked, &coverage->stroke, coverage->width, coverage->height);
    return true;
}

void COutlineRaster::Stamp(const Coverage& coverage, int64_t anchorX, int64_t anchorY) {
    const int64_t x0 = anchorX + coverage.x;
    const int64_t y0 = anchorY + coverage.y;
    const int64_t from = std::max<int64_t>(0, -x0);
    const int64_t to = std::min<int64_t>(coverage.width, m_width - x0);
    if (from >= to) {
        return;
    }
    const struct {
        const std::vector<uint8_t>& source;
        cairo_surface_t* mask;
    } layers[] = {{coverage.fill, m_fill.get()}, {coverage.stroke, m_stroke.get()}};
    for (const auto& layer : layers) {
        if (layer.source.empty()) {
            continue;
        }
        cairo_surface_flush(layer.mask);
        uint8_t* data = cairo_image_surface_get_data(layer.mask);
        const int stride = cairo_image_surface_get_stride(layer.mask);
        for (int64_t row = std::max<int64_t>(0, -y0);
             row < std::min<int64_t>(coverage.height, m_height - y0); ++row) {
            const uint8_t* src = layer.source.data() + row * coverage.width;
            uint8_t* dst = data + (y0 + row) * stride;
            for (int64_t x = from; x < to; ++x) {
                dst[x0 + x] = std::max(dst[x0 + x], src[x]);
            }
        }
    }
}

}  // namespace lumets
