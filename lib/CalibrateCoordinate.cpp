#include "CalibrateCoordinate.h"

#include <new>

using cal32::Add;
using cal32::Div;
using cal32::Mul;
using cal32::Neg;
using cal32::Sub;

uint32_t SqrtInt(uint32_t value) {
    if (value == 0) return 0;

    // Digit by digit, two bits at a time. The top pair is seeded from bit 31 alone: a top pair
    // of 01 leaves a remainder of 1 under a root digit of 0, which the later steps never make
    // good. Values from 2^30 to 2^31 - 1 therefore come out near 32768; the callers' axis
    // lengths have always been computed this way.
    const uint32_t top = value >> 31;
    uint32_t root = top;
    uint32_t remainder = (value >> 30) - top;
    for (int shift = 28; shift >= 0; shift -= 2) {
        const uint32_t pair = (value >> shift) & 3u;
        const uint32_t trial = 4u * root + 1u;
        remainder = 4u * remainder + pair;
        if (trial <= remainder) {
            remainder -= trial;
            root = 2u * root + 1u;
        } else {
            root = 2u * root;
        }
    }

    // Round to the nearer neighbour; squares are 32-bit, so 65536^2 wraps to 0 and 2^32 - 1
    // stays at 65535.
    const auto distance = [](uint32_t a, uint32_t b) { return a > b ? a - b : b - a; };
    const uint32_t r = root;
    const uint32_t square = r * r;
    if (square <= value) {
        const uint32_t up = (r + 1u) * (r + 1u);
        return distance(up, value) < value - square ? r + 1u : r;
    }
    const uint32_t down = (r - 1u) * (r - 1u);
    return distance(down, value) < square - value ? r - 1u : r;
}

namespace {

// Normalised units (32767 = full raw extent) to raw units.
int32_t ToRaw(int32_t normalised, int32_t extent) {
    return Div(Mul(normalised, extent), CAL_NORMALISED_FULL);
}

// Unsigned length of a vector; the sum of squares is 32-bit and may wrap.
int32_t VectorLength(int32_t dx, int32_t dy) {
    const uint32_t ux = static_cast<uint32_t>(dx);
    const uint32_t uy = static_cast<uint32_t>(dy);
    return static_cast<int32_t>(SqrtInt(ux * ux + uy * uy));
}

// Output distance from the centre to one edge: the half side, stretched by the edge
// adjustment (logical units) seen from the axis half (raw units). Two truncating divisions.
int32_t SideScale(int8_t adjust, int32_t extent, int32_t half, int32_t logical, int32_t axisHalf) {
    return Add(Div(Div(Mul(adjust, Mul(extent, half)), logical), axisHalf), half);
}

}  // namespace

