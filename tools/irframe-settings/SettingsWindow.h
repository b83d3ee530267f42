// The settings window: a thin layer over the GTK-free core. Pages: the frames, the live view
// of the selected frame (with Calibrate), what touch does, backups, diagnostics. Everything
// goes to the driver over its D-Bus interface.
#pragma once

#include <gtkmm.h>

#include <memory>
#include <optional>
#include <string>

#include "ContactFeed.h"
#include "LiveView.h"
#include "LiveViewDrawing.h"
#include "SettingsModel.h"
#include "TouchSettings.h"

struct sd_bus;
class CTouchHereWindow;

struct TSettingsOptions {
    int frame = 0;     // 0: the first
    std::string page;  // frames, live, touch, backups, diagnostics
    std::string restore;  // a saved configuration to offer for restoring at start
    bool whichScreen = false;  // ask at start which screen the frame is on
};

class CSettingsWindow final : public Gtk::Window {
public:
    explicit CSettingsWindow(const TSettingsOptions& options);
    ~CSettingsWindow() override;

private:
    // The driver and its frames.
    void Connect();
    void WatchDriver();
    void RefreshFrames();
    void SelectFrame(int number);
    void Say(const std::string& line, bool error = false);

    // Pages.
    void BuildFramesPage();
    void BuildLivePage();
    void BuildTouchPage();
    void BuildBackupsPage();
    void BuildDiagnosticsPage();
    void DrawLive(const Cairo::RefPtr<Cairo::Context>& cr, int width, int height);
    void StartFeed(bool holdGestures = false);
    void PickMonitor();
    void FinishPick(std::optional<int> monitor);
    void StopFeed();
    void OnContacts();
    void Calibrate();
    void LoadTouchChoices();
    void ApplyTouchChoices(bool confirmed);
    void RefreshBackups();
    void SaveToFile();
    void ChooseRestoreFile();
    void OfferRestore(const std::string& path);
    void Restore(const _HARDWARE_DEV_CONFIG& wanted);
    void RefreshDiagnostics();

    TSettingsOptions m_options;
    sd_bus* m_watchBus = nullptr;  // signals only: FrameAdded, FrameRemoved, the owner's changes
    sigc::connection m_watch;
    bool m_driverChanged = false;  // set by the watch's signal handlers
    std::unique_ptr<ITransport> m_transport;       // this thread's questions
    std::unique_ptr<ITransport> m_feedTransport;   // the feed's own connection
    std::unique_ptr<IFrame> m_frame;
    std::unique_ptr<IFrame> m_feedFrame;
    std::unique_ptr<CContactFeed> m_feed;
    std::unique_ptr<_HARDWARE_DEV_CONFIG> m_config;
    CFrameListModel m_frames;
    int m_selected = 0;
    CLiveView m_view;
    CLiveViewPainter m_painter;
    TTouchChoices m_choices;
    std::array<std::string, kGestureShortcutCount> m_shownChords;
    std::string m_shownProfile;
    TDriverConfig m_shown;  // the configuration in force when the page was filled
    TConfigChecks m_checks;
    std::vector<TBackupEntry> m_backups;
    std::unique_ptr<Gtk::Window> m_dialog;
    std::unique_ptr<Gtk::FileChooserDialog> m_chooser;
    bool m_calibrating = false;
    // "Which screen is this frame on?": a window per monitor while it asks.
    std::vector<std::unique_ptr<CTouchHereWindow>> m_touchHere;
    std::vector<std::string> m_pickConnectors;

    Gtk::Box m_box{Gtk::Orientation::VERTICAL, 6};
    Gtk::Label m_status;
    Gtk::Notebook m_pages;
    // Frames.
    Gtk::Box m_framesPage{Gtk::Orientation::VERTICAL, 6};
    Gtk::ListBox m_frameList;
    Gtk::Button m_whichScreen{"Which screen is this frame on?"};
    // Live view.
    Gtk::Box m_livePage{Gtk::Orientation::VERTICAL, 6};
    Gtk::DrawingArea m_canvas;
    Gtk::Box m_liveBar{Gtk::Orientation::HORIZONTAL, 6};
    Gtk::SpinButton m_area;
    Gtk::Entry m_calibrateOutput;
    Gtk::Button m_calibrate{"Calibrate…"};
    // Touch.
    Gtk::ScrolledWindow m_touchScroll;
    Gtk::Grid m_touchGrid;
    Gtk::DropDown m_profile;
    std::array<Gtk::Entry, kGestureShortcutCount> m_chords;
    Gtk::Switch m_gestures;
    Gtk::Switch m_touchscreen;
    Gtk::Entry m_monitor;
    Gtk::Switch m_tuio;
    Gtk::Entry m_tuioTarget;
    Gtk::Button m_apply{"Apply"};
    Gtk::Label m_touchResult;
    // Backups.
    Gtk::Box m_backupPage{Gtk::Orientation::VERTICAL, 6};
    Gtk::Box m_backupBar{Gtk::Orientation::HORIZONTAL, 6};
    Gtk::Button m_saveFile{"Save to file…"};
    Gtk::Button m_restoreFile{"Restore from file…"};
    Gtk::Button m_restoreBackup{"Restore selected backup…"};
    Gtk::ScrolledWindow m_backupScroll;
    Gtk::ListBox m_backupList;
    // Diagnostics.
    Gtk::Box m_diagPage{Gtk::Orientation::VERTICAL, 6};
    Gtk::ScrolledWindow m_diagScroll;
    Gtk::TextView m_diagText;
    Gtk::Button m_copy{"Copy report"};
};
