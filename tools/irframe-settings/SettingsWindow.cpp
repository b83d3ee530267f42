#include "SettingsWindow.h"

#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <climits>

#include "BackupFile.h"
#include "BusTransport.h"
#include "DevConfigJson.h"
#include "InputFile.h"
#include "IrframeVersion.h"
#include "LinuxConfigChecks.h"
#include "LiveViewDrawing.h"
#include "OutputFile.h"
#include "QuotedText.h"
#include "ScreenText.h"

namespace {

constexpr const char* kNoDriver =
    "The driver is not running: start it with 'systemctl --user start irframed'";

int64_t NowMicros() { return g_get_monotonic_time(); }

// A program of the package beside this one (the build tree, an install), else on the PATH.
std::string SiblingProgram(const std::string& name) {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string path(self, static_cast<size_t>(n));
        path = path.substr(0, path.rfind('/') + 1) + name;
        if (access(path.c_str(), X_OK) == 0) return path;
    }
    return name;
}

int OnDriverSignal(sd_bus_message*, void* userdata, sd_bus_error*) {
    *static_cast<bool*>(userdata) = true;
    return 0;
}

Gtk::Label* LeftLabel(const std::string& text) {
    auto* label = Gtk::make_managed<Gtk::Label>(text);
    label->set_halign(Gtk::Align::START);
    return label;
}

}  // namespace

// "Touch here" full-screen on one monitor, its target where MonitorTarget puts it; Esc cancels.
class CTouchHereWindow final : public Gtk::Window {
public:
    CTouchHereWindow(int index, int count, std::function<void()> cancelled)
        : m_target(MonitorTarget(index, count)) {
        set_title("Touch here");
        m_canvas.set_draw_func([this](const Cairo::RefPtr<Cairo::Context>& cr, int w, int h) {
            cr->set_source_rgb(1, 1, 1);
            cr->paint();
            const double x = m_target.x * w, y = m_target.y * h, r = std::max(24.0, h / 20.0);
            cr->set_source_rgb(0.8, 0.1, 0.1);
            cr->set_line_width(4);
            cr->arc(x, y, r, 0, 2 * M_PI);
            cr->stroke();
            cr->arc(x, y, 6, 0, 2 * M_PI);
            cr->fill();
            const double size = std::max(12.0, h / 40.0);
            ShowScreenText(m_canvas, cr, "Touch here on the screen of the frame\nEsc cancels", size,
                           x, y + 2 * r + size);
        });
        set_child(m_canvas);
        auto keys = Gtk::EventControllerKey::create();
        keys->signal_key_pressed().connect(
            [cancelled](guint key, guint, Gdk::ModifierType) {
                if (key != GDK_KEY_Escape) return false;
                cancelled();
                return true;
            },
            false);
        add_controller(keys);
    }

private:
    TViewPoint m_target;
    Gtk::DrawingArea m_canvas;
};

CSettingsWindow::CSettingsWindow(const TSettingsOptions& options)
    : m_options(options), m_checks(LinuxConfigChecks()) {
    set_title("Touch frame settings");
    set_default_size(1100, 760);
    m_status.set_wrap(true);
    m_status.set_halign(Gtk::Align::START);
    m_status.set_margin(6);
    m_box.append(m_status);
    m_pages.set_expand(true);
    m_box.append(m_pages);
    set_child(m_box);
    BuildFramesPage();
    BuildLivePage();
    BuildTouchPage();
    BuildBackupsPage();
    BuildDiagnosticsPage();
    const char* names[] = {"frames", "live", "touch", "backups", "diagnostics"};
    for (int i = 0; i < 5; ++i) {
        if (m_options.page == names[i]) m_pages.set_current_page(i);
    }
    Connect();
    LoadTouchChoices();
    RefreshBackups();
    if (m_options.whichScreen) Glib::signal_idle().connect_once([this] { PickMonitor(); });
    if (!m_options.restore.empty()) {
        Glib::signal_idle().connect_once([this] { OfferRestore(m_options.restore); });
    }
}

