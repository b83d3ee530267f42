// What the driver's configuration needs to know from the platform to check its values: the key
// profiles, how a chord is written, and what a screen size looks like. The agent's loader takes
// it as a parameter so that it stays portable; each platform provides one.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "GestureShortcuts.h"

struct TConfigChecks {
    // The names of the key profiles, the default first.
    std::vector<std::string> keyProfiles;
    // Checks a chord text ("ctrl+alt+left", "none"): true with its one spelling in `canonical`,
    // else false with one line saying what is wrong and what is valid.
    std::function<bool(std::string_view text, std::string* canonical, std::string* error)> chord;
    // The chord text that a profile (one of keyProfiles) gives a named shortcut.
    std::function<std::string(std::string_view profile, TGestureShortcut shortcut)> profileChord;
    // Whether a text is a screen size as --screen takes it ("1920x1080", "1920x1080+0+0").
    std::function<bool(std::string_view text)> screenSize;
};
