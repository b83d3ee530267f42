// The desktop's layout as a wlroots compositor (sway, labwc, river, ...) knows it, read through
// the wlr-output-management protocol: every enabled monitor's connector name, its rectangle in
// the compositor's space (its mode turned and scaled as the compositor shows it) and its
// physical size. Works without an X server.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "LinuxScreen.h"

// One head as the protocol describes it.
struct TWlrHead {
    std::string name;
    bool enabled = false;
    int x = 0, y = 0;
    int modeWidth = 0, modeHeight = 0;  // the current mode, in the output's own pixels
    int transform = 0;                  // wl_output.transform: 1, 3, 5, 7 turn a quarter
    double scale = 1.0;
    int widthMm = 0, heightMm = 0;
    bool primary = false;  // the desktop's main monitor, where the compositor says so
};

// A monitor name from outside: printable ASCII, at most 64 characters ('?' for the rest), as it
// goes into messages and is compared with --display.
std::string PrintableOutputName(const char* text);

// The enabled heads as outputs in the compositor's space, and the box that holds them all.
TXrandrDesktop LayoutOfHeads(const std::vector<TWlrHead>& heads);

// Asks the compositor at `display` (null: $WAYLAND_DISPLAY) for its heads, enabled or not.
// Empty with `why` set when none answers or it does not offer the protocol.
std::optional<std::vector<TWlrHead>> QueryWlrHeads(const char* display, std::string* why);

// The layout of the enabled heads; empty with `why` set also when none is enabled.
std::optional<TXrandrDesktop> QueryWlrOutputs(const char* display, std::string* why);
