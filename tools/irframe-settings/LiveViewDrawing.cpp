#include "LiveViewDrawing.h"

#include <cairo.h>

#include <cmath>
#include <string>

namespace {

void SetColour(cairo_t* cr, const TViewColour& c, double alpha = 1) {
    cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
}

void Text(cairo_t* cr, double x, double y, const std::string& text) {
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

}  // namespace

void DrawLiveView(cairo_t* cr, const CLiveView& view, double width, double height, int64_t micros) {
    cairo_save(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    const TViewFit fit = FitFrame(view.Frame(), width, height - 28, 24);
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

    // Trails fade with their age.
    cairo_set_line_width(cr, 4);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    for (const auto& [id, points] : view.Trails()) {
        const TViewColour colour = view.TrailColours().at(id);
        for (size_t i = 1; i < points.size(); ++i) {
            const double age = double(micros - points[i].micros) / CLiveView::kTrailMicros;
            if (age >= 1) continue;
            const TViewPoint a = fit.Pixel(points[i - 1].at), b = fit.Pixel(points[i].at);
            SetColour(cr, colour, 0.6 * (1 - std::max(0.0, age)));
            cairo_move_to(cr, a.x, a.y);
            cairo_line_to(cr, b.x, b.y);
            cairo_stroke(cr);
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
