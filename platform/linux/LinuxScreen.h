// The screen on Linux: an output of the X server (XRandR; the one asked for by name, else the
// primary), else the rectangle given with --screen WxH[+X+Y], else 1920x1080.
//
// libX11 and libXrandr are loaded at run time, so the driver also runs where they are not
// installed (a Wayland-only or headless machine). The geometry is taken once at start.
#pragma once

#include "Screen.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A rectangle on the desktop in points, as --screen gives it: "WxH" lies at +0+0.
struct TScreenPlacement {
    int width = 0;
    int height = 0;
    int x = 0;
    int y = 0;
    bool operator==(const TScreenPlacement&) const = default;
};

// "WxH" or "WxH+X+Y", decimal, sizes 1 to 65535 and offsets 0 to 65535 ("2560x1440+1920+0");
// empty on anything else.
std::optional<TScreenPlacement> ParseScreenPlacement(std::string_view text);

// Where the screen lies on the desktop. The uinput pointer's absolute axes span the whole desktop,
// so a position on the main screen is offset and scaled to the desktop.
struct TDisplayGeometry {
    TScreenRect main;             // the screen the gestures map into, within the desktop
    double desktopWidth = 0;      // the whole X screen (all outputs)
    double desktopHeight = 0;
    std::string source;           // for the log line: where the size came from
    int widthMm = 0;              // the main screen's physical size; 0: not known
    int heightMm = 0;
};

// One lit XRandR output: its name and its CRTC's rectangle on the desktop.
struct TDisplayOutput {
    std::string name;
    TScreenRect rect;
    bool primary = false;
    int widthMm = 0;  // physical size; 0: not known
    int heightMm = 0;
};

// What the X server (or a Wayland compositor) reports: the lit outputs in its own order and the
// screen that holds them.
struct TXrandrDesktop {
    std::vector<TDisplayOutput> outputs;
    double width = 0;
    double height = 0;
    std::string origin = "XRandR";  // who told it, for messages
};

// Asks the X server named by `displayName` (null: $DISPLAY). Empty with `why` set when no X
// server answers or the X libraries are missing; without XRandR the list is empty.
std::optional<TXrandrDesktop> QueryXrandrDesktop(const char* displayName, std::string* why);

// The output named `wanted` within the desktop; with no name the primary output, else the first
// one, else the whole desktop. Empty, with `error` listing the outputs there are, when no output
// has that name.
std::optional<TDisplayGeometry> ChooseOutputGeometry(const std::vector<TDisplayOutput>& outputs,
                                                     const std::string& wanted,
                                                     double desktopWidth, double desktopHeight,
                                                     std::string* error,
                                                     const std::string& origin = "XRandR");

// What the command line asks for: --display and --screen.
struct TScreenRequest {
    std::string output;                         // an XRandR output name; empty: the primary
    std::optional<TScreenPlacement> placement;  // used when no X server answers
    std::optional<TScreenPlacement> desktop = {};  // --desktop: the desktop's size beside it
};

// The choice in order: the outputs the X server or the compositor reports
// (ChooseOutputGeometry), else the placement given on a desktop of the size given (without one
// it reaches from 0,0 to the placement's far corner), else 1920x1080. Empty with `error` when the output asked for is not there, or cannot be looked up
// and no placement was given.
std::optional<TDisplayGeometry> ResolveDisplayGeometry(const std::optional<TXrandrDesktop>& fromX,
                                                       const TScreenRequest& request,
                                                       const std::string& whyNoX,
                                                       std::string* error);

// The udev property that confines a touchscreen, whose axes span the whole desktop, to the
// chosen screen: ENV{LIBINPUT_CALIBRATION_MATRIX}="w/W 0 x/W 0 h/H y/H". Empty for a desktop
// of no size.
std::string LibinputCalibrationLine(const TDisplayGeometry& geometry);

class CLinuxScreen final : public IScreen {
public:
    explicit CLinuxScreen(TDisplayGeometry geometry) : m_geometry(std::move(geometry)) {}
    std::optional<TScreenRect> MainScreenFrame() const override { return m_geometry.main; }
    const TDisplayGeometry& Geometry() const { return m_geometry; }

private:
    const TDisplayGeometry m_geometry;  // never changes after construction: no lock needed
};
