// Text on a full-screen canvas: lines centred on one another, dark grey, `pixels` high, with
// its centre at (x, y). Shared by the calibrator and the settings window's "touch here".
#pragma once

#include <gtkmm.h>

#include <string>

inline void ShowScreenText(Gtk::Widget& canvas, const Cairo::RefPtr<Cairo::Context>& cr,
                           const std::string& text, double pixels, double x, double y) {
    auto layout = canvas.create_pango_layout(text);
    Pango::FontDescription font("Sans");
    font.set_absolute_size(pixels * PANGO_SCALE);
    layout->set_font_description(font);
    layout->set_alignment(Pango::Alignment::CENTER);
    int width = 0, height = 0;
    layout->get_pixel_size(width, height);
    cr->set_source_rgb(0.1, 0.1, 0.1);
    cr->move_to(x - width / 2.0, y - height / 2.0);
    layout->show_in_cairo_context(cr);
}
