#include "AreaFit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>

namespace {

struct TAreaDeleter {
    void operator()(_CAL_COORDINATE_INFO* info) const { FreeCoordinateInfo(info); }
};

int16_t ToInt16(double v) {
    return static_cast<int16_t>(std::clamp(std::lround(v), -32768L, 32767L));
}

int8_t ToInt8(double v) { return static_cast<int8_t>(std::clamp(std::lround(v), -128L, 127L)); }

// What the search moves: every integer of the area that the translation reads.
enum TParam {
    kCenterX, kCenterY, kAxisHX, kAxisHY, kAxisVX, kAxisVY,  // normalised units
    kOutCenterX, kOutCenterY, kHalfWidth, kHalfHeight,       // target rectangle, output units
    kEdgeMinusX, kEdgePlusX, kEdgeMinusY, kEdgePlusY,        // logical units
    kParamCount
};
using TParams = std::array<int32_t, kParamCount>;

_HCRECT_CONFIG_FILE AreaOf(const TParams& p, const _HCRECT_CONFIG_FILE& base,
                           const _HC_RECT32& outputRect) {
    _HCRECT_CONFIG_FILE area = base;
    area.rotation = 0;
    area.center = {ToInt16(p[kCenterX]), ToInt16(p[kCenterY])};
    area.axisH = {ToInt16(p[kAxisHX]), ToInt16(p[kAxisHY])};
    area.axisV = {ToInt16(p[kAxisVX]), ToInt16(p[kAxisVY])};
    area.outputRect = outputRect;
    area.targetRect = {p[kOutCenterX] - p[kHalfWidth], p[kOutCenterY] - p[kHalfHeight],
                       2 * p[kHalfWidth], 2 * p[kHalfHeight]};
    for (int i = 0; i < 4; ++i) area.edgeAdjust[i] = ToInt8(p[kEdgeMinusX + i]);
    return area;
}

// Sum of the squared distances (pixels) of the mapped touches from their targets.
double Cost(const _HCRECT_CONFIG_FILE& area, const TAreaFitInput& in) {
    double sum = 0.0;
    for (const TTargetTouch& t : in.touches) {
        const auto at = MapThroughArea(area, in.geometry, in.screenWidth, in.screenHeight, t.raw);
        if (!at) return std::numeric_limits<double>::infinity();
        sum += (at->x - t.screen.x) * (at->x - t.screen.x) +
               (at->y - t.screen.y) * (at->y - t.screen.y);
    }
    return sum;
}

// The continuous picture of the touches: output = centre + per side scale times the distance
// along a direction, for each axis.
struct TAxisModel {
    TPointD normal;      // unit vector in raw units; output grows along it
    double minus = 0.0;  // pixels per raw unit on either side of the centre
    double plus = 0.0;
};

TAxisModel SideScales(const TPointD& row, const std::vector<TPointD>& rel,
                      const std::vector<double>& out) {
    TAxisModel m;
    const double length = std::hypot(row.x, row.y);
    m.normal = {row.x / length, row.y / length};
    double num[2] = {0, 0}, den[2] = {0, 0};
    for (size_t i = 0; i < rel.size(); ++i) {
        const double u = m.normal.x * rel[i].x + m.normal.y * rel[i].y;
        const int side = u < 0 ? 0 : 1;
        num[side] += out[i] * u;
        den[side] += u * u;
    }
    m.minus = den[0] > 0 ? num[0] / den[0] : length;
    m.plus = den[1] > 0 ? num[1] / den[1] : length;
    return m;
}

}  // namespace

std::optional<TPointD> MapThroughArea(const _HCRECT_CONFIG_FILE& area, const _CS_CONFIG& geometry,
                                      int screenWidth, int screenHeight, TPointD raw) {
    std::unique_ptr<_CAL_COORDINATE_INFO, TAreaDeleter> info(
        InitCoordinateInfo(&area, &geometry, 0));
    if (!info) return std::nullopt;
    TranslateCalCoords(static_cast<int>(std::lround(raw.x)), static_cast<int>(std::lround(raw.y)),
                       info.get());
    GetShortCoords(info.get());
    switch (area.rotation) {
        case 0: break;
        case 1: RotateCoordsHID_90(info.get()); break;
        case 2: RotateCoordsHID_180(info.get()); break;
        default: RotateCoordsHID_270(info.get()); break;
    }
    return TPointD{info->x.AsInt() * static_cast<double>(screenWidth) / 32767.0,
                   info->y.AsInt() * static_cast<double>(screenHeight) / 32767.0};
}

