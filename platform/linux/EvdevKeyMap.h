// From the keyboard shortcuts the gestures post (macOS virtual key codes and Quartz modifier
// flags) to Linux evdev key codes.
//
// Three profiles:
//  - Safe (the default): each gesture's shortcut becomes a chord that cannot lock the screen, log
//    out, tile or close windows, launch applications or reload a page; the rotations press
//    nothing. See SafeShortcutTable() and docs/shortcuts.md.
//  - Literal: each key is the key at the same place on a PC keyboard, and each
//    modifier flag is the key in the same place: Command -> Left Meta (Super), Control -> Left
//    Ctrl, Option -> Left Alt, Shift -> Left Shift. The Fn flag adds no key: on a PC keyboard
//    Fn never reaches the system, the function key itself does.
//  - Desktop: each shortcut a gesture posts becomes what a Linux desktop binds to the same action
//    (zoom in browsers and viewers, back and forward, workspace switching, overview, show
//    desktop); see DesktopShortcutTable(). A shortcut not in that table falls back to the
//    literal key with Command and Control both as Left Ctrl. (The safe profile falls back the
//    same way for a shortcut that no gesture posts.)
//
// On top of a profile, CKeyMap lets the user replace the chord of each named gesture shortcut
// (GestureShortcuts.h) with a chord written as text ("ctrl+alt+left", "none").
#pragma once

#include "EventSink.h"
#include "GestureShortcuts.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Quartz event flag bits that the gestures use.
inline constexpr uint64_t kMacFlagShift = 0x20000;
inline constexpr uint64_t kMacFlagControl = 0x40000;
inline constexpr uint64_t kMacFlagAlternate = 0x80000;
inline constexpr uint64_t kMacFlagCommand = 0x100000;
inline constexpr uint64_t kMacFlagSecondaryFn = 0x800000;

enum class TKeyProfile { Literal, Desktop, Safe };
inline constexpr TKeyProfile kDefaultKeyProfile = TKeyProfile::Safe;

// "safe", "literal" or "desktop"; empty on anything else.
std::optional<TKeyProfile> ParseKeyProfile(std::string_view name);
const char* KeyProfileName(TKeyProfile profile);
// Every profile's name, the default first.
std::span<const char* const> KeyProfileNames();

// The evdev key of a macOS virtual key code of the key-name table; empty for any other code
// (the pseudo-keys share their codes with letters and are translated as those letters).
std::optional<uint16_t> EvdevKeyForMacKey(uint16_t macKeyCode);

// One chord: modifiers pressed in order, then the key; released in reverse order. Key 0
// (KEY_RESERVED) with no modifiers is "none": the shortcut presses nothing.
struct TEvdevChord {
    std::vector<uint16_t> modifiers;
    uint16_t key = 0;
    bool operator==(const TEvdevChord&) const = default;
    bool IsNone() const { return key == 0; }
};

// A chord written as text: key names joined by '+', modifiers first and the key last, case
// ignored ("ctrl+alt+left", "Super+F1"), or "none" alone. Modifiers are pressed in a fixed
// order (ctrl, alt, shift, super) whatever order they are written in. On error returns false
// with one line saying what is wrong and which names are valid.
bool ParseChord(std::string_view text, TEvdevChord* chord, std::string* error);
// The chord as text that ParseChord reads back: "ctrl+alt+left", "none".
std::string FormatChord(const TEvdevChord& chord);
// The key names a chord may use, for messages: "ctrl, alt, ..., a-z, 0-9, f1-f24, ...".
std::string ChordKeyNamesHelp();
// The evdev name of a key code ("KEY_LEFTCTRL"); "KEY_<code>" for a code without one.
std::string EvdevKeyName(uint16_t code);

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

// A safe-profile entry: a named gesture shortcut and the chord it gets (none included).
struct TSafeShortcut {
    TGestureShortcut shortcut;
    TEvdevChord chord;
    const char* why;  // why this chord, for the documentation
};
std::span<const TSafeShortcut> SafeShortcutTable();

// The chord a profile gives a named gesture shortcut.
TEvdevChord ProfileChord(TKeyProfile profile, TGestureShortcut shortcut);

// A profile with the user's chords for some named shortcuts. Immutable once made, so one map
// may serve every thread.
class CKeyMap {
public:
    // A profile as it is: every shortcut gets the profile's chord. Not explicit: a profile
    // alone is a key map wherever one is taken.
    CKeyMap(TKeyProfile profile = kDefaultKeyProfile) : m_profile(profile) {}
    // The profile with each given chord text in place of the profile's chord. Empty, with
    // `error` naming the shortcut and what is wrong, when a text is not a chord.
    static std::optional<CKeyMap> Make(TKeyProfile profile, const TShortcutOverrides& overrides,
                                       std::string* error);

    TKeyProfile Profile() const { return m_profile; }
    // The chord of a named shortcut: the user's, else the profile's.
    TEvdevChord ChordOf(TGestureShortcut shortcut) const;
    // The chord of any posted key and flags; empty when the key has no evdev equivalent.
    std::optional<TEvdevChord> Chord(uint16_t macKeyCode, uint64_t flags) const;
    // The keys a key event changes, in the order the virtual device changes them: a key-down
    // presses the modifiers then the key, a key-up releases the key then the modifiers in
    // reverse. Empty for a chord of none; no value for an event that is not a key event or has
    // no evdev equivalent.
    std::optional<std::vector<uint16_t>> KeyChanges(const TInputEvent& event) const;
    // The evdev names of KeyChanges ([] when it has none): what the dry run shows.
    std::vector<std::string> KeyNames(const TInputEvent& event) const;

private:
    TKeyProfile m_profile;
    std::array<std::optional<TEvdevChord>, kGestureShortcutCount> m_overrides;
};

// The dangerous chords (lock, log out, tile, close, launch, reload, switch) that the keys a
// key-down presses make up, modifiers first and the key last: "Super+L (lock)", several joined
// by ", "; "" when none. The safe profile presses none of them.
std::string DangerousChordsIn(const std::vector<uint16_t>& pressed);

// Every key the virtual device must declare: the mapped keys of the key-name table, the
// modifiers, the keys of the profiles' tables, and every key a chord text can name.
std::vector<uint16_t> AllEvdevKeys();
