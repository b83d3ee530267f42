#include "CalibrateWindow.h"

#include <cmath>

#include "ScreenText.h"

namespace {

void Cross(const Cairo::RefPtr<Cairo::Context>& cr, double x, double y, double size) {
    cr->move_to(x - size, y);
    cr->line_to(x + size, y);
    cr->move_to(x, y - size);
    cr->line_to(x, y + size);
    cr->stroke();
}

}  // namespace

CCalibrateWindow::CCalibrateWindow(const CCalibrationSession& session, const TScreenRect& output,
                                   std::function<void(TChoice)> chosen)
    : m_session(session), m_output(output), m_chosen(std::move(chosen)) {
    set_title("irframe-calibrate");
    m_canvas.set_draw_func(sigc::mem_fun(*this, &CCalibrateWindow::Draw));
    m_canvas.set_expand(true);
    m_overlay.set_child(m_canvas);
    for (Gtk::Button* b : {&m_save, &m_redo, &m_cancel}) m_buttons.append(*b);
    m_buttons.set_halign(Gtk::Align::CENTER);
    m_buttons.set_valign(Gtk::Align::END);
    m_buttons.set_margin_bottom(output.height / 4);
    m_buttons.set_visible(false);
    m_overlay.add_overlay(m_buttons);
    set_child(m_overlay);
    m_save.signal_clicked().connect([this] { m_chosen(TChoice::Save); });
    m_redo.signal_clicked().connect([this] { m_chosen(TChoice::Redo); });
    m_cancel.signal_clicked().connect([this] { m_chosen(TChoice::Cancel); });
    auto keys = Gtk::EventControllerKey::create();
    keys->signal_key_pressed().connect(
        [this](guint key, guint, Gdk::ModifierType) {
            if (key != GDK_KEY_Escape) return false;
            m_chosen(TChoice::Cancel);
            return true;
        },
        false);
    add_controller(keys);
}

void CCalibrateWindow::Changed() {
    m_buttons.set_visible(m_session.Phase() == TSessionPhase::Check);
    if (m_session.Phase() != TSessionPhase::Check) m_touch.reset();
    m_canvas.queue_draw();
}

void CCalibrateWindow::ShowTouch(std::optional<TPointD> at) {
    m_touch = at;
    m_canvas.queue_draw();
}

void CCalibrateWindow::Draw(const Cairo::RefPtr<Cairo::Context>& cr, int width, int height) {
    cr->set_source_rgb(1, 1, 1);
    cr->paint();
    const double size = std::max(12.0, height / 30.0);
    const auto local = [&](TPointD p) { return TPointD{p.x - m_output.x, p.y - m_output.y}; };
    std::string title;
    if (m_session.Phase() == TSessionPhase::Check) {
        title = "Check";
        cr->set_line_width(2);
        for (int i = 0; i < m_session.TargetCount(); ++i) {
            const TPointD t = local(m_session.Target(i));
            cr->set_source_rgb(0.6, 0.6, 0.6);
            Cross(cr, t.x, t.y, size);
            cr->arc(t.x, t.y, size / 2, 0, 2 * M_PI);
            cr->stroke();
            const TPointD m = local(m_session.Fit()->mapped[i]);
            cr->set_source_rgb(0.0, 0.55, 0.0);
            Cross(cr, m.x, m.y, size / 2);
        }
        if (m_touch) {
            const TPointD m = local(*m_touch);
            cr->set_source_rgb(0.8, 0.0, 0.0);
            cr->set_line_width(3);
            Cross(cr, m.x, m.y, size);
        }
    } else if (m_session.Current() >= 0) {
        const TPointD t = local(m_session.Target(m_session.Current()));
        cr->set_source_rgb(0.8, 0.0, 0.0);
        cr->set_line_width(3);
        Cross(cr, t.x, t.y, size);
        cr->arc(t.x, t.y, size / 2, 0, 2 * M_PI);
        cr->stroke();
        title = "Target " + std::to_string(m_session.TakenCount() + 1) + " of " +
                std::to_string(m_session.TargetCount());
    }
    ShowScreenText(m_canvas, cr, title + "\n" + m_session.Message() + "\nEsc cancels.",
                   std::max(10.0, height / 45.0), width / 2.0, height * 0.3);
}
