// A frame across two displays, as the settings tests and benchmarks show it: the frame's own
// configuration with two areas side by side (ids 0 and 1, each half the frame) and a one-key
// button panel (id 2) over the top strip. Header-only, so benchmarks use it too.
#pragma once

#include "MtDevConfig.h"

inline _HARDWARE_DEV_CONFIG TwoAreasAndPanel(const _HARDWARE_DEV_CONFIG& base = {}) {
    _HARDWARE_DEV_CONFIG c = base;
    c.flags |= DEV_FLAG_AREAS_ENABLED | DEV_FLAG_PANELS_ENABLED;
    c.areaCount = 2;
    c.areas[1] = c.areas[0];
    for (int i = 0; i < 2; ++i) {
        c.areas[i].id = static_cast<uint8_t>(i);
        c.areas[i].center = {static_cast<int16_t>(i == 0 ? 24576 : 8192), 16384};
        c.areas[i].axisH = {-8192, 0};
        c.areas[i].axisV = {0, 16384};
    }
    c.panelCount = 1;
    c.panels[0] = {};
    c.panels[0].id = 2;
    c.panels[0].rows = c.panels[0].columns = 1;
    c.panels[0].width = c.panels[0].height = 100;
    c.panels[0].center = {16384, 2048};
    c.panels[0].axisH = {-16384, 0};
    c.panels[0].axisV = {0, 2048};
    return c;
}
