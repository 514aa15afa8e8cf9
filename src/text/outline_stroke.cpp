#include "text/outline_stroke.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace lumets {

namespace {

// Contours whose mask would be larger than this on a side are stroked
// directly: they are few, since few of them fit in a picture.
constexpr double kMaxMaskSide = 1024;
// The masks of one text together; beyond it the cache starts again.
constexpr size_t kMaxCacheBytes = 32u << 20;
// A contour's place is kept to 1/16 pixel and its shape to 1/256 pixel:
// finer than anti-aliasing shows, coarse enough that a glyph repeats.
constexpr double kPhaseSteps = 16;
constexpr double kShapeSteps = 256;

int PointCount(cairo_path_data_type_t type) {
    switch (type) {
        case CAIRO_PATH_MOVE_TO:
        case CAIRO_PATH_LINE_TO:
            return 1;
        case CAIRO_PATH_CURVE_TO:
            return 3;
        case CAIRO_PATH_CLOSE_PATH:
            return 0;
    }
    return 0;
}

void AppendElement(cairo_t* cr, cairo_path_data_type_t type, const double* xy) {
    switch (type) {
        case CAIRO_PATH_MOVE_TO:
            cairo_move_to(cr, xy[0], xy[1]);
            break;
        case CAIRO_PATH_LINE_TO:
            cairo_line_to(cr, xy[0], xy[1]);
            break;
        case CAIRO_PATH_CURVE_TO:
            cairo_curve_to(cr, xy[0], xy[1], xy[2], xy[3], xy[4], xy[5]);
            break;
        case CAIRO_PATH_CLOSE_PATH:
            cairo_close_path(cr);
            break;
    }
}

void SetPen(cairo_t* cr, double pen) {
    cairo_set_line_width(cr, pen);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
}

}  // namespace

COutlineStroker::COutlineStroker(double pen) : m_pen(pen) {}

void COutlineStroker::StrokeAndClear(cairo_t* cr) {
    CairoPathPtr path(cairo_copy_path(cr));
    cairo_new_path(cr);
    if (path == nullptr || path->status != CAIRO_STATUS_SUCCESS) {
        return;
    }
    cairo_clip_extents(cr, &m_clip[0], &m_clip[1], &m_clip[2], &m_clip[3]);
    const cairo_path_data_t* data = path->data;
    const cairo_path_data_t* end = data + path->num_data;
    const cairo_path_data_t* contour = nullptr;
    for (const cairo_path_data_t* p = data; p < end; p += p->header.length) {
        if (p->header.type == CAIRO_PATH_MOVE_TO) {
            if (contour != nullptr) {
                StrokeContour(cr, contour, p);
            }
            contour = p;
        }
    }
    if (contour != nullptr) {
        StrokeContour(cr, contour, end);
    }
}

void COutlineStroker::StrokeContour(cairo_t* cr, const cairo_path_data_t* begin,
                                    const cairo_path_data_t* end) {
    if (begin + begin->header.length >= end) {
        return;  // a lone move draws nothing
    }
    double left = INFINITY;
    double top = INFINITY;
    double right = -INFINITY;
    double bottom = -INFINITY;
    for (const cairo_path_data_t* p = begin; p < end; p += p->header.length) {
        for (int i = 1; i <= PointCount(p->header.type); ++i) {
            left = std::min(left, p[i].point.x);
            right = std::max(right, p[i].point.x);
            top = std::min(top, p[i].point.y);
            bottom = std::max(bottom, p[i].point.y);
        }
    }
    // Curves stay inside their control points, so the box holds the contour.
    const double reach = m_pen / 2 + 1;
    if (!(right + reach >= m_clip[0] && left - reach <= m_clip[2] && bottom + reach >= m_clip[1] &&
          top - reach <= m_clip[3])) {
        return;  // outside the picture, or not finite
    }
    const double anchorX = std::floor(begin[1].point.x);
    const double anchorY = std::floor(begin[1].point.y);
    const Mask* mask = nullptr;
    if (right - left + 2 * reach <= kMaxMaskSide && bottom - top + 2 * reach <= kMaxMaskSide) {
        mask = CachedMask(begin, end, anchorX, anchorY);
    }
    if (mask == nullptr) {
        cairo_save(cr);
        cairo_new_path(cr);
        for (const cairo_path_data_t* p = begin; p < end; p += p->header.length) {
            double xy[6] = {};
            for (int i = 0; i < PointCount(p->header.type); ++i) {
                xy[2 * i] = p[i + 1].point.x;
                xy[2 * i + 1] = p[i + 1].point.y;
            }
            AppendElement(cr, p->header.type, xy);
        }
        SetPen(cr, m_pen);
        cairo_stroke(cr);
        cairo_restore(cr);
        return;
    }
    cairo_set_source_surface(cr, mask->surface.get(), anchorX + mask->x, anchorY + mask->y);
    cairo_paint(cr);
}

