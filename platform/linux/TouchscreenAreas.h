// A frame across several displays as one touchscreen per calibration area: each area's contacts
// only, its rectangle of the frame's output units stretched over the device's whole axes, so
// that a desktop maps each device onto one display.
#pragma once

#include <cstdint>
#include <vector>

#include "CalibrateCoordinate.h"
#include "ContactStream.h"
#include "MtDevConfig.h"

struct TTouchscreenArea {
    int index = 0;  // in the frame's configuration, as the driver names areas ("area 2")
    uint8_t cell[2] = {0, 0};  // the contacts' cell: group and id
    // The output units the area maps onto (its target rectangle, rotated as it is).
    int32_t left = 0, top = 0, right = 0, bottom = 0;
};

// The areas the calibration maps through, in the configuration's order; empty when it maps
// through none (areas turned off, or none usable). An area whose cell an earlier one already
// has is left out: its contacts cannot be told apart.
std::vector<TTouchscreenArea> TouchscreenAreas(const _HARDWARE_DEV_CONFIG& config,
                                               const _CS_CONFIG& geometry);

// The contacts of `frame` in `area`, moved from its rectangle onto the whole axes, into `out`.
void SelectAreaContacts(const TContactFrame& frame, const TTouchscreenArea& area,
                        TContactFrame* out);