std::optional<TAreaFit> FitArea(const TAreaFitInput& in, std::string* error) {
    const auto fail = [&](const char* why) -> std::optional<TAreaFit> {
        if (error != nullptr) *error = why;
        return std::nullopt;
    };
    const _CS_CONFIG& g = in.geometry;
    if (g.logicalWidth < 1 || g.logicalHeight < 1 || g.rawWidth < 2 || g.rawHeight < 2) {
        return fail("the frame's geometry is not known yet");
    }
    if (in.screenWidth < 1 || in.screenHeight < 1) return fail("the screen has no size");
    if (in.touches.size() < 4 || in.centreIndex < 0 ||
        static_cast<size_t>(in.centreIndex) >= in.touches.size()) {
        return fail("too few touches to calibrate");
    }

    // Touches relative to the centre's, and targets relative to the centre target.
    const TTargetTouch& centre = in.touches[in.centreIndex];
    std::vector<TPointD> rel, out;
    const double extent = std::max(g.rawWidth, g.rawHeight);
    for (const TTargetTouch& t : in.touches) {
        for (const TTargetTouch& u : in.touches) {
            if (&t < &u && std::hypot(t.raw.x - u.raw.x, t.raw.y - u.raw.y) < 0.01 * extent) {
                return fail("two touches fell on the same place: touch each target where it is");
            }
        }
        rel.push_back({t.raw.x - centre.raw.x, t.raw.y - centre.raw.y});
        out.push_back({t.screen.x - centre.screen.x, t.screen.y - centre.screen.y});
    }
    // Least squares out = A rel: A = (sum out rel^T) (sum rel rel^T)^-1.
    double sxx = 0, sxy = 0, syy = 0, ox[2] = {0, 0}, oy[2] = {0, 0};
    for (size_t i = 0; i < rel.size(); ++i) {
        sxx += rel[i].x * rel[i].x;
        sxy += rel[i].x * rel[i].y;
        syy += rel[i].y * rel[i].y;
        ox[0] += out[i].x * rel[i].x;
        ox[1] += out[i].x * rel[i].y;
        oy[0] += out[i].y * rel[i].x;
        oy[1] += out[i].y * rel[i].y;
    }
    const double det = sxx * syy - sxy * sxy;
    // In a line: the spread across the main direction is tiny against the spread along it.
    if (det <= 1e-4 * (sxx + syy) * (sxx + syy)) {
        return fail("the touches lie in a line: touch each target where it is");
    }
    const TPointD rowX{(ox[0] * syy - ox[1] * sxy) / det, (ox[1] * sxx - ox[0] * sxy) / det};
    const TPointD rowY{(oy[0] * syy - oy[1] * sxy) / det, (oy[1] * sxx - oy[0] * sxy) / det};
    if (std::abs(rowX.x * rowY.y - rowX.y * rowY.x) < 1e-12) {
        return fail("the touches do not span the screen: touch each target where it is");
    }
    std::vector<double> outX, outY;
    for (const TPointD& o : out) {
        outX.push_back(o.x);
        outY.push_back(o.y);
    }
    const TAxisModel mx = SideScales(rowX, rel, outX);
    const TAxisModel my = SideScales(rowY, rel, outY);
    if (mx.minus <= 0 || mx.plus <= 0 || my.minus <= 0 || my.plus <= 0) {
        return fail("the touches are not in the order of the targets: touch each target in turn");
    }
    // The vertical axis runs across the X normal, towards output Y; the horizontal one across
    // the Y normal, towards output X.
    TPointD dirV{-mx.normal.y, mx.normal.x};
    if (dirV.x * my.normal.x + dirV.y * my.normal.y < 0) dirV = {-dirV.x, -dirV.y};
    TPointD dirH{-my.normal.y, my.normal.x};
    if (dirH.x * mx.normal.x + dirH.y * mx.normal.y < 0) dirH = {-dirH.x, -dirH.y};

    const double toNormX = 32767.0 / g.rawWidth, toNormY = 32767.0 / g.rawHeight;
    TAreaFit best;
    double bestCost = std::numeric_limits<double>::infinity();
    // The record's integers are coarse: the side scales are whole output units and the edge
    // adjustments whole logical units, multiplied in 32 bits. Several axis lengths (and output
    // units per pixel to match) are tried, each refined through the translation itself.
    constexpr std::array kAxisHalves{362.0, 512.0, 724.0, 1024.0, 1448.0, 2048.0, 2896.0, 4096.0};
    constexpr std::array kHalfScales{1800.0, 2400.0, 3000.0, 3600.0, 4800.0, 6000.0, 8000.0};
    for (size_t trial = 0; trial < kAxisHalves.size() * kHalfScales.size(); ++trial) {
        const double axisHalf = kAxisHalves[trial % kAxisHalves.size()];
        const double halfScale = kHalfScales[trial / kAxisHalves.size()];
        const double scaleX = halfScale / ((mx.minus + mx.plus) / 2 * axisHalf);
        const double scaleY = halfScale / ((my.minus + my.plus) / 2 * axisHalf);
        const _HC_RECT32 outputRect{0, 0,
                                    static_cast<int32_t>(std::lround(in.screenWidth * scaleX)),
                                    static_cast<int32_t>(std::lround(in.screenHeight * scaleY))};
        const double unitX = outputRect.width / static_cast<double>(in.screenWidth);
        const double unitY = outputRect.height / static_cast<double>(in.screenHeight);
        TParams p{};
        p[kCenterX] = static_cast<int32_t>(std::lround(centre.raw.x * toNormX));
        p[kCenterY] = static_cast<int32_t>(std::lround(centre.raw.y * toNormY));
        p[kAxisHX] = static_cast<int32_t>(std::lround(dirH.x * axisHalf * toNormX));
        p[kAxisHY] = static_cast<int32_t>(std::lround(dirH.y * axisHalf * toNormY));
        p[kAxisVX] = static_cast<int32_t>(std::lround(dirV.x * axisHalf * toNormX));
        p[kAxisVY] = static_cast<int32_t>(std::lround(dirV.y * axisHalf * toNormY));
        p[kOutCenterX] = static_cast<int32_t>(std::lround(centre.screen.x * unitX));
        p[kOutCenterY] = static_cast<int32_t>(std::lround(centre.screen.y * unitY));
        p[kHalfWidth] = p[kHalfHeight] = 100;
        const _HCRECT_CONFIG_FILE first = AreaOf(p, in.base, outputRect);
        std::unique_ptr<_CAL_COORDINATE_INFO, TAreaDeleter> probe(InitCoordinateInfo(&first, &g, 0));
        if (!probe) continue;
        const double halfH = probe->halfH, halfV = probe->halfV;
        // Side scales: hw + adjust * W * hw / logicalWidth / halfH = pixels per raw unit * halfH.
        const auto sides = [](double minus, double plus, double half, double unit, int raw,
                              int logical, int32_t* mid, int32_t* adjMinus, int32_t* adjPlus) {
            const double sMinus = minus * unit * half, sPlus = plus * unit * half;
            *mid = std::max<int32_t>(25, static_cast<int32_t>(std::lround((sMinus + sPlus) / 2)));
            const double perAdjust = static_cast<double>(raw) * *mid / logical / half;
            *adjMinus = std::clamp<int32_t>(std::lround((sMinus - *mid) / perAdjust), -128, 127);
            *adjPlus = std::clamp<int32_t>(std::lround((sPlus - *mid) / perAdjust), -128, 127);
        };
        sides(mx.minus, mx.plus, halfH, unitX, g.rawWidth, g.logicalWidth, &p[kHalfWidth],
              &p[kEdgeMinusX], &p[kEdgePlusX]);
        sides(my.minus, my.plus, halfV, unitY, g.rawHeight, g.logicalHeight, &p[kHalfHeight],
              &p[kEdgeMinusY], &p[kEdgePlusY]);

        // Coordinate descent on the integers, judged through the translation.
        double cost = Cost(AreaOf(p, in.base, outputRect), in);
        for (int round = 0; round < 200; ++round) {
            bool improved = false;
            for (int k = 0; k < kParamCount; ++k) {
                for (const int step : {64, 16, 4, 1}) {
                    for (const int sign : {-1, 1}) {
                        TParams q = p;
                        q[k] += sign * step;
                        if ((k == kHalfWidth || k == kHalfHeight) && q[k] < 25) continue;
                        if (k >= kEdgeMinusX && (q[k] < -128 || q[k] > 127)) continue;
                        const double c = Cost(AreaOf(q, in.base, outputRect), in);
                        if (c < cost) {
                            cost = c;
                            p = q;
                            improved = true;
                        }
                    }
                }
            }
            if (improved) continue;
            // Stuck on single steps: the integers interact through the truncations, so try
            // moving two at once.
            for (int k = 0; k < kParamCount && !improved; ++k) {
                for (int m = k + 1; m < kParamCount && !improved; ++m) {
                    for (const int sk : {-1, 1}) {
                        for (const int sm : {-1, 1}) {
                            TParams q = p;
                            q[k] += sk;
                            q[m] += sm;
                            if (q[kHalfWidth] < 25 || q[kHalfHeight] < 25) continue;
                            if (k >= kEdgeMinusX && (q[k] < -128 || q[k] > 127)) continue;
                            if (m >= kEdgeMinusX && (q[m] < -128 || q[m] > 127)) continue;
                            const double c = Cost(AreaOf(q, in.base, outputRect), in);
                            if (c < cost) {
                                cost = c;
                                p = q;
                                improved = true;
                            }
                        }
                    }
                }
            }
            if (!improved) break;
        }
        if (cost < bestCost) {
            bestCost = cost;
            best.area = AreaOf(p, in.base, outputRect);
        }
    }
    if (!std::isfinite(bestCost)) return fail("no calibration area fits these touches");
    for (const TTargetTouch& t : in.touches) {
        const TPointD at =
            *MapThroughArea(best.area, g, in.screenWidth, in.screenHeight, t.raw);
        best.mapped.push_back(at);
        best.residuals.push_back(std::hypot(at.x - t.screen.x, at.y - t.screen.y));
    }
    return best;
}