CSettingsWindow::~CSettingsWindow() {
    StopFeed();
    m_watch.disconnect();
    if (m_watchBus != nullptr) sd_bus_flush_close_unref(m_watchBus);
}

void CSettingsWindow::Say(const std::string& line, bool error) {
    m_status.set_text(line);
    if (error) std::fprintf(stderr, "irframe-settings: %s\n", line.c_str());
}

void CSettingsWindow::Connect() {
    std::string why;
    sd_bus* bus = OpenSessionBus(&why);
    if (bus == nullptr) return Say(why + "; run irframe-settings in your desktop session", true);
    m_transport = MakeBusTransport(bus);
    WatchDriver();
    RefreshFrames();
}

// A connection of its own that only listens, in the main loop: the frame list follows the
// driver's signals, and the driver's coming and going.
void CSettingsWindow::WatchDriver() {
    std::string why;
    m_watchBus = OpenSessionBus(&why);
    if (m_watchBus == nullptr) return;
    sd_bus_match_signal(m_watchBus, nullptr, nullptr, kDriverPath, kDriverInterface, "FrameAdded",
                        OnDriverSignal, &m_driverChanged);
    sd_bus_match_signal(m_watchBus, nullptr, nullptr, kDriverPath, kDriverInterface,
                        "FrameRemoved", OnDriverSignal, &m_driverChanged);
    // A frame's State, Geometry and ConfigSummary.
    sd_bus_match_signal(m_watchBus, nullptr, kDriverBusName, nullptr,
                        "org.freedesktop.DBus.Properties", "PropertiesChanged", OnDriverSignal,
                        &m_driverChanged);
    const std::string owner = std::string("type='signal',sender='org.freedesktop.DBus',") +
                              "member='NameOwnerChanged',arg0='" + kDriverBusName + "'";
    sd_bus_add_match(m_watchBus, nullptr, owner.c_str(), OnDriverSignal, &m_driverChanged);
    m_watch = Glib::signal_io().connect(
        [this](Glib::IOCondition) {
            m_driverChanged = false;
            while (sd_bus_process(m_watchBus, nullptr) > 0) {
            }
            if (m_driverChanged) RefreshFrames();
            return true;
        },
        sd_bus_get_fd(m_watchBus), Glib::IOCondition::IO_IN);
    // What arrived while the matches were being set up.
    Glib::signal_idle().connect_once([this] {
        while (sd_bus_process(m_watchBus, nullptr) > 0) {
        }
    });
}

void CSettingsWindow::RefreshFrames() {
    if (!m_transport) return;
    std::vector<TFrameEntry> list;
    try {
        list = m_transport->List();
    } catch (const CToolError&) {
        StopFeed();
        m_frames.Update({});
        m_selected = 0;
        while (auto* row = m_frameList.get_row_at_index(0)) m_frameList.remove(*row);
        return Say(kNoDriver, true);
    }
    const auto change = m_frames.Update(list);
    if (change.Empty() && m_frameList.get_row_at_index(0) != nullptr) return;
    while (auto* row = m_frameList.get_row_at_index(0)) m_frameList.remove(*row);
    for (const TFrameEntry& f : m_frames.Frames()) m_frameList.append(*LeftLabel(FrameRow(f)));
    if (m_frames.Frames().empty()) {
        StopFeed();
        m_selected = 0;
        return Say("The driver runs but serves no frame: plug one in.");
    }
    int wanted = m_frames.Find(m_selected) != nullptr ? m_selected : 0;
    if (wanted == 0) {
        wanted = m_frames.Find(m_options.frame) != nullptr ? m_options.frame
                                                           : m_frames.Frames().front().number;
    }
    const bool selectedChanged =
        std::find(change.changed.begin(), change.changed.end(), wanted) != change.changed.end();
    if (wanted != m_selected || selectedChanged) SelectFrame(wanted);
    for (size_t i = 0; i < m_frames.Frames().size(); ++i) {
        if (m_frames.Frames()[i].number == m_selected) {
            m_frameList.select_row(*m_frameList.get_row_at_index(static_cast<int>(i)));
        }
    }
}