_CAL_COORDINATE_INFO* InitCoordinateInfo(const _HCRECT_CONFIG_FILE* area, const _CS_CONFIG* geometry,
                                         int margin) {
    if (area == nullptr || geometry == nullptr) return nullptr;
    const int32_t w = geometry->rawWidth;
    const int32_t h = geometry->rawHeight;
    if (geometry->logicalWidth < 1 || geometry->logicalHeight < 1 || w < 1 || h < 1) return nullptr;

    const int32_t cx = area->center.x;
    const int32_t cy = area->center.y;
    const int32_t hx = area->axisH.x;
    const int32_t hy = area->axisH.y;
    const int32_t vx = area->axisV.x;
    const int32_t vy = area->axisV.y;

    const int32_t lineHOriginX = ToRaw(cx - hx, w);
    const int32_t lineHOriginY = ToRaw(cy - hy, h);
    const int32_t lineHDirX = ToRaw(2 * hx, w);
    const int32_t lineHDirY = ToRaw(2 * hy, h);
    const int32_t lineVOriginX = ToRaw(cx - vx, w);
    const int32_t lineVOriginY = ToRaw(cy - vy, h);
    const int32_t lineVDirX = ToRaw(2 * vx, w);
    const int32_t lineVDirY = ToRaw(2 * vy, h);

    int32_t lengthH = VectorLength(lineHDirX, lineHDirY);
    int32_t lengthV = VectorLength(lineVDirX, lineVDirY);
    const int32_t halfH = lengthH / 2;
    const int32_t halfV = lengthV / 2;
    // An axis shorter than 2 raw units would divide by zero in every translation.
    if (halfH < 1 || halfV < 1) return nullptr;

    auto* info = new (std::nothrow) _CAL_COORDINATE_INFO{};
    if (info == nullptr) return nullptr;

    info->lineHOriginX = lineHOriginX;
    info->lineHOriginY = lineHOriginY;
    info->lineHDirX = lineHDirX;
    info->lineHDirY = lineHDirY;
    info->lineVOriginX = lineVOriginX;
    info->lineVOriginY = lineVOriginY;
    info->lineVDirX = lineVDirX;
    info->lineVDirY = lineVDirY;
    info->halfH = halfH;
    info->halfV = halfV;
    info->coreH = Sub(halfH, margin / 2);
    info->coreV = Sub(halfV, margin / 2);

    // Orient the axes: the start of the vertical axis lies on the minus-Y side of the
    // horizontal axis, the start of the horizontal axis on the minus-X side of the vertical one.
    if (Mul(Sub(lineVOriginY, lineHOriginY), lineHDirX) >
        Mul(Sub(lineVOriginX, lineHOriginX), lineHDirY)) {
        lengthH = -lengthH;
    }
    if (Mul(Sub(lineHOriginY, lineVOriginY), lineVDirX) <
        Mul(Sub(lineHOriginX, lineVOriginX), lineVDirY)) {
        lengthV = -lengthV;
    }
    info->lengthH = lengthH;
    info->lengthV = lengthV;

    const _HC_RECT32 target = area->targetRect;
    const int32_t hw = target.width / 2;
    const int32_t hh = target.height / 2;
    info->centerX = Add(target.x, hw);
    info->centerY = Add(target.y, hh);

    const int8_t* adjust = area->edgeAdjust;
    const int32_t lw = geometry->logicalWidth;
    const int32_t lh = geometry->logicalHeight;
    info->scaleMinusX = SideScale(adjust[EDGE_MINUS_X], w, hw, lw, halfH);
    info->scalePlusX = SideScale(adjust[EDGE_PLUS_X], w, hw, lw, halfH);
    info->scalePlusY = SideScale(adjust[EDGE_PLUS_Y], h, hh, lh, halfV);
    info->scaleMinusY = SideScale(adjust[EDGE_MINUS_Y], h, hh, lh, halfV);

    info->group = area->group;
    info->rotation = area->rotation;
    info->id = area->id;
    info->outputRect = area->outputRect;
    info->floatRect = area->outputRect;
    info->outside = 0;
    info->next = nullptr;
    return info;
}

void FreeCoordinateInfo(_CAL_COORDINATE_INFO* info) {
    delete info;
}

