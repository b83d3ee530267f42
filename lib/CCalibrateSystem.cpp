#include "CCalibrateSystem.h"

#include <algorithm>
#include <cmath>
#include <new>

using cal32::Add;
using cal32::Div;
using cal32::Mul;
using cal32::Sub;

namespace {

void FreeList(_CAL_COORDINATE_INFO*& head) {
    while (head != nullptr) {
        _CAL_COORDINATE_INFO* next = head->next;
        FreeCoordinateInfo(head);
        head = next;
    }
}

void Push(_CAL_COORDINATE_INFO*& head, _CAL_COORDINATE_INFO* info) {
    info->next = head;
    head = info;
}

void SetCell(_HARDWARE_SDK_POINT* point, uint8_t group, uint8_t id) {
    point->cell[0] = group;
    point->cell[1] = id;
}

// Raw positions are widened with sign: a frame reports a contact just beyond its low edge as
// 0xFFFF, which is -1 there and must not land beyond the opposite edge.
int32_t RawX(const _HARDWARE_SDK_POINT* p) { return static_cast<int16_t>(p->rawX); }
int32_t RawY(const _HARDWARE_SDK_POINT* p) { return static_cast<int16_t>(p->rawY); }

// Float to int32 truncated toward zero, saturating where the value does not fit.
int32_t TruncToInt32(float value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483648.0f) return INT32_MAX;
    if (value < -2147483648.0f) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// One axis of the default mapping, r against the half extent c, with the edge e. The low side
// scales by 16583 and the high side by 16384 from 16383, which leaves a step of 200 at the
// centre. Products wrap as 32-bit values; for an edge so large that they do, the result is
// still held to the HID range.
int32_t DefaultHidAxis(int32_t r, int32_t c, int32_t e) {
    if (c < 1) return r > c ? CAL_HID_MAX : 16383;  // a raw extent of 1 has no halves
    int32_t v;
    if (r < c) {
        const int32_t t = Div(Mul(Add(e, c), Sub(c, r)), c);
        const int32_t d = Sub(c, t);
        v = d <= 0 ? CAL_HID_MIN : Div(Mul(d, 16583), c);
    } else {
        const int32_t t = Div(Mul(Add(e, c), Sub(r, c)), c);
        v = t >= c ? CAL_HID_MAX : Add(Div(Mul(t, 16384), c), 16383);
    }
    return std::clamp(v, CAL_HID_MIN, CAL_HID_MAX);
}

// The same axis as fractions: 0.5 in place of both scales and the centre, 0.0 and 1.0 at the
// edges.
float DefaultFloatAxis(int32_t r, int32_t c, int32_t e) {
    if (c < 1) return r > c ? 1.0f : 0.5f;
    float v;
    if (r < c) {
        const int32_t t = Div(Mul(Add(e, c), Sub(c, r)), c);
        const int32_t d = Sub(c, t);
        v = d <= 0 ? 0.0f : static_cast<float>(d * 0.5 / c);
    } else {
        const int32_t t = Div(Mul(Add(e, c), Sub(r, c)), c);
        v = t >= c ? 1.0f : static_cast<float>(t * 0.5 / c + 0.5);
    }
    return std::clamp(v, 0.0f, 1.0f);
}

}  // namespace

CCalibrateSystem::CCalibrateSystem() = default;

CCalibrateSystem::~CCalibrateSystem() {
    FreeCalibrateSys();
}

void CCalibrateSystem::FreeCalibrateSys() {
    delete[] slots;
    slots = nullptr;
    activeSlots = nullptr;
    FreeList(buttons);
    FreeList(areas);
}

bool CCalibrateSystem::CheckCalRectConfig(const _HCRECT_CONFIG_FILE* area) {
    if (area == nullptr) return false;
    const _HC_RECT32 output = area->outputRect;
    const _HC_RECT32 target = area->targetRect;
    return area->rotation < 4 && output.width >= CAL_MIN_RECT && output.height >= CAL_MIN_RECT &&
           target.width >= CAL_MIN_RECT && target.height >= CAL_MIN_RECT;
}

