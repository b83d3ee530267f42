#include "TouchscreenSlots.h"

#include <linux/input-event-codes.h>

#include <algorithm>
#include <cmath>

int32_t TouchscreenResolution(int millimetres) {
    const int mm = std::clamp(millimetres, 1, kTouchscreenMaxMm);
    const double perMm = static_cast<double>(kTouchAxisMax - kTouchAxisMin) / mm;
    return std::max<int32_t>(1, static_cast<int32_t>(std::lround(perMm)));
}

CTouchscreenSlots::CTouchscreenSlots(int slots)
    : m_slotCount(std::clamp(slots, 1, kTouchscreenMaxSlots)) {
    m_slotOfContact.fill(-1);
}

int CTouchscreenSlots::ActiveTouches() const {
    return static_cast<int>(std::count_if(m_slots.begin(), m_slots.begin() + m_slotCount,
                                          [](const TSlot& s) { return s.active; }));
}

unsigned CTouchscreenSlots::TakeWarnings() {
    const unsigned taken = m_pending;
    m_pending = 0;
    return taken;
}

int32_t CTouchscreenSlots::Clamp(int32_t value, int32_t low, int32_t high) {
    if (value >= low && value <= high) return value;
    if ((m_warned & kTouchscreenClamped) == 0) {
        m_warned |= kTouchscreenClamped;
        m_pending |= kTouchscreenClamped;
    }
    return std::clamp(value, low, high);
}

void CTouchscreenSlots::Select(int slot, std::vector<TEvdevEvent>* out) {
    if (m_currentSlot == slot) return;
    m_currentSlot = slot;
    out->push_back({EV_ABS, ABS_MT_SLOT, slot});
}

void CTouchscreenSlots::SetAbs(int slot, uint16_t code, int32_t value, int32_t* held,
                               std::vector<TEvdevEvent>* out) {
    if (*held == value) return;
    *held = value;
    Select(slot, out);
    out->push_back({EV_ABS, code, value});
}

void CTouchscreenSlots::Place(int slot, const TContact& contact, std::vector<TEvdevEvent>* out) {
    TSlot& s = m_slots[slot];
    s.touched = true;
    SetAbs(slot, ABS_MT_POSITION_X, Clamp(contact.x, kTouchAxisMin, kTouchAxisMax), &s.x, out);
    SetAbs(slot, ABS_MT_POSITION_Y, Clamp(contact.y, kTouchAxisMin, kTouchAxisMax), &s.y, out);
    if (!contact.hasSize) return;
    const int32_t w = Clamp(contact.width, 0, kTouchAxisMax);
    const int32_t h = Clamp(contact.height, 0, kTouchAxisMax);
    SetAbs(slot, ABS_MT_TOUCH_MAJOR, std::max(w, h), &s.major, out);
    SetAbs(slot, ABS_MT_TOUCH_MINOR, std::min(w, h), &s.minor, out);
}

void CTouchscreenSlots::Begin(const TContact& contact, std::vector<TEvdevEvent>* out) {
    // A slot ended in this report stays free until the next one: a client that saw it end and
    // begin in one report would never see the first touch lift.
    int slot = -1;
    for (int i = 0; i < m_slotCount; ++i) {
        if (!m_slots[i].active && !m_slots[i].ended) {
            slot = i;
            break;
        }
    }
    if (slot < 0) {
        if ((m_warned & kTouchscreenDropped) == 0) {
            m_warned |= kTouchscreenDropped;
            m_pending |= kTouchscreenDropped;
        }
        return;
    }
    TSlot& s = m_slots[slot];
    s.active = true;
    s.contact = contact.id;
    s.since = m_started++;
    m_slotOfContact[contact.id] = static_cast<int8_t>(slot);
    SetAbs(slot, ABS_MT_TRACKING_ID, m_nextTrackingId, &s.trackingId, out);
    m_nextTrackingId = m_nextTrackingId == kTrackingIdMax ? 0 : m_nextTrackingId + 1;
    Place(slot, contact, out);
}

void CTouchscreenSlots::End(int slot, std::vector<TEvdevEvent>* out) {
    TSlot& s = m_slots[slot];
    s.active = false;
    s.ended = true;
    m_slotOfContact[s.contact] = -1;
    SetAbs(slot, ABS_MT_TRACKING_ID, -1, &s.trackingId, out);
}

void CTouchscreenSlots::Finish(size_t start, std::vector<TEvdevEvent>* out) {
    // Single-touch clients follow the oldest touch, as the kernel's own pointer emulation does.
    const TSlot* oldest = nullptr;
    for (int i = 0; i < m_slotCount; ++i) {
        TSlot& s = m_slots[i];
        s.touched = false;
        s.ended = false;
        if (s.active && (oldest == nullptr || s.since < oldest->since)) oldest = &s;
    }
    const bool touching = oldest != nullptr;
    if (touching != m_touching) {
        m_touching = touching;
        out->push_back({EV_KEY, BTN_TOUCH, touching ? 1 : 0});
    }
    if (oldest != nullptr) {
        if (oldest->x != m_pointerX) out->push_back({EV_ABS, ABS_X, m_pointerX = oldest->x});
        if (oldest->y != m_pointerY) out->push_back({EV_ABS, ABS_Y, m_pointerY = oldest->y});
    }
    if (out->size() > start) out->push_back({EV_SYN, SYN_REPORT, 0});
}

void CTouchscreenSlots::Update(const TContactFrame& frame, std::vector<TEvdevEvent>* out) {
    const size_t start = out->size();
    // Retired contacts first: the same id may come back in this frame as a new touch.
    for (const TContact& c : frame.contacts) {
        if (c.retired && m_slotOfContact[c.id] >= 0) End(m_slotOfContact[c.id], out);
    }
    for (const TContact& c : frame.contacts) {
        if (c.retired) continue;
        const int slot = m_slotOfContact[c.id];
        if (c.Ended()) {
            if (slot < 0) continue;
            // A lift carries the final position; any other end does not.
            if (c.status == kContactLifted) Place(slot, c, out);
            End(slot, out);
        } else if (slot < 0) {
            Begin(c, out);
        } else if (!m_slots[slot].touched) {  // a repeated id in one frame counts once
            Place(slot, c, out);
        }
    }
    // A touch missing from the frame has vanished.
    for (int i = 0; i < m_slotCount; ++i) {
        if (m_slots[i].active && !m_slots[i].touched) End(i, out);
    }
    Finish(start, out);
}

void CTouchscreenSlots::LiftAll(std::vector<TEvdevEvent>* out) {
    const size_t start = out->size();
    for (int i = 0; i < m_slotCount; ++i) {
        if (m_slots[i].active) End(i, out);
    }
    Finish(start, out);
}