void CSettingsWindow::SelectFrame(int number) {
    const TFrameEntry* entry = m_frames.Find(number);
    if (entry == nullptr || !m_transport) return;
    StopFeed();
    m_selected = number;
    try {
        m_frame = m_transport->Open(*entry);
        if (entry->state == "running") {
            m_config = m_frame->ReadConfig();
        } else {
            m_config = std::make_unique<_HARDWARE_DEV_CONFIG>();
        }
        m_view.SetFrame(*entry, *m_config);
        Say("Frame " + std::to_string(number) + ": " + EscapedText(entry->product, 64) + ", " +
            entry->state + (entry->configSummary.empty() ? "" : ", " + entry->configSummary));
        if (entry->state == "running") StartFeed();
    } catch (const CToolError& e) {
        Say(e.what(), true);
    }
    RefreshDiagnostics();
    m_canvas.queue_draw();
}

void CSettingsWindow::BuildFramesPage() {
    m_frameList.signal_row_selected().connect([this](Gtk::ListBoxRow* row) {
        if (row == nullptr) return;
        const size_t i = static_cast<size_t>(row->get_index());
        if (i < m_frames.Frames().size() && m_frames.Frames()[i].number != m_selected) {
            SelectFrame(m_frames.Frames()[i].number);
        }
    });
    auto* scroll = Gtk::make_managed<Gtk::ScrolledWindow>();
    scroll->set_child(m_frameList);
    scroll->set_expand(true);
    m_framesPage.append(*scroll);
    m_whichScreen.set_halign(Gtk::Align::START);
    m_whichScreen.set_margin(6);
    m_whichScreen.signal_clicked().connect([this] { PickMonitor(); });
    m_framesPage.append(m_whichScreen);
    m_pages.append_page(m_framesPage, "Frames");
}

void CSettingsWindow::PickMonitor() {
    const TFrameEntry* entry = m_frames.Find(m_selected);
    if (entry == nullptr || entry->state != "running" || !m_touchHere.empty()) {
        return Say("Choose a running frame first.");
    }
    const auto monitors = Gdk::Display::get_default()->get_monitors();
    const int count = static_cast<int>(monitors->get_n_items());
    m_pickConnectors.clear();
    for (int i = 0; i < count; ++i) {
        auto monitor = std::dynamic_pointer_cast<Gdk::Monitor>(monitors->get_object(i));
        if (!monitor) continue;
        Gdk::Rectangle r;
        monitor->get_geometry(r);
        auto window = std::make_unique<CTouchHereWindow>(i, count, [this] {
            Glib::signal_idle().connect_once([this] { FinishPick(std::nullopt); });
        });
        window->set_default_size(r.get_width(), r.get_height());
        window->fullscreen_on_monitor(monitor);
        window->present();
        m_touchHere.push_back(std::move(window));
        m_pickConnectors.push_back(monitor->get_connector());
    }
    // Touches click nothing meanwhile.
    StopFeed();
    StartFeed(true);
    Say("Touch the target on the screen the frame is on (Esc cancels).");
}

void CSettingsWindow::FinishPick(std::optional<int> monitor) {
    if (m_touchHere.empty()) return;
    m_touchHere.clear();
    StopFeed();  // lets go of the gestures
    StartFeed();
    if (!monitor || static_cast<size_t>(*monitor) >= m_pickConnectors.size()) {
        return Say("Cancelled: nothing was mapped.");
    }
    const std::string connector = m_pickConnectors[static_cast<size_t>(*monitor)];
    const std::vector<std::string> argv{SiblingProgram("irframectl"), "map", "--frame",
                                        std::to_string(m_selected), connector};
    Glib::Pid pid = 0;
    try {
        Glib::spawn_async("", argv, Glib::SpawnFlags::DO_NOT_REAP_CHILD | Glib::SpawnFlags::SEARCH_PATH,
                          {}, &pid);
    } catch (const Glib::Error& e) {
        return Say("cannot start irframectl: " + std::string(e.what()), true);
    }
    const std::string command = "irframectl map --frame " + std::to_string(m_selected) + " " + connector;
    Glib::signal_child_watch().connect(
        [this, connector, command](Glib::Pid child, int status) {
            Glib::spawn_close_pid(child);
            const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            Say(ok ? "Frame " + std::to_string(m_selected) + " is mapped to " + connector + "."
                   : "Mapping to " + connector + " failed: run '" + command +
                         "' in a terminal to see why.",
                !ok);
            RefreshFrames();
        },
        pid);
}