bool CCalibrateSystem::InitCalibrateSys(const _HARDWARE_DEV_CONFIG* config,
                                        const _CS_CONFIG* geometry) {
    FreeCalibrateSys();
    edge = CAL_EDGE_LOGICAL;
    blend = rawWidth = rawHeight = halfWidth = halfHeight = 0;
    keepOutside = false;
    if (geometry == nullptr) return false;
    if (geometry->logicalWidth < 1 || geometry->logicalHeight < 1 || geometry->rawWidth < 1 ||
        geometry->rawHeight < 1) {
        return false;
    }

    edge = Mul(geometry->rawWidth, CAL_EDGE_LOGICAL) / geometry->logicalWidth;
    blend = Mul(geometry->rawWidth, CAL_BLEND_LOGICAL) / geometry->logicalWidth;
    rawWidth = geometry->rawWidth;
    rawHeight = geometry->rawHeight;
    halfWidth = rawWidth / 2;
    halfHeight = rawHeight / 2;
    keepOutside = true;
    slots = new (std::nothrow) _CAL_POINT_SLOT[CAL_SLOT_COUNT]();
    if (slots == nullptr) return false;

    if (config == nullptr) return true;
    if ((config->flags & DEV_FLAG_KEEP_OUTSIDE) == 0) keepOutside = false;

    // The counts come from the device: never trust them beyond the arrays.
    if ((config->flags & DEV_FLAG_PANELS_ENABLED) != 0) {
        const int count = std::min<int>(config->panelCount, DEV_CONFIG_MAX_PANELS);
        for (int i = 0; i < count; ++i) {
            const _HBRECT_CONFIG_FILE& panel = config->panels[i];
            if (panel.width < CAL_MIN_RECT || panel.height < CAL_MIN_RECT) continue;
            _HCRECT_CONFIG_FILE button{};
            button.id = panel.id;
            button.group = CAL_BUTTON_GROUP;
            button.rotation = 0;
            button.outputRect = {0, 0, panel.width, panel.height};
            button.targetRect = button.outputRect;
            button.center = panel.center;
            button.axisH = panel.axisH;
            button.axisV = panel.axisV;
            // Null for axes shorter than 2 raw units: such a panel is skipped.
            if (_CAL_COORDINATE_INFO* info = InitCoordinateInfo(&button, geometry, 0)) {
                Push(buttons, info);
            }
        }
    }
    if ((config->flags & DEV_FLAG_AREAS_ENABLED) != 0) {
        const int count = std::min<int>(config->areaCount, DEV_CONFIG_MAX_AREAS);
        for (int i = 0; i < count; ++i) {
            const _HCRECT_CONFIG_FILE* area = &config->areas[i];
            if (!CheckCalRectConfig(area)) continue;
            if (_CAL_COORDINATE_INFO* info = InitCoordinateInfo(area, geometry, blend)) {
                Push(areas, info);
            }
        }
    }
    return true;
}

_CAL_COORDINATE_INFO* CCalibrateSystem::UpdateBtnCoords(int x, int y) {
    for (_CAL_COORDINATE_INFO* b = buttons; b != nullptr; b = b->next) {
        TranslateCalCoords(x, y, b);
        if (b->outside < 1) return b;
    }
    return nullptr;
}

_CAL_COORDINATE_INFO* CCalibrateSystem::UpdateCalCoords(int x, int y) {
    const int32_t b = blend;
    _CAL_COORDINATE_INFO* best = nullptr;
    int32_t weight = 0;  // 0: none within the blend width yet; -1: one, not yet summed
    float sumX = 0.0f;
    float sumY = 0.0f;

    for (_CAL_COORDINATE_INFO* a = areas; a != nullptr; a = a->next) {
        TranslateCalCoords(x, y, a);
        const int32_t e = a->outside;
        if (e >= b) {
            if (best == nullptr || e < best->outside) best = a;
            continue;
        }
        if (weight == 0) {
            best = a;
            weight = -1;
            continue;
        }
        if (weight == -1) {
            weight = Sub(b, best->outside);
            sumX = best->x.AsFloat() * static_cast<float>(weight);
            sumY = best->y.AsFloat() * static_cast<float>(weight);
        }
        int32_t w;
        if (e >= 1) {
            w = Sub(b, e);
            sumX += a->x.AsFloat() * static_cast<float>(w);
            sumY += a->y.AsFloat() * static_cast<float>(w);
        } else {
            // An area that holds the point in its core enters with its float slots read as
            // integers. Kept as the blend has always been computed.
            sumX += static_cast<float>(Mul(a->x.AsInt(), b));
            sumY += static_cast<float>(Mul(a->y.AsInt(), b));
            w = b;
        }
        weight = Add(weight, w);
        if (e < best->outside) best = a;
    }

    if (weight > 0) {
        best->x.SetFloat(sumX / static_cast<float>(weight));
        best->y.SetFloat(sumY / static_cast<float>(weight));
        return best;
    }
    if (best == nullptr) return nullptr;
    if (!keepOutside && best->outside >= b) best->outside = -1;
    return best;
}