void TranslateCalCoords(int x, int y, _CAL_COORDINATE_INFO* info) {
    // Signed distance from the vertical axis: output X.
    const int32_t dV = Div(Sub(Mul(Sub(y, info->lineVOriginY), info->lineVDirX),
                               Mul(Sub(x, info->lineVOriginX), info->lineVDirY)),
                           info->lengthV);
    const float halfH = static_cast<float>(info->halfH);
    int32_t excess = 0;
    if (dV >= 0) {
        info->x.SetFloat(static_cast<float>(info->centerX) -
                         static_cast<float>(Mul(info->scaleMinusX, dV)) / halfH);
        if (dV > info->coreH) excess = Sub(dV, info->coreH);
    } else {
        const int32_t n = Neg(dV);
        info->x.SetFloat(static_cast<float>(Mul(info->scalePlusX, n)) / halfH +
                         static_cast<float>(info->centerX));
        if (n > info->coreH) excess = Sub(n, info->coreH);
    }
    info->outside = excess;

    // Signed distance from the horizontal axis: output Y.
    const int32_t dH = Div(Sub(Mul(Sub(y, info->lineHOriginY), info->lineHDirX),
                               Mul(Sub(x, info->lineHOriginX), info->lineHDirY)),
                           info->lengthH);
    const float halfV = static_cast<float>(info->halfV);
    if (dH >= 0) {
        info->y.SetFloat(static_cast<float>(Mul(info->scalePlusY, dH)) / halfV +
                         static_cast<float>(info->centerY));
        if (dH > info->coreV) info->outside = Add(excess, Sub(dH, info->coreV));
    } else {
        const int32_t n = Neg(dH);
        info->y.SetFloat(static_cast<float>(info->centerY) -
                         static_cast<float>(Mul(info->scaleMinusY, n)) / halfV);
        // The minus-Y side is measured against the full half axis: the margin is not applied
        // on this one side.
        if (n > info->halfV) info->outside = Add(excess, Sub(n, info->halfV));
    }
}

namespace {

// One axis of GetShortCoords: 1 at or before the start, 32766 at or beyond the end.
int32_t ShortAxis(float value, int32_t start, int32_t width) {
    const float first = static_cast<float>(start);
    if (value <= first) return CAL_HID_MIN;
    value -= first;
    const float extent = static_cast<float>(width);
    if (value >= extent) return CAL_HID_MAX;
    const float scaled = value * 32767.0f / extent;
    if (!(scaled >= 1.0f)) return CAL_HID_MIN;  // also a NaN, which no translation produces
    if (scaled > static_cast<float>(CAL_HID_MAX)) return CAL_HID_MAX;
    return static_cast<int32_t>(scaled);
}

// One axis of GetFloatCoords, for a value after the start.
float FractionAxis(float value, int32_t start, int32_t width) {
    value -= static_cast<float>(start);
    const float extent = static_cast<float>(width);
    return value >= extent ? 1.0f : value / extent;
}

}  // namespace

void GetShortCoords(_CAL_COORDINATE_INFO* info) {
    const _HC_RECT32& r = info->outputRect;
    info->x.SetInt(ShortAxis(info->x.AsFloat(), r.x, r.width));
    info->y.SetInt(ShortAxis(info->y.AsFloat(), r.y, r.height));
}

void GetFloatCoords(_CAL_COORDINATE_INFO* info) {
    const _HC_RECT32& r = info->floatRect;
    const float x = info->x.AsFloat();
    if (x <= static_cast<float>(r.x)) {
        info->x.SetFloat(0.0f);
    } else {
        info->x.SetFloat(FractionAxis(x, r.x, r.width));
    }
    const float y = info->y.AsFloat();
    if (y <= static_cast<float>(r.y)) {
        info->x.SetFloat(0.0f);  // x, not y: y keeps its value in output units
    } else {
        info->y.SetFloat(FractionAxis(y, r.y, r.height));
    }
}

void RotateCoordsHID_90(_CAL_COORDINATE_INFO* info) {
    const int32_t x = info->x.AsInt();
    const int32_t y = info->y.AsInt();
    info->x.SetInt(y);
    info->y.SetInt(Sub(CAL_HID_MIRROR, x));
}

void RotateCoordsHID_180(_CAL_COORDINATE_INFO* info) {
    info->x.SetInt(Sub(CAL_HID_MIRROR, info->x.AsInt()));
    info->y.SetInt(Sub(CAL_HID_MIRROR, info->y.AsInt()));
}

void RotateCoordsHID_270(_CAL_COORDINATE_INFO* info) {
    const int32_t x = info->x.AsInt();
    const int32_t y = info->y.AsInt();
    info->x.SetInt(Sub(CAL_HID_MIRROR, y));
    info->y.SetInt(x);
}
