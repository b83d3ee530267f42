// irframe-settings: a window over the running driver's D-Bus interface to see a frame's
// touches and areas, back its configuration up and restore it, calibrate it, and choose what
// touch does. docs/settings.md and irframe-settings(1) describe it.
#include <gtkmm.h>

#include <CLI/CLI.hpp>

#include "IrframeVersion.h"
#include "SettingsWindow.h"

int main(int argc, char** argv) {
    TSettingsOptions options;
    CLI::App cli("A window to see a touch frame's touches and areas, back its configuration up, "
                 "calibrate it and choose what touch does.",
                 "irframe-settings");
    cli.add_option("--frame", options.frame, "The frame to show first (irframectl list)")
        ->check(CLI::Range(1, 1000));
    cli.add_option("--page", options.page, "The page to open: frames, live, touch, backups, diagnostics")
        ->check(CLI::IsMember({"frames", "live", "touch", "backups", "diagnostics"}));
    cli.add_option("--restore", options.restore,
                   "Offer to restore this saved configuration (its differences are shown first)")
        ->type_name("FILE");
    cli.add_flag("--which-screen", options.whichScreen,
                 "Show \"touch here\" on every monitor and map the frame to the one touched");
    cli.set_version_flag("--version", "irframe-settings " IRFRAME_VERSION);
    try {
        cli.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = cli.exit(e);
        return code == 0 ? 0 : 2;
    }
    auto app = Gtk::Application::create("org.irframe.Settings", Gio::Application::Flags::NON_UNIQUE);
    std::unique_ptr<CSettingsWindow> window;
    app->signal_activate().connect([&] {
        window = std::make_unique<CSettingsWindow>(options);
        app->add_window(*window);
        window->present();
    });
    char* programOnly[] = {argv[0], nullptr};
    return app->run(1, programOnly);
}