const COutlineStroker::Mask* COutlineStroker::CachedMask(const cairo_path_data_t* begin,
                                                         const cairo_path_data_t* end,
                                                         double anchorX, double anchorY) {
    // The key: the start's sub-pixel phase, then every element's type and
    // its points relative to the start.
    const double startX = begin[1].point.x;
    const double startY = begin[1].point.y;
    std::string key;
    const int8_t phase[2] = {static_cast<int8_t>(std::lround((startX - anchorX) * kPhaseSteps)),
                             static_cast<int8_t>(std::lround((startY - anchorY) * kPhaseSteps))};
    key.append(reinterpret_cast<const char*>(phase), sizeof(phase));
    for (const cairo_path_data_t* p = begin; p < end; p += p->header.length) {
        key.push_back(static_cast<char>(p->header.type));
        for (int i = 1; i <= PointCount(p->header.type); ++i) {
            const int32_t xy[2] = {
                static_cast<int32_t>(std::lround((p[i].point.x - startX) * kShapeSteps)),
                static_cast<int32_t>(std::lround((p[i].point.y - startY) * kShapeSteps))};
            key.append(reinterpret_cast<const char*>(xy), sizeof(xy));
        }
    }
    auto found = m_masks.find(key);
    if (found != m_masks.end()) {
        return &found->second;
    }

    // Draw the contour as the key describes it, so every hit gets the same.
    std::vector<double> points;
    double left = INFINITY;
    double top = INFINITY;
    double right = -INFINITY;
    double bottom = -INFINITY;
    const char* cursor = key.data() + sizeof(phase);
    for (const cairo_path_data_t* p = begin; p < end; p += p->header.length) {
        ++cursor;
        for (int i = 0; i < PointCount(p->header.type); ++i) {
            int32_t xy[2];
            std::memcpy(xy, cursor, sizeof(xy));
            cursor += sizeof(xy);
            const double x = phase[0] / kPhaseSteps + xy[0] / kShapeSteps;
            const double y = phase[1] / kPhaseSteps + xy[1] / kShapeSteps;
            points.push_back(x);
            points.push_back(y);
            left = std::min(left, x);
            right = std::max(right, x);
            top = std::min(top, y);
            bottom = std::max(bottom, y);
        }
    }
    const double reach = m_pen / 2 + 1;
    Mask mask;
    mask.x = static_cast<int>(std::floor(left - reach));
    mask.y = static_cast<int>(std::floor(top - reach));
    const int width = static_cast<int>(std::ceil(right + reach)) - mask.x;
    const int height = static_cast<int>(std::ceil(bottom + reach)) - mask.y;
    mask.surface.reset(cairo_image_surface_create(CAIRO_FORMAT_A8, width, height));
    if (cairo_surface_status(mask.surface.get()) != CAIRO_STATUS_SUCCESS) {
        return nullptr;
    }
    CairoPtr mcr(cairo_create(mask.surface.get()));
    cairo_translate(mcr.get(), -mask.x, -mask.y);
    const double* xy = points.data();
    for (const cairo_path_data_t* p = begin; p < end; p += p->header.length) {
        AppendElement(mcr.get(), p->header.type, xy);
        xy += 2 * PointCount(p->header.type);
    }
    SetPen(mcr.get(), m_pen);
    cairo_stroke(mcr.get());
    mcr.reset();
    cairo_surface_flush(mask.surface.get());

    const size_t bytes = static_cast<size_t>(cairo_image_surface_get_stride(mask.surface.get())) *
                         static_cast<size_t>(height);
    if (m_maskBytes + bytes > kMaxCacheBytes) {
        m_masks.clear();
        m_maskBytes = 0;
    }
    m_maskBytes += bytes;
    return &m_masks.emplace(std::move(key), std::move(mask)).first->second;
}

}  // namespace lumets
