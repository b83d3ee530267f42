#include "GestureShortcuts.h"

#include "EventSink.h"

namespace {

using enum TGestureShortcut;

// What each gesture posts (key codes of the key-name table; the gestures' own tests check them
// against the handlers).
constexpr TGestureShortcutInfo kShortcuts[kGestureShortcutCount] = {
    {RotateClockwise, "rotate-clockwise", "two fingers turn clockwise", "r", 15,
     EVENT_FLAG_COMMAND},
    {RotateAnticlockwise, "rotate-anticlockwise", "two fingers turn anticlockwise", "l", 37,
     EVENT_FLAG_COMMAND},
    {SwipeLeft, "swipe-left", "two fingers sweep left", "RIGHT", 124, EVENT_FLAG_COMMAND},
    {SwipeRight, "swipe-right", "two fingers sweep right", "LEFT", 123, EVENT_FLAG_COMMAND},
    {BorderSwipe, "border-swipe", "two fingers sweep left from the right edge", "F7", 98,
     EVENT_FLAG_SECONDARY_FN},
    {Pinch, "pinch", "two fingers close together", "-", 27, EVENT_FLAG_COMMAND},
    {Spread, "spread", "two fingers spread apart", "+", 69, EVENT_FLAG_COMMAND},
    {ZoomToggleFirst, "zoom-toggle-first",
     "zoom toggle, odd times (short one-finger touch or double two-finger touch)", "0", 29,
     EVENT_FLAG_COMMAND},
    {ZoomToggleSecond, "zoom-toggle-second", "zoom toggle, even times", "9", 25,
     EVENT_FLAG_COMMAND},
    {FourFingerLeft, "four-finger-left", "four fingers sweep left", "RIGHT", 124,
     EVENT_FLAG_CONTROL},
    {FourFingerRight, "four-finger-right", "four fingers sweep right", "LEFT", 123,
     EVENT_FLAG_CONTROL},
    {FourFingerUp, "four-finger-up", "four fingers sweep up", "UP", 126, EVENT_FLAG_CONTROL},
    {FourFingerDown, "four-finger-down", "four fingers sweep down", "DOWN", 125,
     EVENT_FLAG_CONTROL},
    {FourFingerPinch, "four-finger-pinch", "four fingers close together", "F8", 100,
     EVENT_FLAG_SECONDARY_FN},
    {FourFingerSpread, "four-finger-spread", "four fingers spread apart", "F11", 103,
     EVENT_FLAG_SECONDARY_FN},
};

}  // namespace

std::span<const TGestureShortcutInfo, kGestureShortcutCount> GestureShortcutTable() {
    return kShortcuts;
}

const TGestureShortcutInfo& GestureShortcutInfo(TGestureShortcut id) {
    return kShortcuts[static_cast<size_t>(id)];
}

std::optional<TGestureShortcut> FindGestureShortcut(std::string_view name) {
    for (const TGestureShortcutInfo& info : kShortcuts) {
        if (name == info.name) return info.id;
    }
    return std::nullopt;
}

std::optional<TGestureShortcut> GestureShortcutOfKey(uint16_t macKeyCode, uint64_t flags) {
    for (const TGestureShortcutInfo& info : kShortcuts) {
        if (info.macKeyCode == macKeyCode && info.flags == flags) return info.id;
    }
    return std::nullopt;
}
