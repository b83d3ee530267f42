// irframe-calibrate: calibrates one area of a touch frame on the screen, through the running
// driver's D-Bus interface. docs/calibration-tool.md and irframe-calibrate(1) describe it.
#include <gtkmm.h>
#include <systemd/sd-bus.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include "BackupFile.h"
#include "BusTransport.h"
#include "CalibrateWindow.h"
#include "CalibrationSession.h"
#include "ContactFeed.h"
#include "DevConfigJson.h"
#include "IrframeVersion.h"

namespace {

enum TExit : int { kExitSaved = 0, kExitError = 1, kExitUsage = 2, kExitCancelled = 5 };

struct TOptions {
    int frame = 0;  // 0: the only one
    int area = 1;
    std::string output;
    int points = 5;
    int timeout = 30;
    bool yes = false;
    bool dryRun = false;
};

void Say(const std::string& line) { std::cerr << "irframe-calibrate: " << line << std::endl; }

int64_t NowMicros() { return g_get_monotonic_time(); }

class CCalibrator {
public:
    CCalibrator(const TOptions& options, IFrame& frame, const TFrameEntry& entry,
                std::unique_ptr<_HARDWARE_DEV_CONFIG> config)
        : m_options(options), m_frame(frame), m_entry(entry), m_config(std::move(config)),
          m_feed(frame) {}

    int ExitCode() const { return m_exit; }

    // The contacts flow from now on, before any window, so that no touch is missed; the
    // gestures are held once they do.
    void StartFeed() {
        m_feed.Arrived().connect([this] { OnFrames(); });
        m_feed.Start([this] {
            m_frame.HoldGestures(true);
            m_held = true;
        });
    }

    void Activate(const Glib::RefPtr<Gtk::Application>& app) {
        m_app = app;
        const auto monitors = Gdk::Display::get_default()->get_monitors();
        Glib::RefPtr<Gdk::Monitor> chosen;
        Gdk::Rectangle all;
        std::string names;
        for (guint i = 0; i < monitors->get_n_items(); ++i) {
            auto monitor = std::dynamic_pointer_cast<Gdk::Monitor>(monitors->get_object(i));
            if (!monitor) continue;
            Gdk::Rectangle r;
            monitor->get_geometry(r);
            all = i == 0 ? r : all.join(r);
            const std::string name = monitor->get_connector();
            names += (names.empty() ? "" : ", ") + name;
            if (!chosen && (m_options.output.empty() || name == m_options.output)) chosen = monitor;
        }
        if (!chosen) {
            Say(m_options.output.empty() ? "no monitor found"
                                         : "--output " + m_options.output +
                                               ": no such monitor; there are: " + names);
            return Finish(m_options.output.empty() ? kExitError : kExitUsage);
        }
        Gdk::Rectangle r;
        chosen->get_geometry(r);
        TSessionSetup setup;
        setup.points = m_options.points;
        setup.output = {r.get_x() - all.get_x(), r.get_y() - all.get_y(), r.get_width(),
                        r.get_height()};
        setup.screenWidth = all.get_width();
        setup.screenHeight = all.get_height();
        setup.geometry = {m_entry.logicalWidth, m_entry.logicalHeight, m_entry.rawWidth,
                          m_entry.rawHeight};
        setup.base = *AreaToReplace(*m_config, m_options.area);
        setup.timeoutMicros = int64_t{m_options.timeout} * 1'000'000;
        m_setup = setup;
        m_session = std::make_unique<CCalibrationSession>(setup, NowMicros());
        m_window = std::make_unique<CCalibrateWindow>(*m_session, setup.output,
                                                      [this](auto c) { Choose(c); });
        app->add_window(*m_window);
        // The monitor's size too, for an X server without a window manager to make it full-screen.
        m_window->set_default_size(r.get_width(), r.get_height());
        m_window->fullscreen_on_monitor(chosen);
        m_window->present();
        OnFrames();  // what came while the window was being made
        m_ticks = Glib::signal_timeout().connect(
            [this] {
                m_session->Tick(NowMicros());
                Update();
                return true;
            },
            100);
    }

private:
    void OnFrames() {
        if (m_done || !m_session) return;
        for (const TMonitoredFrame& f : m_feed.Take()) {
            m_session->OnFrame(f, NowMicros());
            if (m_session->Phase() != TSessionPhase::Check) continue;
            std::optional<TPointD> at;
            for (const TMonitoredContact& c : f.contacts) {
                if (c.retired || c.status >= 2) continue;
                at = MapThroughArea(m_session->Fit()->area, m_setup.geometry, m_setup.screenWidth,
                                    m_setup.screenHeight, {double(c.rawX), double(c.rawY)});
                break;
            }
            m_window->ShowTouch(at);
        }
        std::string error;
        if (const auto end = m_feed.Ended(&error)) {
            Say(!error.empty() ? error + ": nothing was changed"
                : *end == TStreamEnd::DriverGone
                    ? "the driver left the bus: nothing was changed; start irframed and run "
                      "irframe-calibrate again"
                    : "frame " + std::to_string(m_entry.number) +
                          " went away: nothing was changed; plug it in and run irframe-calibrate "
                          "again");
            return Finish(kExitError, false);
        }
        Update();
    }

