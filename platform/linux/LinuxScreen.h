// The screen on Linux: the primary output of the X server (XRandR), else the size given with
// --screen WxH, else 1920x1080.
//
// libX11 and libXrandr are loaded at run time, so the driver also runs where they are not
// installed (a Wayland-only or headless machine). The geometry is taken once at start.
#pragma once

#include "Screen.h"

#include <optional>
#include <string>
#include <string_view>

struct TScreenSize {
    int width = 0;
    int height = 0;
    bool operator==(const TScreenSize&) const = default;
};

// "WxH" with decimal sizes of 1 to 65535 each ("1920x1080"); empty on anything else.
std::optional<TScreenSize> ParseScreenSize(std::string_view text);

// Where the screen lies on the desktop. The uinput pointer's absolute axes span the whole desktop,
// so a position on the main screen is offset and scaled to the desktop.
struct TDisplayGeometry {
    TScreenRect main;             // the main screen within the desktop
    double desktopWidth = 0;      // the whole X screen (all outputs)
    double desktopHeight = 0;
    std::string source;           // for the log line: where the size came from
};

// Asks the X server named by `displayName` (null: $DISPLAY) for the primary output's CRTC, else
// the first active CRTC, else the X screen itself. Empty with `why` set when no X server answers
// or the X libraries are missing.
std::optional<TDisplayGeometry> QueryXrandrGeometry(const char* displayName, std::string* why);

// The choice in order: the X server's answer, else the command line's size, else 1920x1080.
TDisplayGeometry ResolveDisplayGeometry(const std::optional<TDisplayGeometry>& fromX,
                                        const std::optional<TScreenSize>& fromOption,
                                        const std::string& whyNoX);

class CLinuxScreen final : public IScreen {
public:
    explicit CLinuxScreen(TDisplayGeometry geometry) : m_geometry(std::move(geometry)) {}
    std::optional<TScreenRect> MainScreenFrame() const override { return m_geometry.main; }
    const TDisplayGeometry& Geometry() const { return m_geometry; }

private:
    const TDisplayGeometry m_geometry;  // never changes after construction: no lock needed
};