void CSettingsWindow::BuildLivePage() {
    m_canvas.set_expand(true);
    m_canvas.set_draw_func(sigc::mem_fun(*this, &CSettingsWindow::DrawLive));
    // Redrawn at the display's rate while contacts or trails are there to move or fade.
    m_canvas.add_tick_callback([this](const Glib::RefPtr<Gdk::FrameClock>&) {
        m_view.Expire(NowMicros());
        if (!m_view.Trails().empty() || !m_view.Contacts().empty()) m_canvas.queue_draw();
        return true;
    });
    m_livePage.append(m_canvas);
    m_area.set_range(1, DEV_CONFIG_MAX_AREAS);
    m_area.set_increments(1, 1);
    m_area.set_value(1);
    m_calibrateOutput.set_placeholder_text("monitor (HDMI-1); empty: the first");
    m_liveBar.append(*LeftLabel("Area"));
    m_liveBar.append(m_area);
    m_liveBar.append(m_calibrateOutput);
    m_liveBar.append(m_calibrate);
    m_liveBar.set_margin(6);
    m_calibrate.signal_clicked().connect([this] { Calibrate(); });
    m_livePage.append(m_liveBar);
    m_pages.append_page(m_livePage, "Live view");
}

void CSettingsWindow::DrawLive(const Cairo::RefPtr<Cairo::Context>& cr, int width, int height) {
    m_painter.Draw(cr->cobj(), m_view, width, height, NowMicros());
}

void CSettingsWindow::StartFeed(bool holdGestures) {
    const TFrameEntry* entry = m_frames.Find(m_selected);
    if (entry == nullptr) return;
    std::string why;
    sd_bus* bus = OpenSessionBus(&why);
    if (bus == nullptr) return Say(why, true);
    m_feedTransport = MakeBusTransport(bus);
    try {
        m_feedFrame = m_feedTransport->Open(*entry);
    } catch (const CToolError& e) {
        m_feedTransport.reset();
        return Say(e.what(), true);
    }
    m_feed = std::make_unique<CContactFeed>(*m_feedFrame);
    m_feed->Arrived().connect([this] { OnContacts(); });
    // The hold is asked on the feed's own connection, and ends when the feed closes it.
    m_feed->Start(holdGestures ? std::function<void()>([this] { m_feedFrame->HoldGestures(true); })
                               : std::function<void()>());
}

void CSettingsWindow::StopFeed() {
    m_feed.reset();  // joins its thread
    m_feedFrame.reset();
    m_feedTransport.reset();
}

void CSettingsWindow::OnContacts() {
    if (!m_feed) return;
    for (const TMonitoredFrame& f : m_feed->Take()) {
        m_view.OnFrame(f, NowMicros());
        if (m_touchHere.empty()) continue;
        for (const TMonitoredContact& c : f.contacts) {
            if (c.retired || c.status != 0) continue;
            const auto monitor = TouchedMonitor(RawToView(m_view.Frame(), c.rawX, c.rawY),
                                                static_cast<int>(m_touchHere.size()));
            if (monitor) {
                // Not from inside the feed's own signal: finishing replaces the feed.
                Glib::signal_idle().connect_once([this, monitor] { FinishPick(monitor); });
                return;
            }
        }
    }
    m_canvas.queue_draw();
    std::string error;
    if (const auto end = m_feed->Ended(&error)) {
        Glib::signal_idle().connect_once([this] {
            StopFeed();
            RefreshFrames();
        });
    }
}

