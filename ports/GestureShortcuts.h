// The keyboard shortcuts that gestures post, each named by its gesture.
//
// A gesture posts a shortcut as a macOS key code with one modifier flag (TInputEvent::Key). The
// name is what a user writes in the configuration ("rotate-clockwise") and what a backend uses to
// let the user choose what the shortcut presses. No two gestures post the same key and flag, so
// the key event alone says which named shortcut it is. The zoom toggle is one pair of shortcuts
// posted by two gestures (the short one-finger touch and the double two-finger touch).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

enum class TGestureShortcut : uint8_t {
    RotateClockwise,
    RotateAnticlockwise,
    SwipeLeft,
    SwipeRight,
    BorderSwipe,
    Pinch,
    Spread,
    ZoomToggleFirst,
    ZoomToggleSecond,
    FourFingerLeft,
    FourFingerRight,
    FourFingerUp,
    FourFingerDown,
    FourFingerPinch,
    FourFingerSpread,
};
inline constexpr size_t kGestureShortcutCount = 15;

struct TGestureShortcutInfo {
    TGestureShortcut id;
    const char* name;        // "rotate-clockwise": the configuration's key
    const char* gesture;     // what the hand does, for documentation and comments
    const char* macKeyName;  // the key-name table's name the gesture posts ("r")
    uint16_t macKeyCode;     // its macOS virtual key code
    uint64_t flags;          // the one modifier flag posted with it
};

// Every named shortcut, in the order of TGestureShortcut.
std::span<const TGestureShortcutInfo, kGestureShortcutCount> GestureShortcutTable();
const TGestureShortcutInfo& GestureShortcutInfo(TGestureShortcut id);
std::optional<TGestureShortcut> FindGestureShortcut(std::string_view name);
// The named shortcut a key event with this code and flag belongs to; empty for any other.
std::optional<TGestureShortcut> GestureShortcutOfKey(uint16_t macKeyCode, uint64_t flags);

// A chord text per named shortcut ("ctrl+alt+left", "none"); empty: what the profile says.
using TShortcutOverrides = std::array<std::optional<std::string>, kGestureShortcutCount>;
