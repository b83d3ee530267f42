// What touch does, as the settings window chooses it: the gestures on or off, the key profile, a chord per gesture
// shortcut, the touchscreen and its monitor, TUIO and its target. The window writes its
// choices only to its own drop-in, irframe.d/50-settings.toml in the user's configuration
// directory, which the driver reads after irframe.toml: a hand-written irframe.toml and its
// comments are never rewritten. A value not chosen is left out, so the files before it hold.
#pragma once

#include <optional>
#include <string>

#include "ConfigChecks.h"
#include "DriverConfig.h"
#include "GestureShortcuts.h"

inline constexpr const char* kSettingsDropInName = "50-settings.toml";

struct TTouchChoices {
    std::optional<bool> gestures;  // the mouse and shortcut emulation
    std::optional<std::string> keyProfile;
    TShortcutOverrides shortcuts;
    std::optional<bool> touchscreen;
    std::optional<std::string> screenOutput;  // the monitor the gestures and touchscreen map to
    std::optional<bool> tuio;
    std::optional<std::string> tuioTarget;  // "[HOST:]PORT"; "": each area's own

    bool operator==(const TTouchChoices&) const = default;
};

// The drop-in's text: a comment saying who wrote it, then the chosen keys.
std::string TouchChoicesToml(const TTouchChoices& choices);

// The choices a drop-in's text holds (what it leaves out stays unset). False with `error`
// ("NAME:line:column: what") when the driver would refuse the text.
bool TouchChoicesFromToml(const std::string& text, const std::string& name,
                          const TConfigChecks& checks, TTouchChoices* choices, std::string* error);

// $XDG_CONFIG_HOME/irframe/irframe.d/50-settings.toml (~/.config/...); empty when neither
// variable names a directory.
std::string SettingsDropInPath(const TConfigEnvironment& environment);

// Checks the choices as the driver will, then writes them to `path` atomically (its directory
// made when missing). False with `error` when they are refused or cannot be written; the file
// is then as it was.
bool WriteTouchChoices(const std::string& path, const TTouchChoices& choices,
                       const TConfigChecks& checks, std::string* error);

// What a chord text for a shortcut comes to.
struct TChordVerdict {
    bool valid = false;     // a chord the driver reads
    std::string canonical;  // its one spelling ("ctrl+alt+left", "none")
    std::string dangerous;  // the dangerous chords it makes up ("Super+L (lock)"); "" for none
    std::string message;    // one line for the user when it is invalid or dangerous
};
TChordVerdict CheckShortcutChord(const std::string& text);
// Whether the window may take the chord: valid, and not dangerous unless the user confirmed.
inline bool ChordAccepted(const TChordVerdict& verdict, bool confirmed) {
    return verdict.valid && (verdict.dangerous.empty() || confirmed);
}
