#include "TouchscreenAreas.h"

#include <algorithm>

#include "CCalibrateSystem.h"
#include "TouchscreenSlots.h"

namespace {

// A point of the output rectangle in output units, through the area's rotation, as calibration
// places a contact there.
void ToOutputUnits(const _HCRECT_CONFIG_FILE& area, float x, float y, int32_t* outX,
                   int32_t* outY) {
    _CAL_COORDINATE_INFO info{};
    info.outputRect = area.outputRect;
    info.x.SetFloat(x);
    info.y.SetFloat(y);
    GetShortCoords(&info);
    switch (area.rotation) {
        case 0: break;
        case 1: RotateCoordsHID_90(&info); break;
        case 2: RotateCoordsHID_180(&info); break;
        default: RotateCoordsHID_270(&info); break;
    }
    *outX = info.x.AsInt();
    *outY = info.y.AsInt();
}

int32_t Stretch(int32_t value, int32_t low, int32_t high) {
    const int64_t span = std::max<int64_t>(1, int64_t{high} - low);
    const int64_t moved =
        kTouchAxisMin + (int64_t{value} - low) * (kTouchAxisMax - kTouchAxisMin) / span;
    return static_cast<int32_t>(std::clamp<int64_t>(moved, kTouchAxisMin, kTouchAxisMax));
}

int32_t StretchSize(int32_t value, int32_t low, int32_t high) {
    const int64_t span = std::max<int64_t>(1, int64_t{high} - low);
    return static_cast<int32_t>(
        std::clamp<int64_t>(int64_t{value} * (kTouchAxisMax - kTouchAxisMin) / span, 0,
                            kTouchAxisMax));
}

}  // namespace

std::vector<TTouchscreenArea> TouchscreenAreas(const _HARDWARE_DEV_CONFIG& config,
                                               const _CS_CONFIG& geometry) {
    std::vector<TTouchscreenArea> out;
    if ((config.flags & DEV_FLAG_AREAS_ENABLED) == 0) return out;
    const int count = std::min<int>(config.areaCount, DEV_CONFIG_MAX_AREAS);
    for (int i = 0; i < count; ++i) {
        const _HCRECT_CONFIG_FILE& area = config.areas[i];
        if (!CCalibrateSystem::CheckCalRectConfig(&area)) continue;
        // The calibration leaves out an area it cannot build; so does this.
        _CAL_COORDINATE_INFO* probe = InitCoordinateInfo(&area, &geometry, 0);
        if (probe == nullptr) continue;
        FreeCoordinateInfo(probe);
        const bool taken = std::any_of(out.begin(), out.end(), [&](const TTouchscreenArea& a) {
            return a.cell[0] == area.group && a.cell[1] == area.id;
        });
        if (taken) continue;
        TTouchscreenArea a;
        a.index = i;
        a.cell[0] = area.group;
        a.cell[1] = area.id;
        const _HC_RECT32& t = area.targetRect;
        int32_t x0, y0, x1, y1;
        ToOutputUnits(area, static_cast<float>(t.x), static_cast<float>(t.y), &x0, &y0);
        ToOutputUnits(area, static_cast<float>(t.x) + static_cast<float>(t.width),
                      static_cast<float>(t.y) + static_cast<float>(t.height), &x1, &y1);
        a.left = std::min(x0, x1);
        a.right = std::max(x0, x1);
        a.top = std::min(y0, y1);
        a.bottom = std::max(y0, y1);
        out.push_back(a);
    }
    return out;
}

void SelectAreaContacts(const TContactFrame& frame, const TTouchscreenArea& area,
                        TContactFrame* out) {
    out->device = frame.device;
    out->timeStamp = frame.timeStamp;
    out->points = nullptr;
    out->contacts.clear();
    for (const TContact& c : frame.contacts) {
        if (c.cell[0] != area.cell[0] || c.cell[1] != area.cell[1]) continue;
        TContact moved = c;
        moved.x = Stretch(c.x, area.left, area.right);
        moved.y = Stretch(c.y, area.top, area.bottom);
        moved.width = StretchSize(c.width, area.left, area.right);
        moved.height = StretchSize(c.height, area.top, area.bottom);
        out->contacts.push_back(moved);
    }
}