void CSettingsWindow::Calibrate() {
    if (m_selected == 0 || m_calibrating) return;
    std::vector<std::string> argv{SiblingProgram("irframe-calibrate"), "--frame", std::to_string(m_selected), "--area",
                                  std::to_string(m_area.get_value_as_int())};
    if (!m_calibrateOutput.get_text().empty()) {
        argv.push_back("--output");
        argv.push_back(m_calibrateOutput.get_text());
    }
    StopFeed();  // the calibrator holds the gestures and takes the contacts meanwhile
    Glib::Pid pid = 0;
    try {
        Glib::spawn_async("", argv, Glib::SpawnFlags::DO_NOT_REAP_CHILD | Glib::SpawnFlags::SEARCH_PATH,
                          {}, &pid);
    } catch (const Glib::Error& e) {
        Say("cannot start irframe-calibrate: " + std::string(e.what()), true);
        return SelectFrame(m_selected);
    }
    m_calibrating = true;
    m_calibrate.set_sensitive(false);
    Say("Calibrating frame " + std::to_string(m_selected) + ": touch the targets on the screen.");
    Glib::signal_child_watch().connect(
        [this](Glib::Pid child, int status) {
            Glib::spawn_close_pid(child);
            m_calibrating = false;
            m_calibrate.set_sensitive(true);
            SelectFrame(m_selected);  // the new areas, and the contacts again
            RefreshBackups();
            const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            Say(code == 0   ? "Calibration saved; the configuration before is in the backups."
                : code == 5 ? "Calibration cancelled: nothing was changed."
                            : "Calibration failed (irframe-calibrate said why on its standard error).",
                code != 0 && code != 5);
        },
        pid);
}

void CSettingsWindow::BuildTouchPage() {
    m_touchGrid.set_row_spacing(6);
    m_touchGrid.set_column_spacing(12);
    m_touchGrid.set_margin(12);
    int row = 0;
    m_touchGrid.attach(*LeftLabel("Gestures (mouse, scroll, shortcuts)"), 0, row);
    m_gestures.set_halign(Gtk::Align::START);
    m_touchGrid.attach(m_gestures, 1, row++);
    std::vector<Glib::ustring> profiles(m_checks.keyProfiles.begin(), m_checks.keyProfiles.end());
    m_profile.set_model(Gtk::StringList::create(profiles));
    m_touchGrid.attach(*LeftLabel("Key profile"), 0, row);
    m_touchGrid.attach(m_profile, 1, row++);
    for (const TGestureShortcutInfo& info : GestureShortcutTable()) {
        m_touchGrid.attach(*LeftLabel(std::string(info.name) + " (" + info.gesture + ")"), 0, row);
        m_touchGrid.attach(m_chords[static_cast<size_t>(info.id)], 1, row++);
    }
    m_touchGrid.attach(*LeftLabel("Touchscreen"), 0, row);
    m_touchscreen.set_halign(Gtk::Align::START);
    m_touchGrid.attach(m_touchscreen, 1, row++);
    m_monitor.set_placeholder_text("the primary monitor");
    m_touchGrid.attach(*LeftLabel("Monitor (gestures' pointer)"), 0, row);
    m_touchGrid.attach(m_monitor, 1, row++);
    m_touchGrid.attach(*LeftLabel("TUIO"), 0, row);
    m_tuio.set_halign(Gtk::Align::START);
    m_touchGrid.attach(m_tuio, 1, row++);
    m_tuioTarget.set_placeholder_text("[HOST:]PORT; empty: each area's own");
    m_touchGrid.attach(*LeftLabel("TUIO target"), 0, row);
    m_touchGrid.attach(m_tuioTarget, 1, row++);
    m_apply.set_halign(Gtk::Align::START);
    m_touchGrid.attach(m_apply, 0, row);
    m_touchResult.set_wrap(true);
    m_touchResult.set_halign(Gtk::Align::START);
    m_touchGrid.attach(m_touchResult, 1, row++);
    m_apply.signal_clicked().connect([this] { ApplyTouchChoices(false); });
    m_touchScroll.set_child(m_touchGrid);
    m_pages.append_page(m_touchScroll, "What touch does");
}

