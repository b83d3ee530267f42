// The calibrator's full-screen window: one target at a time with the instruction and the
// progress, then the check screen with a cross where each touch lands now and Save, Redo,
// Cancel. Everything it shows comes from the session; Esc cancels.
#pragma once

#include <gtkmm.h>

#include <functional>
#include <optional>

#include "CalibrationSession.h"

class CCalibrateWindow final : public Gtk::Window {
public:
    enum class TChoice { Save, Redo, Cancel };

    // `output` is where the window is, in the driver's screen.
    CCalibrateWindow(const CCalibrationSession& session, const TScreenRect& output,
                     std::function<void(TChoice)> chosen);

    // The session changed: redraw, and show the buttons on the check screen.
    void Changed();
    // Where a touch lands with the new calibration (check screen); empty: none.
    void ShowTouch(std::optional<TPointD> at);

private:
    void Draw(const Cairo::RefPtr<Cairo::Context>& cr, int width, int height);

    const CCalibrationSession& m_session;
    TScreenRect m_output;
    std::function<void(TChoice)> m_chosen;
    std::optional<TPointD> m_touch;
    Gtk::Overlay m_overlay;
    Gtk::DrawingArea m_canvas;
    Gtk::Box m_buttons{Gtk::Orientation::HORIZONTAL, 24};
    Gtk::Button m_save{"Save"};
    Gtk::Button m_redo{"Redo"};
    Gtk::Button m_cancel{"Cancel"};
};
