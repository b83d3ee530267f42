// Which monitor a touchscreen lies on, as each desktop keeps it: one small writer per desktop
// behind one interface, for `irframectl map` (docs/monitors.md).
//
//   GNOME    the `output` key of org.gnome.desktop.peripherals.touchscreen at
//            /org/gnome/desktop/peripherals/touchscreens/VID:PID/ (gsettings), the monitor's
//            vendor, product and serial taken from Mutter where it answers
//   KDE      OutputName= under [Libinput][VID][PID][NAME] in kcminputrc (kwriteconfig6/5)
//   wlroots  `input "VID:PID:NAME" map_to_output OUTPUT` in a snippet the user includes
//   X11      the device's XInput "Coordinate Transformation Matrix" (xinput)
//
// The writers run the desktops' own programs, so that what they write is what the desktop
// reads. Errors are CToolError with one line that says what to do.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

// A touchscreen device as the desktops see it.
struct TTouchscreenId {
    std::string name;  // "irframe touchscreen serial 0123AB" (" area 1")
    uint16_t vendorId = 0;
    uint16_t productId = 0;
};

// A monitor as a desktop names it. Vendor, product and serial are empty where not known.
struct TMonitorId {
    std::string connector;  // "HDMI-1", "DP-2"
    std::string vendor;
    std::string product;
    std::string serial;
};

enum class TDesktop { Gnome, Kde, Wlroots, X11 };

// "gnome", "kde", "wlroots", "x11"; nothing for any other text.
std::optional<TDesktop> ParseDesktop(std::string_view text);
const char* DesktopName(TDesktop desktop);

// What tells the running desktop apart: the variables the session sets.
struct TDesktopEnvironment {
    std::string currentDesktop;  // $XDG_CURRENT_DESKTOP, e.g. "ubuntu:GNOME"
    bool wayland = false;        // $WAYLAND_DISPLAY set
    bool swaySocket = false;     // $SWAYSOCK set
    bool x11 = false;            // $DISPLAY set
};
TDesktopEnvironment ProcessDesktopEnvironment();

// The desktop, or nothing with `why` saying what to give (--desktop).
std::optional<TDesktop> DetectDesktop(const TDesktopEnvironment& environment, std::string* why);

// What a program printed, and how it ended: `status` is its exit status, -1 when it could not
// be started (`out` then says why) or ended by a signal.
struct TProgramResult {
    bool found = true;  // false: not installed
    int status = -1;
    std::string out;
    std::string err;
};
// Runs `argv` (looked up in PATH) without a shell and waits for it, at most `timeoutMillis`
// (then it is killed, `status` -1 and `err` saying so); each output is kept up to 64 KiB.
TProgramResult RunProgram(const std::vector<std::string>& argv, int timeoutMillis = 30'000);

class IDesktopMapping {
public:
    virtual ~IDesktopMapping() = default;
    virtual TDesktop Desktop() const = 0;
    // The monitor `connector` as this desktop identifies it; a line per thing not known goes to
    // `notes`.
    virtual TMonitorId Monitor(const std::string& connector, std::vector<std::string>* notes) {
        (void)notes;
        return {connector, "", "", ""};
    }
    // Writes the setting that puts `device` on `monitor`; says on `out` what was done and what
    // the user still has to do. Throws CToolError.
    virtual void Map(const TTouchscreenId& device, const TMonitorId& monitor,
                     std::ostream& out) = 0;
    // What the setting says now for `device`, one line ("not set" when it says nothing).
    virtual std::string Show(const TTouchscreenId& device) = 0;
};

// `configHome` is the user's configuration directory ($XDG_CONFIG_HOME or ~/.config): where the
// wlroots snippet goes.
std::unique_ptr<IDesktopMapping> MakeDesktopMapping(TDesktop desktop,
                                                    const std::string& configHome);

// Makes `dir` and the directories above it that are missing (mode 0700). Throws CToolError.
void MakeDirectories(const std::string& dir);

// The parts each writer is built on, for their tests.
// /org/gnome/desktop/peripherals/touchscreens/aaec:c020/
std::string GnomeTouchscreenPath(const TTouchscreenId& device);
// GVariant text of a string array: ['a', 'b\'c']
std::string GVariantStrings(const std::vector<std::string>& items);
// sway's identifier: "43756:49184:irframe_touchscreen_serial_0123AB"
std::string SwayIdentifier(const TTouchscreenId& device);
// `text` (a snippet) with the line for `identifier` set to map it to `output`, the other lines
// kept.
std::string SetSwayMapping(const std::string& text, const std::string& identifier,
                           const std::string& output);
// The 3x3 matrix, row by row, that puts a device spanning the X screen (width x height) on the
// rectangle x,y,w,h of it.
std::vector<double> CoordinateMatrix(double x, double y, double w, double h, double width,
                                     double height);
