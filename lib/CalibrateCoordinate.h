// Calibration grid and coordinate translation: the arithmetic of one calibration area.
//
// An area is a cross of two axes measured on the frame: a centre and two half-axis vectors.
// The signed distance of a touch from the vertical axis gives its output X, the distance from
// the horizontal axis its output Y; each half of each axis has its own scale, so the two sides
// of the centre may stretch differently. Button panels use the same machinery.
//
// Units along the way: raw frame units -> normalised units (32767 = full raw extent) for the
// area's centre and axes -> output units of the area's rectangles (float) -> HID units 1..32766.
//
// Integer arithmetic is 32-bit with truncating division; products are deliberately not widened
// and wrap as 32-bit values (the cal32 helpers below do that without signed overflow).
#pragma once

#include <bit>
#include <cstdint>
#include <limits>

#include "MtDevConfig.h"

static_assert(std::numeric_limits<float>::is_iec559 && sizeof(float) == 4,
              "the translation slots hold IEEE single-precision values");

// 32-bit two's-complement arithmetic that wraps instead of overflowing.
namespace cal32 {

inline int32_t Add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t Sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
inline int32_t Mul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
inline int32_t Neg(int32_t a) {
    return static_cast<int32_t>(0u - static_cast<uint32_t>(a));
}
// Truncating division. INT32_MIN / -1 wraps to INT32_MIN instead of trapping; a zero divisor
// gives 0 (callers keep zero divisors away; this only makes the function total).
inline int32_t Div(int32_t a, int32_t b) {
    if (b == 0) return 0;
    if (b == -1) return Neg(a);
    return a / b;
}

}  // namespace cal32

// Frame geometry: the extents of the first good frame.
struct _CS_CONFIG {
    int32_t logicalWidth;
    int32_t logicalHeight;
    int32_t rawWidth;   // widened with sign from the frame's 16-bit value
    int32_t rawHeight;
};

// One 32-bit slot that holds either a float or an int32, depending on the last step applied
// (a float after TranslateCalCoords, an int32 after GetShortCoords). Reading it "the other way"
// reinterprets the bit pattern, which one step of the area blending does on purpose.
struct _CAL_SLOT32 {
    uint32_t bits;

    float AsFloat() const { return std::bit_cast<float>(bits); }
    int32_t AsInt() const { return std::bit_cast<int32_t>(bits); }
    void SetFloat(float value) { bits = std::bit_cast<uint32_t>(value); }
    void SetInt(int32_t value) { bits = std::bit_cast<uint32_t>(value); }
};
static_assert(sizeof(_CAL_SLOT32) == 4);

// Translation state of one calibration area or button panel.
struct _CAL_COORDINATE_INFO {
    int32_t outside;     // how far the last point lies beyond the core; -1 marks "outside all"
    _CAL_SLOT32 x;       // output X: float after translation, HID int32 after GetShortCoords
    _CAL_SLOT32 y;       // output Y, same rules
    uint8_t group;       // area byte 10; 255 for a button panel
    uint8_t rotation;    // 0..3: none, 90, 180, 270 degrees
    uint8_t id;          // area byte 9
    int32_t centerX;     // output centre
    int32_t centerY;
    int32_t scaleMinusX; // output distance from the centre to each edge, edge adjustment included
    int32_t scalePlusX;
    int32_t scalePlusY;
    int32_t scaleMinusY;
    _HC_RECT32 outputRect;  // HID normalisation (GetShortCoords)
    _HC_RECT32 floatRect;   // fraction normalisation (GetFloatCoords), same values
    int32_t lineHOriginX;   // horizontal axis: start and full vector, raw units
    int32_t lineHOriginY;
    int32_t lineHDirX;
    int32_t lineHDirY;
    int32_t lineVOriginX;   // vertical axis
    int32_t lineVOriginY;
    int32_t lineVDirX;
    int32_t lineVDirY;
    int32_t lengthH;        // signed axis lengths; the sign orients the distances
    int32_t lengthV;
    int32_t halfH;          // half the unsigned lengths
    int32_t halfV;
    int32_t coreH;          // halves less half the margin
    int32_t coreV;
    _CAL_COORDINATE_INFO* next;  // owner's list
};

constexpr int32_t CAL_HID_MIN = 1;
constexpr int32_t CAL_HID_MAX = 32766;
constexpr int32_t CAL_HID_MIRROR = 32767;
constexpr int32_t CAL_NORMALISED_FULL = 32767;  // normalised units of a full raw extent

// Rounded integer square root. The first bit pair is seeded as root = bit 31 and
// remainder = pair - bit 31, so values 2^30 .. 2^31-1 come out near 32768; ties keep the
// truncated root, and a square that wraps past 2^32 is compared as it wraps (2^32-1 gives 65535).
uint32_t SqrtInt(uint32_t value);

// Builds the state of one area (zero-filled, on the heap; release with FreeCoordinateInfo).
// margin is in raw units. Returns null, instead of reaching a division by zero, when the area
// cannot be translated: a geometry value below 1, or an axis shorter than 2 raw units
// (halfH or halfV of 0). Also null when the allocation fails.
_CAL_COORDINATE_INFO* InitCoordinateInfo(const _HCRECT_CONFIG_FILE* area, const _CS_CONFIG* geometry,
                                         int margin);

// Releases one state; null is ignored; next is not followed.
void FreeCoordinateInfo(_CAL_COORDINATE_INFO* info);

// Translates one raw point; results in info: outside, and x, y as floats in output units.
void TranslateCalCoords(int x, int y, _CAL_COORDINATE_INFO* info);

// Float x, y (output units) -> HID units 1..32766 in place, against outputRect.
void GetShortCoords(_CAL_COORDINATE_INFO* info);

// Float x, y (output units) -> fractions 0.0..1.0 in place, against floatRect. A y at or before
// the rectangle's start zeroes x and leaves y as it was (kept that way on purpose).
void GetFloatCoords(_CAL_COORDINATE_INFO* info);

// Rotations of HID x, y in place, mirrored against 32767.
void RotateCoordsHID_90(_CAL_COORDINATE_INFO* info);   // (y, 32767 - x)
void RotateCoordsHID_180(_CAL_COORDINATE_INFO* info);  // (32767 - x, 32767 - y)
void RotateCoordsHID_270(_CAL_COORDINATE_INFO* info);  // (32767 - y, x)
