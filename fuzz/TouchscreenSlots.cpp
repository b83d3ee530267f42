// Arbitrary contact streams, as a frame's bytes can make them, through the touchscreen's slot
// machine: whatever comes in, every event stays within the device's axes, a report ends with its
// one SYN_REPORT, and the frame's end leaves no touch down. The first byte chooses the slot
// count; then each frame is a count byte and 12 bytes per contact.
#include "TouchscreenSlots.h"

#include <linux/input-event-codes.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

int32_t Read32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return static_cast<int32_t>(v);
}

void Check(const std::vector<TEvdevEvent>& events, int slots) {
    for (size_t i = 0; i < events.size(); ++i) {
        const TEvdevEvent& e = events[i];
        const bool last = i + 1 == events.size();
        if ((e.type == EV_SYN) != last) abort();
        if (e.type == EV_KEY && (e.code != BTN_TOUCH || (e.value != 0 && e.value != 1))) abort();
        if (e.type != EV_ABS) continue;
        switch (e.code) {
            case ABS_MT_SLOT:
                if (e.value < 0 || e.value >= slots) abort();
                break;
            case ABS_MT_TRACKING_ID:
                if (e.value < -1 || e.value > kTrackingIdMax) abort();
                break;
            case ABS_MT_TOUCH_MAJOR:
            case ABS_MT_TOUCH_MINOR:
                if (e.value < 0 || e.value > kTouchAxisMax) abort();
                break;
            default:
                if (e.value < kTouchAxisMin || e.value > kTouchAxisMax) abort();
                break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const int slots = 1 + data[0] % kTouchscreenMaxSlots;
    CTouchscreenSlots machine(slots);
    std::vector<TEvdevEvent> events;
    size_t at = 1;
    while (at < size) {
        const size_t count = data[at++] % 16;
        TContactFrame frame;
        for (size_t k = 0; k < count && at + 12 <= size; ++k, at += 12) {
            TContact c;
            c.id = data[at];
            c.status = data[at + 1] & 0x7F;
            c.retired = (data[at + 1] & 0x80) != 0;
            c.hasSize = (data[at + 2] & 1) != 0;
            c.x = Read32(data + at + 3);
            c.y = Read32(data + at + 7);
            c.width = static_cast<int8_t>(data[at + 11]) * 300;
            c.height = static_cast<int8_t>(data[at + 2]) * 300;
            frame.contacts.push_back(c);
        }
        events.clear();
        machine.Update(frame, &events);
        Check(events, slots);
        if (machine.ActiveTouches() > slots) abort();
    }
    events.clear();
    machine.LiftAll(&events);
    Check(events, slots);
    if (machine.ActiveTouches() != 0) abort();
    return 0;
}