    void Update() {
        if (m_done) return;
        m_window->Changed();
        switch (m_session->Phase()) {
            case TSessionPhase::Taking: return;
            case TSessionPhase::Check:
                if (m_options.yes || m_options.dryRun) Choose(CCalibrateWindow::TChoice::Save);
                return;
            case TSessionPhase::TimedOut:
                Say("no touch within " + std::to_string(m_options.timeout) +
                    " s: cancelled, nothing was changed");
                return Finish(kExitCancelled);
            case TSessionPhase::Cancelled: return Finish(kExitCancelled);
        }
    }

    void Choose(CCalibrateWindow::TChoice choice) {
        if (m_done) return;
        switch (choice) {
            case CCalibrateWindow::TChoice::Redo:
                m_session->Redo(NowMicros());
                return Update();
            case CCalibrateWindow::TChoice::Cancel:
                Say("cancelled: nothing was changed");
                return Finish(kExitCancelled);
            case CCalibrateWindow::TChoice::Save:
                return Save();
        }
    }

    void Save() {
        m_feed.Stop();
        Release();
        const _HARDWARE_DEV_CONFIG updated =
            ConfigWithArea(*m_config, m_options.area, m_session->Fit()->area);
        if (m_options.dryRun) {
            std::cout << DevConfigToJson(updated) << std::flush;
            return Finish(kExitSaved);
        }
        try {
            const std::string backup =
                SaveBackup(BackupDirectory(), m_entry.number, DevConfigToJson(*m_config));
            const auto written = m_frame.WriteConfig(updated);
            if (std::memcmp(&written->areas[m_options.area - 1], &updated.areas[m_options.area - 1],
                            sizeof(_HCRECT_CONFIG_FILE)) != 0) {
                throw CToolError(kCtlFailure, "the frame holds another area than was written; "
                                              "restore the backup: irframectl config restore " +
                                                  backup + " " + std::to_string(m_entry.number));
            }
            std::cout << "frame " << m_entry.number << ", area " << m_options.area
                      << ": calibration saved\nbackup: " << backup
                      << "\nundo: irframectl config restore " << backup << " "
                      << m_entry.number << "\n"
                      << std::flush;
            const std::vector<int> back = AreasBackInUse(*m_config, m_options.area);
            if (!back.empty()) {
                std::string numbers;
                for (const int n : back) numbers += (numbers.empty() ? "" : ", ") + std::to_string(n);
                const bool several = back.size() > 1;
                Say("the frame's areas were switched off; saving switched them on, so " +
                    std::string(several ? "areas " : "area ") + numbers + ", stored on the frame, " +
                    (several ? "are" : "is") + " in use again: check, or undo as above");
            }
            Finish(kExitSaved);
        } catch (const CToolError& e) {
            Say(e.what());
            Finish(kExitError);
        }
    }

    void Finish(int code, bool release = true) {
        if (m_done) return;
        m_done = true;
        m_exit = code;
        m_ticks.disconnect();
        m_feed.Stop();
        if (release) Release();
        if (m_app) m_app->quit();
    }

    // Before a write, so that the touches after it click again at once.
    void Release() {
        if (!m_held) return;
        m_held = false;
        try {
            m_frame.HoldGestures(false);
        } catch (const CToolError&) {
            // The hold ends anyway when this process leaves the bus.
        }
    }

