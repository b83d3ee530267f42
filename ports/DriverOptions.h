// Everything the driver was asked to do, from its command line over its configuration file. The
// agent and the backends read it; only the option parser writes it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "GestureShortcuts.h"
#include "TuioSettings.h"

struct DriverOptions {
    bool dryRun = false;           // JSON lines instead of uinput events
    std::string output = "-";      // where the JSON lines go; "-" is standard output
    std::vector<std::string> simulate;  // FILE[@DELAY] per emulated frame
    std::vector<std::string> faults;    // [N:]KIND:COUNT[@K]
    uint16_t simulateVendor = 0xAAEC;   // USB ids of the emulated frames
    uint16_t simulateProduct = 0xC020;
    bool realtime = false;         // pace emulated frames in real time
    std::string screen;            // WxH or WxH+X+Y given on the command line; empty when not
    std::string display;           // the XRandR output the gestures map into; empty: primary
    std::string desktopSize;       // --desktop WxH: the desktop's size beside --screen
    std::string keys = "safe";     // the shortcut profile
    TShortcutOverrides shortcuts;  // the configuration's chord per named gesture shortcut
    std::string uinputPath = "/dev/uinput";
    bool noSingleInstance = false;
    std::string logLevel;  // --log-level, else the configuration's when -v is not given
    std::string configFile;  // the configuration files read, joined by ", "; empty: none
    std::vector<std::string> configSkipped;  // a line per configuration file passed over
    int verbose = 0;       // how many times -v was given
    TTuioSettings tuio;    // the TUIO output: --tuio, or the configuration file
    bool gestures = true;     // the mouse and shortcut emulation; --no-gestures turns it off
    bool touchscreen = false;  // a uinput touchscreen per frame
    bool touchscreenPerArea = false;  // one per calibration area instead (implies touchscreen)
    int touchscreenWidthMm = 0;   // the touch surface's size; 0: the touchscreen's default
    int touchscreenHeightMm = 0;
    bool claimBusName = false;  // hidden: a simulation takes part in the exchange (tests)
    // How the configuration file was chosen, so that it can be read again (SIGHUP): --config's
    // file (empty: the usual places), or none at all (--no-config).
    std::string configPath;
    bool noConfig = false;
    // The settings that the command line gave: the file does not change them, on a reload
    // either.
    struct TGivenOnCommandLine {
        bool logLevel = false;  // --log-level or -v
        bool screen = false;
        bool display = false;
        bool keys = false;
        bool gestures = false;  // --no-gestures
        bool touchscreen = false;
        bool tuio = false;
    } given;

    bool Simulating() const { return !simulate.empty(); }
    // Whether this run takes part in the single-instance exchange with other real instances.
    // Runs by hand beside the service (a dry run, emulated frames) take no part in it: they
    // only take the bus name when it is free, and keep it.
    bool SingleInstance() const {
        return claimBusName || (!Simulating() && !dryRun && !noSingleInstance);
    }
};