void CSettingsWindow::LoadTouchChoices() {
    const TConfigEnvironment env = ProcessConfigEnvironment("");
    TDriverConfig config = DefaultDriverConfig(m_checks);
    std::string source, error;
    if (LoadDriverConfig(env, m_checks, &config, &source, &error) != TConfigStatus::Ok) {
        m_touchResult.set_text(error);
    }
    m_choices = {};
    const std::string path = SettingsDropInPath(env);
    std::string text, why;
    if (!path.empty() && access(path.c_str(), F_OK) == 0) {
        if (!ReadInputFile(path, kMaxConfigBytes, &text, &why) ||
            !TouchChoicesFromToml(text, path, m_checks, &m_choices, &error)) {
            m_touchResult.set_text(why.empty() ? error : path + ": " + why);
        }
    }
    m_shown = config;
    m_shownProfile = config.keyProfile;
    for (size_t i = 0; i < m_checks.keyProfiles.size(); ++i) {
        if (m_checks.keyProfiles[i] == config.keyProfile) m_profile.set_selected(static_cast<guint>(i));
    }
    m_shownChords = EffectiveShortcuts(config, m_checks);
    for (size_t i = 0; i < kGestureShortcutCount; ++i) m_chords[i].set_text(m_shownChords[i]);
    m_gestures.set_active(config.gestures);
    m_touchscreen.set_active(config.touchscreen);
    m_monitor.set_text(config.screenOutput);
    m_tuio.set_active(config.tuio);
    m_tuioTarget.set_text(config.tuioTarget);
}

void CSettingsWindow::ApplyTouchChoices(bool confirmed) {
    TTouchChoices choices = m_choices;
    const guint profile = m_profile.get_selected();
    if (profile < m_checks.keyProfiles.size() && m_checks.keyProfiles[profile] != m_shownProfile) {
        choices.keyProfile = m_checks.keyProfiles[profile];
    }
    std::string dangerous;
    for (const TGestureShortcutInfo& info : GestureShortcutTable()) {
        const size_t i = static_cast<size_t>(info.id);
        const std::string text = m_chords[i].get_text();
        if (text == m_shownChords[i]) continue;
        const TChordVerdict verdict = CheckShortcutChord(text);
        if (!verdict.valid) {
            m_touchResult.set_text(std::string(info.name) + ": " + verdict.message);
            return;
        }
        if (!verdict.dangerous.empty()) dangerous += std::string(info.name) + ": " + verdict.message + "\n";
        choices.shortcuts[i] = verdict.canonical;
    }
    if (!dangerous.empty() && !confirmed) {
        auto* dialog = new Gtk::MessageDialog(*this, "Use these dangerous chords?", false,
                                              Gtk::MessageType::WARNING, Gtk::ButtonsType::NONE, true);
        dialog->set_secondary_text(dangerous);
        dialog->add_button("Cancel", Gtk::ResponseType::CANCEL);
        dialog->add_button("Use them", Gtk::ResponseType::ACCEPT);
        dialog->signal_response().connect([this, dialog](int response) {
            dialog->hide();
            if (response == Gtk::ResponseType::ACCEPT) ApplyTouchChoices(true);
            Glib::signal_idle().connect_once([this] { m_dialog.reset(); });
        });
        m_dialog.reset(dialog);
        dialog->show();
        return;
    }
    // Only what was changed here, or chosen here before: the files before the drop-in hold
    // the rest.
    if (m_gestures.get_active() != m_shown.gestures || choices.gestures) {
        choices.gestures = m_gestures.get_active();
    }
    if (m_touchscreen.get_active() != m_shown.touchscreen || choices.touchscreen) {
        choices.touchscreen = m_touchscreen.get_active();
    }
    if (std::string(m_monitor.get_text()) != m_shown.screenOutput || choices.screenOutput) {
        choices.screenOutput = m_monitor.get_text();
    }
    if (m_tuio.get_active() != m_shown.tuio || choices.tuio) choices.tuio = m_tuio.get_active();
    if (std::string(m_tuioTarget.get_text()) != m_shown.tuioTarget || choices.tuioTarget) {
        choices.tuioTarget = m_tuioTarget.get_text();
    }
    const std::string path = SettingsDropInPath(ProcessConfigEnvironment(""));
    std::string error;
    if (path.empty() || !WriteTouchChoices(path, choices, m_checks, &error)) {
        m_touchResult.set_text(path.empty() ? "set HOME: there is no configuration directory" : error);
        return;
    }
    const std::string reloaded = ReloadDriver();
    LoadTouchChoices();
    m_touchResult.set_text("Saved in " + path + ". " + reloaded);
}

