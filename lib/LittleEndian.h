// Little-endian byte helpers for wire packets, frame reports and configuration blocks.
// Byte by byte, so they hold on any host and at any alignment; bounds are the caller's.
#pragma once

#include <cstdint>

inline uint16_t ReadLeU16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

inline int16_t ReadLeI16(const uint8_t* p) {
    return static_cast<int16_t>(ReadLeU16(p));
}

inline uint32_t ReadLeU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline void WriteLeU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void WriteLeU32(uint8_t* p, uint32_t v) {
    WriteLeU16(p, static_cast<uint16_t>(v));
    WriteLeU16(p + 2, static_cast<uint16_t>(v >> 16));
}