void CCalibrateSystem::CalFramePoint(_HARDWARE_FRAME_SDK* frame) {
    if (slots == nullptr || frame == nullptr) return;

    _CAL_POINT_SLOT* firstPushed = nullptr;
    for (_HARDWARE_SDK_POINT* p = frame->points; p != nullptr; p = p->next) {
        _CAL_POINT_SLOT* s = &slots[p->id];
        const bool lowStatus = p->status < 2;
        if ((s->state & CAL_SLOT_IN_USE) == 0) {
            s->state = lowStatus ? (CAL_SLOT_IN_USE | CAL_SLOT_LOW_STATUS) : CAL_SLOT_IN_USE;
            s->next = activeSlots;
            activeSlots = s;
            if (firstPushed == nullptr) firstPushed = s;
        } else if (!lowStatus) {
            s->state = static_cast<uint8_t>((s->state & ~CAL_SLOT_LOW_STATUS) | CAL_SLOT_SEEN);
        } else if ((s->state & CAL_SLOT_LOW_STATUS) != 0) {
            s->state |= CAL_SLOT_SEEN;
        } else {
            // The status dropped below 2: the mapping is chosen again.
            s->state = static_cast<uint8_t>((s->state & ~(CAL_SLOT_CHOSEN | CAL_SLOT_BUTTON)) |
                                            CAL_SLOT_LOW_STATUS | CAL_SLOT_SEEN);
        }

        const int x = RawX(p);
        const int y = RawY(p);
        if ((s->state & CAL_SLOT_CHOSEN) == 0) {
            s->state |= CAL_SLOT_CHOSEN;
            if (_CAL_COORDINATE_INFO* button = UpdateBtnCoords(x, y)) {
                s->state |= CAL_SLOT_BUTTON;
                s->info = button;
                SetCell(p, button->group, button->id);
                s->x = button->x.AsFloat();
                s->y = button->y.AsFloat();
                continue;
            }
        } else if ((s->state & CAL_SLOT_BUTTON) != 0 && s->info != nullptr) {
            // A contact keeps its button panel.
            TranslateCalCoords(x, y, s->info);
            SetCell(p, s->info->group, s->info->id);
            s->x = s->info->x.AsFloat();
            s->y = s->info->y.AsFloat();
            continue;
        }

        _CAL_COORDINATE_INFO* area = UpdateCalCoords(x, y);
        s->info = area;
        if (area == nullptr) {
            SetCell(p, 0, 0);
            continue;
        }
        if (area->outside >= 0) {
            SetCell(p, area->group, area->id);
        } else {
            SetCell(p, CAL_CELL_OUTSIDE, CAL_CELL_OUTSIDE);
        }
        s->x = area->x.AsFloat();
        s->y = area->y.AsFloat();
    }

    // Sweep the slots that were in use before this frame (those pushed now sit in front of
    // the first one pushed): a slot not seen is released, a seen one is kept for the next frame.
    _CAL_POINT_SLOT** link = firstPushed != nullptr ? &firstPushed->next : &activeSlots;
    while (*link != nullptr) {
        _CAL_POINT_SLOT* s = *link;
        if ((s->state & CAL_SLOT_SEEN) == 0) {
            *link = s->next;
            s->state = 0;
            s->next = nullptr;
        } else {
            s->state = static_cast<uint8_t>(s->state & ~CAL_SLOT_SEEN);
            link = &s->next;
        }
    }
}

void CCalibrateSystem::ShortAndRotate(_CAL_COORDINATE_INFO* info, bool rotate) {
    GetShortCoords(info);
    if (!rotate) return;
    switch (info->rotation) {
        case 0:
            break;
        case 1:
            RotateCoordsHID_90(info);
            break;
        case 2:
            RotateCoordsHID_180(info);
            break;
        default:
            RotateCoordsHID_270(info);
            break;
    }
}

