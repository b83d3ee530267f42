// What an emulated frame sends so that the driver, after decoding and calibrating, sees the
// positions a gesture script asks for.
//
// The simulated device reports compact frames with raw extents of 32766 on both axes, and holds
// a configuration with one calibration area across the whole frame (button panels off) that
// maps raw positions one to one, X mirrored: its raw positions run straight across the frame, as
// a real sensor's do, so a calibration written to it behaves as on a real frame. The encoder
// inverts that mapping with tables built from the calibration code itself: a script position
// comes back out of the driver's calibration exactly, but for the lone values the product's
// default mapping skips, which come out at their neighbour as they always have.
#pragma once

#include <cstdint>
#include <vector>

#include "CCalibrateSystem.h"
#include "GestureScript.h"
#include "MtDevConfig.h"
#include "MtDevEmulator.h"

constexpr int16_t kSimRawExtent = 32766;

// The simulated device's configuration: the product defaults, one straight area, no panels.
void SimDevConfig(_HARDWARE_DEV_CONFIG* config);
std::vector<uint8_t> SimConfigBlock();
// The simulated device's calibration as the driver builds it: that configuration, and the
// geometry of `idleFrame` (the first frame the driver reads).
void InitSimCalibration(const TEmuFramePayload& idleFrame, CCalibrateSystem* calibration);

class CSimFrameEncoder {
public:
    CSimFrameEncoder();

    // A compact frame with the contacts in the payload in reverse, so that the decoded list
    // (which puts the last contact of the report first) walks them in the script's order.
    TEmuFramePayload Encode(const std::vector<TScriptContact>& contacts) const;
    // A frame without contacts, with the same extents: the frame that gives the geometry.
    TEmuFramePayload IdleFrame() const;

    // The raw coordinate whose calibrated value is nearest to an output value (clamped to
    // 1..32766).
    uint16_t RawX(int32_t x) const;
    uint16_t RawY(int32_t y) const;

private:
    std::vector<uint16_t> m_rawForX;  // indexed by output value 0..32767
    std::vector<uint16_t> m_rawForY;
};