    const TOptions m_options;
    IFrame& m_frame;
    const TFrameEntry m_entry;
    std::unique_ptr<_HARDWARE_DEV_CONFIG> m_config;
    CContactFeed m_feed;
    Glib::RefPtr<Gtk::Application> m_app;
    TSessionSetup m_setup;
    std::unique_ptr<CCalibrationSession> m_session;
    std::unique_ptr<CCalibrateWindow> m_window;
    sigc::connection m_ticks;
    bool m_done = false;
    std::atomic<bool> m_held{false};  // set on the feed's thread
    int m_exit = kExitError;
};

// The frame to calibrate: --frame N, or the only one.
TFrameEntry ChooseFrame(ITransport& transport, int number) {
    const std::vector<TFrameEntry> frames = transport.List();
    if (frames.empty()) {
        throw CToolError(kCtlFailure, "the driver serves no frame: plug one in");
    }
    std::string all;
    for (const TFrameEntry& f : frames) {
        if (f.number == number || (number == 0 && frames.size() == 1)) return f;
        all += "\n  " + std::to_string(f.number) + "  " + f.node + "  " + f.product;
    }
    throw CToolError(kCtlUsage, (number == 0 ? std::string("several frames: choose one with --frame N")
                                             : "--frame " + std::to_string(number) + ": no such frame") +
                                    "; the frames are:" + all);
}

}  // namespace

int main(int argc, char** argv) {
    TOptions opt;
    CLI::App cli("Calibrates a touch frame on the screen: touch the targets, check, save.",
                 "irframe-calibrate");
    cli.add_option("--frame", opt.frame, "The frame's number (irframectl list); default: the only one")
        ->check(CLI::Range(1, 1000));
    cli.add_option("--area", opt.area, "The calibration area to replace (default 1)")
        ->check(CLI::Range(1, DEV_CONFIG_MAX_AREAS));
    cli.add_option("--output", opt.output, "The monitor by connector name, e.g. HDMI-1 (default: the first)");
    cli.add_option("--points", opt.points, "5 or 9 targets (default 5)")->check(CLI::IsMember({5, 9}));
    cli.add_option("--timeout", opt.timeout, "Cancel after S seconds without a touch (default 30)")
        ->check(CLI::Range(1, 3600))
        ->type_name("S");
    cli.add_flag("--yes", opt.yes, "Save without the check screen");
    cli.add_flag("--dry-run", opt.dryRun, "Fit and print the configuration as JSON; write nothing");
    cli.set_version_flag("--version", "irframe-calibrate " IRFRAME_VERSION);
    try {
        cli.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = cli.exit(e);
        return code == 0 ? kExitSaved : kExitUsage;
    }

    std::string error;
    sd_bus* bus = OpenSessionBus(&error);
    if (bus == nullptr) {
        Say(error + "; run this in your desktop session");
        return kExitError;
    }
    if (!DriverOnBus(bus)) {
        sd_bus_flush_close_unref(bus);
        Say("the driver is not running: start it with 'systemctl --user start irframed'");
        return kExitError;
    }
    std::unique_ptr<ITransport> transport = MakeBusTransport(bus);
    std::unique_ptr<IFrame> frame;
    std::optional<CCalibrator> calibrator;
    try {
        const TFrameEntry entry = ChooseFrame(*transport, opt.frame);
        frame = transport->Open(entry);
        const TFrameEntry now = frame->Describe();
        if (now.state != "running" || now.rawWidth < 2 || now.rawHeight < 2) {
            throw CToolError(kCtlFailure, "frame " + std::to_string(now.number) + " is " +
                                              now.state + ": wait until it runs, then try again");
        }
        auto config = frame->ReadConfig();
        if (!AreaToReplace(*config, opt.area)) {
            throw CToolError(kCtlUsage, "--area " + std::to_string(opt.area) + ": frame " +
                                            std::to_string(now.number) + " has " +
                                            std::to_string(config->areaCount) +
                                            " area(s); choose 1.." +
                                            std::to_string(config->areaCount + 1));
        }
        calibrator.emplace(opt, *frame, now, std::move(config));
        calibrator->StartFeed();
    } catch (const CToolError& e) {
        Say(e.what());
        return e.ExitCode() == kCtlUsage ? kExitUsage : kExitError;
    }

    auto app = Gtk::Application::create("org.irframe.Calibrate",
                                        Gio::Application::Flags::NON_UNIQUE);
    app->signal_activate().connect([&] { calibrator->Activate(app); });
    char* programOnly[] = {argv[0], nullptr};
    app->run(1, programOnly);
    return calibrator->ExitCode();
}
