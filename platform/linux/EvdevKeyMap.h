// From the keyboard shortcuts the gestures post (macOS virtual key codes and Quartz modifier
// flags) to Linux evdev key codes.
//
// Two profiles:
//  - Literal (the default): each key is the key at the same place on a PC keyboard, and each
//    modifier flag is the key in the same place: Command -> Left Meta (Super), Control -> Left
//    Ctrl, Option -> Left Alt, Shift -> Left Shift. The Fn flag adds no key: on a PC keyboard
//    Fn never reaches the system, the function key itself does.
//  - Desktop: each shortcut a gesture posts becomes what a Linux desktop binds to the same action
//    (zoom in browsers and viewers, back and forward, workspace switching, overview, show
//    desktop); see DesktopShortcutTable(). A shortcut not in that table falls back to the
//    literal key with Command and Control both as Left Ctrl.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

// Quartz event flag bits that the gestures use.
inline constexpr uint64_t kMacFlagShift = 0x20000;
inline constexpr uint64_t kMacFlagControl = 0x40000;
inline constexpr uint64_t kMacFlagAlternate = 0x80000;
inline constexpr uint64_t kMacFlagCommand = 0x100000;
inline constexpr uint64_t kMacFlagSecondaryFn = 0x800000;

enum class TKeyProfile { Literal, Desktop };

// "literal" or "desktop"; empty on anything else.
std::optional<TKeyProfile> ParseKeyProfile(std::string_view name);
const char* KeyProfileName(TKeyProfile profile);

// The evdev key of a macOS virtual key code of the key-name table; empty for any other code
// (the pseudo-keys share their codes with letters and are translated as those letters).
std::optional<uint16_t> EvdevKeyForMacKey(uint16_t macKeyCode);

// One chord: modifiers pressed in order, then the key; released in reverse order.
struct TEvdevChord {
    std::vector<uint16_t> modifiers;
    uint16_t key = 0;
    bool operator==(const TEvdevChord&) const = default;
};

// The chord of a shortcut; empty when the key has no evdev equivalent.
std::optional<TEvdevChord> TranslateShortcut(TKeyProfile profile, uint16_t macKeyCode,
                                             uint64_t macFlags);

// A desktop-profile entry: the macOS shortcut, and what the desktop gets instead.
struct TDesktopShortcut {
    uint16_t macKeyCode;
    uint64_t macFlags;  // the one modifier flag the gesture posts
    TEvdevChord chord;
    const char* action;  // what it does, for the documentation and logs
};
std::span<const TDesktopShortcut> DesktopShortcutTable();

// Every key the virtual device must declare: the mapped keys of the key-name table, the
// modifiers, and the keys of the desktop table.
std::vector<uint16_t> AllEvdevKeys();
