// The per-device calibration object: chooses, per contact, the button panel or the calibration
// areas that map it (CalFramePoint) and writes the contacts' output coordinates in one of
// several forms; the worker uses the absolute HID form (GetAbsHIDCoords).
//
// Use: after the first good frame, InitCalibrateSys(config, geometry); then for every frame
// CalFramePoint(frame) followed at once by GetAbsHIDCoords(frame). One object per device, used
// by that device's worker thread only.
#pragma once

#include <bit>
#include <cstdint>

#include "CalibrateCoordinate.h"
#include "MtDevConfig.h"
#include "MtDevFrame.h"

constexpr int CAL_SLOT_COUNT = 256;  // one slot per contact id

// Contact slot state bits.
constexpr uint8_t CAL_SLOT_SEEN = 0x01;        // seen in this frame
constexpr uint8_t CAL_SLOT_LOW_STATUS = 0x02;  // seen with a status below 2
constexpr uint8_t CAL_SLOT_IN_USE = 0x04;
constexpr uint8_t CAL_SLOT_CHOSEN = 0x10;      // mapping chosen
constexpr uint8_t CAL_SLOT_BUTTON = 0x20;      // mapped by a button panel

constexpr int32_t CAL_EDGE_LOGICAL = 15;    // edge of the default mapping, logical units
constexpr int32_t CAL_BLEND_LOGICAL = 177;  // blend width of calibration areas, logical units
constexpr uint8_t CAL_BUTTON_GROUP = 0xFF;  // cell group of a contact taken by a button panel
constexpr uint8_t CAL_CELL_OUTSIDE = 0xFF;  // cell of a contact outside every area, not kept
constexpr int32_t CAL_MIN_RECT = 50;        // smallest usable rectangle side
constexpr uint32_t CAL_WARNING_BIT = 0x20000;

// Per-contact state, indexed by the contact id.
struct _CAL_POINT_SLOT {
    float x;                     // calibrated output position (output units)
    float y;
    uint8_t state;               // CAL_SLOT_* bits
    _CAL_COORDINATE_INFO* info;  // chosen mapping, or null
    _CAL_POINT_SLOT* next;       // next slot in use
};

// The float output forms store IEEE single-precision bit patterns in the contact's int32 x, y.
inline float SdkPointFloat(int32_t slot) { return std::bit_cast<float>(slot); }
inline int32_t SdkPointFromFloat(float value) { return std::bit_cast<int32_t>(value); }

class CCalibrateSystem {
public:
    CCalibrateSystem();
    ~CCalibrateSystem();

    CCalibrateSystem(const CCalibrateSystem&) = delete;
    CCalibrateSystem& operator=(const CCalibrateSystem&) = delete;

    // Releases the slots and every button and area, leaving empty lists.
    void FreeCalibrateSys();

    // Builds the object from the device configuration (null: no areas, no panels) and the frame
    // geometry. False when a geometry value is below 1 (or the slots cannot be allocated): the
    // object then has no slots and ignores frames.
    bool InitCalibrateSys(const _HARDWARE_DEV_CONFIG* config, const _CS_CONFIG* geometry);

    // rotation below 4, both rectangles at least 50 wide and high.
    static bool CheckCalRectConfig(const _HCRECT_CONFIG_FILE* area);

    // Chooses and applies the mapping of every contact of the frame.
    void CalFramePoint(_HARDWARE_FRAME_SDK* frame);

    // Output forms; each is called right after CalFramePoint on the same frame.
    void GetAbsHIDCoords(_HARDWARE_FRAME_SDK* frame);   // HID 1..32766, rotated per area
    void GetHIDCoords(_HARDWARE_FRAME_SDK* frame);      // HID 1..32766, no rotation
    void GetTuioCoords(_HARDWARE_FRAME_SDK* frame);     // float fractions in x, y
    void GetFlashCoords(_HARDWARE_FRAME_SDK* frame);    // as GetTuioCoords
    void GetDesktopCoords(_HARDWARE_FRAME_SDK* frame);  // output units as int32
    // The device's own units: x, y = rawX, rawY widened with sign; width, height = rawW, rawH;
    // z = area.
    void GetSDKCoords(_HARDWARE_FRAME_SDK* frame);

    // Mapping of one raw point through the areas (blended) or the first button panel that
    // holds it; null when there is none.
    _CAL_COORDINATE_INFO* UpdateCalCoords(int x, int y);
    _CAL_COORDINATE_INFO* UpdateBtnCoords(int x, int y);

    // Output of a contact without a mapping: HID units, or float fractions.
    void DefaultHidCoords(_HARDWARE_SDK_POINT* point) const;
    void DefaultFloatCoords(_HARDWARE_SDK_POINT* point) const;

    // True exactly when bit 17 (0x20000) of value is clear.
    static bool GetWarningBits(uint32_t value);

    // Read access for diagnostics and tests.
    int32_t Edge() const { return edge; }
    int32_t Blend() const { return blend; }
    int32_t RawWidth() const { return rawWidth; }
    int32_t RawHeight() const { return rawHeight; }
    int32_t HalfWidth() const { return halfWidth; }
    int32_t HalfHeight() const { return halfHeight; }
    bool KeepOutside() const { return keepOutside; }
    const _CAL_POINT_SLOT* ActiveSlots() const { return activeSlots; }
    const _CAL_POINT_SLOT* Slot(uint8_t id) const { return slots ? &slots[id] : nullptr; }
    const _CAL_COORDINATE_INFO* Buttons() const { return buttons; }
    const _CAL_COORDINATE_INFO* Areas() const { return areas; }

private:
    enum class FloatForm { Fractions, Desktop };

    void WriteHid(_HARDWARE_FRAME_SDK* frame, bool rotate);
    void WriteFloat(_HARDWARE_FRAME_SDK* frame, FloatForm form);
    static void ShortAndRotate(_CAL_COORDINATE_INFO* info, bool rotate);

    int32_t edge = 0;        // 15 logical units in raw X units
    int32_t blend = 0;       // 177 logical units in raw X units
    int32_t rawWidth = 0;
    int32_t rawHeight = 0;
    int32_t halfWidth = 0;
    int32_t halfHeight = 0;
    bool keepOutside = false;
    _CAL_POINT_SLOT* activeSlots = nullptr;
    _CAL_POINT_SLOT* slots = nullptr;  // CAL_SLOT_COUNT entries
    _CAL_COORDINATE_INFO* buttons = nullptr;
    _CAL_COORDINATE_INFO* areas = nullptr;
};
