// One evdev event as the uinput writers build it: the kernel stamps the time.
#pragma once

#include <cstdint>

struct TEvdevEvent {
    uint16_t type;
    uint16_t code;
    int32_t value;
    bool operator==(const TEvdevEvent&) const = default;
};