void CCalibrateSystem::WriteHid(_HARDWARE_FRAME_SDK* frame, bool rotate) {
    if (slots == nullptr || frame == nullptr) return;
    for (_HARDWARE_SDK_POINT* p = frame->points; p != nullptr; p = p->next) {
        const _CAL_POINT_SLOT* s = &slots[p->id];
        _CAL_COORDINATE_INFO* info = s->info;
        if (info == nullptr) {
            DefaultHidCoords(p);
            continue;
        }
        info->x.SetFloat(s->x);
        info->y.SetFloat(s->y);
        ShortAndRotate(info, rotate);
        p->x = info->x.AsInt();
        p->y = info->y.AsInt();

        // Span of the contact's rectangle, through the same mapping.
        const int x0 = RawX(p) - p->rawW / 2;
        const int y0 = RawY(p) - p->rawH / 2;
        const int corners[4][2] = {{x0, y0},
                                   {x0 + p->rawW, y0},
                                   {x0 + p->rawW, y0 + p->rawH},
                                   {x0, y0 + p->rawH}};
        int32_t minX = INT32_MAX, maxX = INT32_MIN, minY = INT32_MAX, maxY = INT32_MIN;
        for (const auto& corner : corners) {
            TranslateCalCoords(corner[0], corner[1], info);
            ShortAndRotate(info, rotate);
            minX = std::min(minX, info->x.AsInt());
            maxX = std::max(maxX, info->x.AsInt());
            minY = std::min(minY, info->y.AsInt());
            maxY = std::max(maxY, info->y.AsInt());
        }
        p->width = maxX - minX;  // HID values: no overflow
        p->height = maxY - minY;
    }
}

void CCalibrateSystem::GetAbsHIDCoords(_HARDWARE_FRAME_SDK* frame) {
    WriteHid(frame, true);
}

void CCalibrateSystem::GetHIDCoords(_HARDWARE_FRAME_SDK* frame) {
    WriteHid(frame, false);
}

void CCalibrateSystem::WriteFloat(_HARDWARE_FRAME_SDK* frame, FloatForm form) {
    if (slots == nullptr || frame == nullptr) return;
    for (_HARDWARE_SDK_POINT* p = frame->points; p != nullptr; p = p->next) {
        const _CAL_POINT_SLOT* s = &slots[p->id];
        _CAL_COORDINATE_INFO* info = s->info;
        if (form == FloatForm::Desktop) {
            if (info == nullptr) {
                p->x = Sub(1366, Div(Mul(RawX(p), 1366), rawWidth));
                p->y = Div(Mul(RawY(p), 768), rawHeight);
            } else {
                p->x = TruncToInt32(s->x);
                p->y = TruncToInt32(s->y);
            }
            continue;
        }
        if (info == nullptr) {
            DefaultFloatCoords(p);
            continue;
        }
        info->x.SetFloat(s->x);
        info->y.SetFloat(s->y);
        GetFloatCoords(info);
        p->x = info->x.AsInt();  // float bit patterns
        p->y = info->y.AsInt();
    }
}

void CCalibrateSystem::GetTuioCoords(_HARDWARE_FRAME_SDK* frame) {
    WriteFloat(frame, FloatForm::Fractions);
}

void CCalibrateSystem::GetFlashCoords(_HARDWARE_FRAME_SDK* frame) {
    WriteFloat(frame, FloatForm::Fractions);
}

void CCalibrateSystem::GetDesktopCoords(_HARDWARE_FRAME_SDK* frame) {
    WriteFloat(frame, FloatForm::Desktop);
}

void CCalibrateSystem::GetSDKCoords(_HARDWARE_FRAME_SDK* frame) {
    if (frame == nullptr) return;
    for (_HARDWARE_SDK_POINT* p = frame->points; p != nullptr; p = p->next) {
        p->x = RawX(p);
        p->y = RawY(p);
        p->z = p->area;
        p->width = p->rawW;
        p->height = p->rawH;
    }
}

void CCalibrateSystem::DefaultHidCoords(_HARDWARE_SDK_POINT* point) const {
    // The X-derived edge serves both axes; X is mirrored.
    point->x = CAL_HID_MIRROR - DefaultHidAxis(RawX(point), halfWidth, edge);
    point->y = DefaultHidAxis(RawY(point), halfHeight, edge);
    point->width = Div(Mul(point->rawW, 32767), rawWidth);
    point->height = Div(Mul(point->rawH, 32767), rawHeight);
}

void CCalibrateSystem::DefaultFloatCoords(_HARDWARE_SDK_POINT* point) const {
    point->x = SdkPointFromFloat(1.0f - DefaultFloatAxis(RawX(point), halfWidth, edge));
    point->y = SdkPointFromFloat(DefaultFloatAxis(RawY(point), halfHeight, edge));
    point->width = Div(Mul(point->rawW, 32767), rawWidth);
    point->height = Div(Mul(point->rawH, 32767), rawHeight);
}

bool CCalibrateSystem::GetWarningBits(uint32_t value) {
    return (value & CAL_WARNING_BIT) == 0;
}
