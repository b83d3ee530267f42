#include "LiveViewDrawing.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

void SetColour(cairo_t* cr, const TViewColour& c, double alpha = 1) {
    cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
}

void Text(cairo_t* cr, double x, double y, const std::string& text) {
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

}  // namespace

TViewFit LiveViewFit(const CLiveView& view, double width, double height) {
    return FitFrame(view.Frame(), width, height - 28, 24);
}

CLiveViewPainter::~CLiveViewPainter() {
    if (m_still != nullptr) cairo_surface_destroy(m_still);
}

namespace {

void DrawStill(cairo_t* cr, const CLiveView& view, const TViewFit& fit) {
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    cairo_select_font_face(cr, "Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, 14);

    // The areas and panels, lightly filled, outlined in their colour, labelled at their centre.
    cairo_set_line_width(cr, 2);
    for (const TViewShape& s : view.Shapes()) {
        const TViewPoint first = fit.Pixel(s.corners[0]);
        cairo_move_to(cr, first.x, first.y);
        TViewPoint centre{first.x / 4, first.y / 4};
        for (int i = 1; i < 4; ++i) {
            const TViewPoint p = fit.Pixel(s.corners[i]);
            cairo_line_to(cr, p.x, p.y);
            centre.x += p.x / 4;
            centre.y += p.y / 4;
        }
        cairo_close_path(cr);
        SetColour(cr, s.colour, 0.12);
        cairo_fill_preserve(cr);
        SetColour(cr, s.colour, 0.8);
        cairo_stroke(cr);
        SetColour(cr, s.colour);
        Text(cr, centre.x - 24, centre.y - 24, (s.panel ? "panel " : "area ") + std::to_string(s.id));
    }

    // The frame: one pixel on whole pixels, in its own colour.
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_set_line_width(cr, 1);
    SetColour(cr, kFrameOutlineColour);
    cairo_rectangle(cr, std::floor(fit.left) + 0.5, std::floor(fit.top) + 0.5, std::floor(fit.width),
                    std::floor(fit.height));
    cairo_stroke(cr);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_DEFAULT);
}

}  // namespace

void CLiveViewPainter::Draw(cairo_t* cr, const CLiveView& view, int width, int height,
                            int64_t micros) {
    const TViewFit fit = LiveViewFit(view, width, height);
    if (m_still == nullptr || width != m_width || height != m_height ||
        view.Generation() != m_generation) {
        if (m_still != nullptr) cairo_surface_destroy(m_still);
        m_still = cairo_image_surface_create(CAIRO_FORMAT_RGB24, std::max(width, 1), std::max(height, 1));
        cairo_t* still = cairo_create(m_still);
        DrawStill(still, view, fit);
        cairo_destroy(still);
        m_width = width;
        m_height = height;
        m_generation = view.Generation();
    }
    cairo_save(cr);
    cairo_set_source_surface(cr, m_still, 0, 0);
    cairo_paint(cr);
    cairo_select_font_face(cr, "Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, 14);

    // Trails fade with their age in a few steps. Each point is a small square on whole pixels:
    // squares are filled without a coverage mask, where stroked lines cost by the area they
    // span (a frame with nine trails would take over a millisecond).
    constexpr int kFadeSteps = 4;
    constexpr double kDot = 5;
    for (const auto& [id, points] : view.Trails()) {
        const TViewColour colour = view.TrailColours().at(id);
        for (int step = 0; step < kFadeSteps; ++step) {
            bool any = false;
            for (const TTrailPoint& point : points) {
                const double age = double(micros - point.micros) / CLiveView::kTrailMicros;
                if (std::clamp(static_cast<int>(age * kFadeSteps), 0, kFadeSteps) != step) continue;
                const TViewPoint p = fit.Pixel(point.at);
                cairo_rectangle(cr, std::round(p.x - kDot / 2), std::round(p.y - kDot / 2), kDot, kDot);
                any = true;
            }
            if (!any) continue;
            SetColour(cr, colour, 0.6 * (1 - (step + 0.5) / kFadeSteps));
            cairo_fill(cr);
        }
    }

    // The dots, with the id beside them so that the centre keeps its colour.
    for (const TViewContact& c : view.Contacts()) {
        const TViewPoint p = fit.Pixel(c.at);
        SetColour(cr, c.colour);
        cairo_arc(cr, p.x, p.y, kContactRadius, 0, 2 * M_PI);
        cairo_fill(cr);
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        Text(cr, p.x + kContactRadius + 2, p.y - kContactRadius, std::to_string(c.id));
    }

    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    const size_t n = view.Contacts().size();
    Text(cr, 12, height - 10,
         std::to_string(n) + (n == 1 ? " contact, " : " contacts, ") +
             std::to_string(view.FrameRate()) + " frames/s");
    cairo_restore(cr);
}
