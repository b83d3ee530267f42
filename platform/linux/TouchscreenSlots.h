// A frame's contacts as a multitouch touchscreen (evdev protocol B), without the device: each
// polled frame's contacts in, the evdev events that bring the device to them out.
//
// Each contact id still touching holds one slot and one tracking id from its first report until
// it lifts, vanishes from the frame or is retired; then its slot ends (tracking id -1). Only
// values that changed are written, as the input core would drop the others, so one frame makes
// at most one report: the slots, then BTN_TOUCH and ABS_X/ABS_Y of the oldest touch (for
// single-touch clients), then SYN_REPORT. Positions are the contacts' absolute output units;
// anything beyond the axes is clamped and a contact without a free slot is dropped, each noted
// once (TakeWarnings).
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "ContactStream.h"
#include "EvdevEvent.h"

// The axes of the device: the contacts' absolute output units.
inline constexpr int32_t kTouchAxisMin = 1;
inline constexpr int32_t kTouchAxisMax = 32766;
inline constexpr int32_t kTrackingIdMax = 65535;
inline constexpr int kTouchscreenSlots = 10;  // a frame reports at most 9 contacts
inline constexpr int kTouchscreenMaxSlots = 64;

// The touch surface's physical size. libinput needs it (the axes' resolution) to treat the
// device as a touchscreen of that size. The default is a 55-inch 16:9 display, a common size of
// an infrared frame.
struct TTouchscreenSize {
    int widthMm = 1218;
    int heightMm = 685;
    bool operator==(const TTouchscreenSize&) const = default;
};

inline constexpr int kTouchscreenMaxMm = 20000;

// Axis units per millimetre over a side of `millimetres` (1..kTouchscreenMaxMm), at least 1.
int32_t TouchscreenResolution(int millimetres);

enum TTouchscreenWarning : unsigned {
    kTouchscreenClamped = 1u << 0,  // a position or size beyond its axis
    kTouchscreenDropped = 1u << 1,  // a contact found no free slot
};

class CTouchscreenSlots {
public:
    // `slots`: 1..kTouchscreenMaxSlots.
    explicit CTouchscreenSlots(int slots = kTouchscreenSlots);

    int Slots() const { return m_slotCount; }

    // Appends the events of one polled frame to `out`: nothing when nothing changed.
    void Update(const TContactFrame& frame, std::vector<TEvdevEvent>* out);
    // Ends every touch (the frame went away): appends the events to `out`.
    void LiftAll(std::vector<TEvdevEvent>* out);

    int ActiveTouches() const;
    // Warnings not yet taken (TTouchscreenWarning bits); each kind is given out once only.
    unsigned TakeWarnings();

private:
    struct TSlot {
        bool active = false;
        bool touched = false;  // changed in the frame being built
        bool ended = false;    // ended in the frame being built: not reused in that frame
        uint8_t contact = 0;
        uint64_t since = 0;  // start order, for the oldest touch
        // The values the device holds for this slot (they outlive a touch, as in the kernel).
        int32_t trackingId = -1;
        int32_t x = 0, y = 0, major = 0, minor = 0;
    };

    void Select(int slot, std::vector<TEvdevEvent>* out);
    void SetAbs(int slot, uint16_t code, int32_t value, int32_t* held,
                std::vector<TEvdevEvent>* out);
    void Place(int slot, const TContact& contact, std::vector<TEvdevEvent>* out);
    void Begin(const TContact& contact, std::vector<TEvdevEvent>* out);
    void End(int slot, std::vector<TEvdevEvent>* out);
    void Finish(size_t start, std::vector<TEvdevEvent>* out);
    int32_t Clamp(int32_t value, int32_t low, int32_t high);

    int m_slotCount;
    std::array<TSlot, kTouchscreenMaxSlots> m_slots{};
    std::array<int8_t, 256> m_slotOfContact;  // -1: the contact holds no slot
    int m_currentSlot = 0;                     // ABS_MT_SLOT as the device holds it
    int32_t m_nextTrackingId = 0;
    uint64_t m_started = 0;
    bool m_touching = false;  // BTN_TOUCH
    int32_t m_pointerX = 0, m_pointerY = 0;
    unsigned m_warned = 0;
    unsigned m_pending = 0;
};