void CSettingsWindow::BuildBackupsPage() {
    for (Gtk::Button* b : {&m_saveFile, &m_restoreFile, &m_restoreBackup}) m_backupBar.append(*b);
    m_backupBar.set_margin(6);
    m_backupPage.append(m_backupBar);
    m_backupPage.append(*LeftLabel("  Backups kept by the calibrator and this window (" +
                                   BackupDirectory() + "):"));
    m_backupScroll.set_child(m_backupList);
    m_backupScroll.set_expand(true);
    m_backupPage.append(m_backupScroll);
    m_saveFile.signal_clicked().connect([this] { SaveToFile(); });
    m_restoreFile.signal_clicked().connect([this] { ChooseRestoreFile(); });
    m_restoreBackup.signal_clicked().connect([this] {
        const Gtk::ListBoxRow* row = m_backupList.get_selected_row();
        if (row != nullptr && static_cast<size_t>(row->get_index()) < m_backups.size()) {
            OfferRestore(m_backups[static_cast<size_t>(row->get_index())].path);
        }
    });
    m_pages.append_page(m_backupPage, "Backup and restore");
}

void CSettingsWindow::RefreshBackups() {
    while (auto* row = m_backupList.get_row_at_index(0)) m_backupList.remove(*row);
    m_backups = ListBackups(BackupDirectory());
    for (const TBackupEntry& b : m_backups) {
        char when[32];
        std::tm local{};
        localtime_r(&b.modified, &local);
        std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
        m_backupList.append(*LeftLabel(std::string(when) + "   frame " + std::to_string(b.frame) +
                                       "   " + EscapedText(b.name, 120)));
    }
    if (m_backups.empty()) m_backupList.append(*LeftLabel("(none yet)"));
}

void CSettingsWindow::SaveToFile() {
    if (!m_config || m_selected == 0) return Say("No frame to save the configuration of.");
    m_chooser = std::make_unique<Gtk::FileChooserDialog>(*this, "Save the configuration",
                                                         Gtk::FileChooser::Action::SAVE);
    m_chooser->add_button("Cancel", Gtk::ResponseType::CANCEL);
    m_chooser->add_button("Save", Gtk::ResponseType::ACCEPT);
    m_chooser->set_current_name("frame" + std::to_string(m_selected) + ".json");
    m_chooser->signal_response().connect([this](int response) {
        m_chooser->hide();
        if (response == Gtk::ResponseType::ACCEPT && m_chooser->get_file()) {
            const std::string path = m_chooser->get_file()->get_path();
            COutputFile out;
            std::string error;
            if (out.Open(path, COutputFile::TExisting::Replace, &error) &&
                out.Write(DevConfigToJson(*m_config)) && out.Commit(&error)) {
                Say("Saved in " + path);
            } else {
                Say(error, true);
            }
        }
    });
    m_chooser->show();
}

void CSettingsWindow::ChooseRestoreFile() {
    m_chooser = std::make_unique<Gtk::FileChooserDialog>(*this, "Restore a configuration",
                                                         Gtk::FileChooser::Action::OPEN);
    m_chooser->add_button("Cancel", Gtk::ResponseType::CANCEL);
    m_chooser->add_button("Open", Gtk::ResponseType::ACCEPT);
    m_chooser->signal_response().connect([this](int response) {
        m_chooser->hide();
        if (response == Gtk::ResponseType::ACCEPT && m_chooser->get_file()) {
            const std::string path = m_chooser->get_file()->get_path();
            Glib::signal_idle().connect_once([this, path] { OfferRestore(path); });
        }
    });
    m_chooser->show();
}

// The differences first, then Write or Cancel.
void CSettingsWindow::OfferRestore(const std::string& path) {
    if (!m_config || !m_frame) return Say("No frame to restore to.", true);
    std::string error;
    std::shared_ptr<_HARDWARE_DEV_CONFIG> wanted = ReadSavedConfig(path, &error);
    if (!wanted) return Say(error, true);
    const std::vector<std::string> changes = DevConfigDifferences(*m_config, *wanted);
    auto* dialog = new Gtk::Dialog("Restore a configuration", *this, true);
    dialog->set_default_size(720, 420);
    auto* box = dialog->get_content_area();
    box->set_margin(12);
    box->set_spacing(6);
    box->append(*LeftLabel("Frame " + std::to_string(m_selected) + ": " + EscapedText(path, 200)));
    auto* text = Gtk::make_managed<Gtk::TextView>();
    text->set_editable(false);
    text->set_monospace(true);
    std::string shown;
    for (const std::string& line : changes) shown += line + "\n";
    text->get_buffer()->set_text(changes.empty() ? "The frame already holds this configuration."
                                                 : std::to_string(changes.size()) +
                                                       " differences:\n" + shown);
    auto* scroll = Gtk::make_managed<Gtk::ScrolledWindow>();
    scroll->set_child(*text);
    scroll->set_expand(true);
    box->append(*scroll);
    box->append(*LeftLabel("The frame's configuration now is saved as a backup first."));
    dialog->add_button("Cancel", Gtk::ResponseType::CANCEL);
    if (!changes.empty()) dialog->add_button("Write to the frame", Gtk::ResponseType::ACCEPT);
    dialog->signal_response().connect([this, dialog, wanted](int response) {
        dialog->hide();
        if (response == Gtk::ResponseType::ACCEPT) Restore(*wanted);
        Glib::signal_idle().connect_once([this] { m_dialog.reset(); });
    });
    m_dialog.reset(dialog);
    dialog->show();
}

void CSettingsWindow::Restore(const _HARDWARE_DEV_CONFIG& wanted) {
    try {
        const std::string backup = SaveBackup(BackupDirectory(), m_selected, DevConfigToJson(*m_config));
        StopFeed();
        const auto readBack = m_frame->WriteConfig(wanted);
        const bool same = DevConfigDifferences(wanted, *readBack).empty();
        SelectFrame(m_selected);
        RefreshBackups();
        Say(same ? "Restored; the configuration before is in " + backup
                 : "The frame holds something else than was written; the one before is in " + backup,
            !same);
    } catch (const CToolError& e) {
        Say(e.what(), true);
        SelectFrame(m_selected);
    }
}

void CSettingsWindow::BuildDiagnosticsPage() {
    m_diagText.set_editable(false);
    m_diagText.set_monospace(true);
    m_diagScroll.set_child(m_diagText);
    m_diagScroll.set_expand(true);
    m_diagPage.append(m_diagScroll);
    m_copy.set_halign(Gtk::Align::START);
    m_copy.set_margin(6);
    m_copy.signal_clicked().connect([this] {
        get_clipboard()->set_text(m_diagText.get_buffer()->get_text());
        Say("The report is on the clipboard.");
    });
    m_diagPage.append(m_copy);
    m_pages.append_page(m_diagPage, "Diagnostics");
}

void CSettingsWindow::RefreshDiagnostics() {
    const TFrameEntry* entry = m_frames.Find(m_selected);
    if (entry == nullptr || !m_frame || !m_config) return;
    std::vector<uint8_t> info, status;
    std::string note;
    try {
        info = m_frame->ReadInfo();
        status = m_frame->ReadStatus();
    } catch (const CToolError& e) {
        note = std::string("\n(") + e.what() + ")\n";
    }
    m_diagText.get_buffer()->set_text(
        DiagnosticsReport(IRFRAME_VERSION, *entry, info, status, *m_config) + note);
}
