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
using TAreaInfo = std::unique_ptr<_CAL_COORDINATE_INFO, TAreaDeleter>;

int16_t ToInt16(double v) {
    return static_cast<int16_t>(std::clamp(std::lround(v), -32768L, 32767L));
}

int8_t ToInt8(double v) { return static_cast<int8_t>(std::clamp(std::lround(v), -128L, 127L)); }

// What the search moves: every integer of the area that the translation reads.
enum TParam {
    kCenterX, kCenterY, kAxisHX, kAxisHY, kAxisVX, kAxisVY,  // normalised units
    kOutCenterX, kOutCenterY, kHalfWidth, kHalfHeight,       // target rectangle, output units
    kEdgeMinusX, kEdgePlusX, kEdgeMinusY, kEdgePlusY,        // logical units
    kOutWidth, kOutHeight,  // output rectangle: output units per screen, so per pixel
    kParamCount
};
using TParams = std::array<int32_t, kParamCount>;

// The parameters of one output axis: X is set by the vertical axis's place, Y by the horizontal.
struct TAxisParams {
    TParam outCenter, half, edgeMinus, edgePlus, outSize;
};
constexpr TAxisParams kAxisX{kOutCenterX, kHalfWidth, kEdgeMinusX, kEdgePlusX, kOutWidth};
constexpr TAxisParams kAxisY{kOutCenterY, kHalfHeight, kEdgeMinusY, kEdgePlusY, kOutHeight};

bool InRange(TParam k, int32_t v) {
    switch (k) {
        case kHalfWidth: case kHalfHeight: return v >= 25;
        case kOutWidth: case kOutHeight: return v >= 50;
        case kEdgeMinusX: case kEdgePlusX: case kEdgeMinusY: case kEdgePlusY:
            return v >= -128 && v <= 127;
        case kCenterX: case kCenterY: case kAxisHX: case kAxisHY: case kAxisVX: case kAxisVY:
            return v >= -32768 && v <= 32767;
        default: return true;
    }
}

_HCRECT_CONFIG_FILE AreaOf(const TParams& p, const _HCRECT_CONFIG_FILE& base) {
    _HCRECT_CONFIG_FILE area = base;
    area.rotation = 0;
    area.center = {ToInt16(p[kCenterX]), ToInt16(p[kCenterY])};
    area.axisH = {ToInt16(p[kAxisHX]), ToInt16(p[kAxisHY])};
    area.axisV = {ToInt16(p[kAxisVX]), ToInt16(p[kAxisVY])};
    area.outputRect = {0, 0, p[kOutWidth], p[kOutHeight]};
    area.targetRect = {p[kOutCenterX] - p[kHalfWidth], p[kOutCenterY] - p[kHalfHeight],
                       2 * p[kHalfWidth], 2 * p[kHalfHeight]};
    for (int i = 0; i < 4; ++i) area.edgeAdjust[i] = ToInt8(p[kEdgeMinusX + i]);
    return area;
}

TPointD MapWith(_CAL_COORDINATE_INFO* info, int rotation, int screenWidth, int screenHeight,
                TPointD raw) {
    TranslateCalCoords(static_cast<int>(std::lround(raw.x)), static_cast<int>(std::lround(raw.y)),
                       info);
    GetShortCoords(info);
    switch (rotation) {
        case 0: break;
        case 1: RotateCoordsHID_90(info); break;
        case 2: RotateCoordsHID_180(info); break;
        default: RotateCoordsHID_270(info); break;
    }
    return TPointD{info->x.AsInt() * static_cast<double>(screenWidth) / 32767.0,
                   info->y.AsInt() * static_cast<double>(screenHeight) / 32767.0};
}

// A point the fit is judged on: a touch, or a point between the centre touch and another, where
// a frame that stretches each side evenly puts the touch half-way between the two targets. Those
// only break ties between fits that put every touch on its target.
struct TFitPoint {
    TPointD raw;
    TPointD screen;
    double weight = 1.0;
};
constexpr double kBetweenWeight = 0.05;

enum class TJudge { Both, X, Y };

struct TFitProblem {
    const TAreaFitInput& in;
    std::vector<TFitPoint> points;

    // Weighted sum of the squared distances (pixels) from the targets; infinite when the library
    // refuses the area.
    double Cost(const TParams& p, TJudge judge = TJudge::Both) const {
        const _HCRECT_CONFIG_FILE area = AreaOf(p, in.base);
        TAreaInfo info(InitCoordinateInfo(&area, &in.geometry, 0));
        if (!info) return std::numeric_limits<double>::infinity();
        double sum = 0.0;
        for (const TFitPoint& f : points) {
            const TPointD at = MapWith(info.get(), 0, in.screenWidth, in.screenHeight, f.raw);
            const double dx = judge == TJudge::Y ? 0.0 : at.x - f.screen.x;
            const double dy = judge == TJudge::X ? 0.0 : at.y - f.screen.y;
            sum += f.weight * (dx * dx + dy * dy);
        }
        return sum;
    }

    // The mean offset (pixels) of the touches from their targets on one axis.
    double MeanOffset(const TParams& p, TJudge judge) const {
        const _HCRECT_CONFIG_FILE area = AreaOf(p, in.base);
        TAreaInfo info(InitCoordinateInfo(&area, &in.geometry, 0));
        if (!info) return 0.0;
        double sum = 0.0, weights = 0.0;
        for (const TFitPoint& f : points) {
            const TPointD at = MapWith(info.get(), 0, in.screenWidth, in.screenHeight, f.raw);
            sum += f.weight * (judge == TJudge::X ? f.screen.x - at.x : f.screen.y - at.y);
            weights += f.weight;
        }
        return sum / weights;
    }
};

TPointD Unit(TPointD v) {
    const double length = std::hypot(v.x, v.y);
    return length > 0 ? TPointD{v.x / length, v.y / length} : TPointD{};
}

// The raw direction along which one screen coordinate stays the same: the sum of the steps
// between touches whose targets share it (sameX: a column, towards growing screen y). Null when
// no two targets share it.
TPointD SharedLineDirection(const std::vector<TTargetTouch>& touches, bool sameX) {
    TPointD sum{};
    for (const TTargetTouch& a : touches) {
        for (const TTargetTouch& b : touches) {
            const double shared = sameX ? a.screen.x - b.screen.x : a.screen.y - b.screen.y;
            const double along = sameX ? b.screen.y - a.screen.y : b.screen.x - a.screen.x;
            if (std::abs(shared) > 0.5 || along <= 0.5) continue;
            sum.x += b.raw.x - a.raw.x;
            sum.y += b.raw.y - a.raw.y;
        }
    }
    return Unit(sum);
}

// One output coordinate as the touches show it: it grows along `normal` (raw units), with a
// scale on either side of the centre touch (pixels per raw unit).
struct TAxisModel {
    TPointD normal;
    double minus = 0.0;
    double plus = 0.0;
};

TAxisModel SideScales(TPointD normal, const std::vector<TPointD>& rel,
                      const std::vector<double>& out) {
    TAxisModel m;
    m.normal = normal;
    double num[2] = {0, 0}, den[2] = {0, 0};
    for (size_t i = 0; i < rel.size(); ++i) {
        const double u = normal.x * rel[i].x + normal.y * rel[i].y;
        const int side = u < 0 ? 0 : 1;
        num[side] += out[i] * u;
        den[side] += u * u;
    }
    m.minus = den[0] > 0 ? num[0] / den[0] : 0.0;
    m.plus = den[1] > 0 ? num[1] / den[1] : 0.0;
    if (den[0] <= 0) m.minus = m.plus;
    if (den[1] <= 0) m.plus = m.minus;
    return m;
}

// An axis of about `half` raw units along `direction`, of the length whose whole normalised
// and raw units point closest to it: a tilt of the vertical axis shifts X along each column.
void AimAxis(const _CS_CONFIG& g, TPointD direction, double half, TParams* p, TParam kx,
             TParam ky) {
    double bestError = std::numeric_limits<double>::infinity();
    const int spread = static_cast<int>(half / 32);
    for (int d = -spread; d <= spread; ++d) {
        TParams q = *p;
        q[kx] = static_cast<int32_t>(std::lround(direction.x * (half + d) * 32767.0 / g.rawWidth));
        q[ky] = static_cast<int32_t>(std::lround(direction.y * (half + d) * 32767.0 / g.rawHeight));
        _HCRECT_CONFIG_FILE area{};
        area.axisH = {ToInt16(q[kx]), ToInt16(q[ky])};
        area.axisV = area.axisH;
        area.targetRect = area.outputRect = {0, 0, 100, 100};
        TAreaInfo info(InitCoordinateInfo(&area, &g, 0));
        if (!info) continue;
        const TPointD raw = Unit({static_cast<double>(info->lineHDirX),
                                  static_cast<double>(info->lineHDirY)});
        const double error = std::abs(raw.x * direction.y - raw.y * direction.x);
        if (error < bestError) {
            bestError = error;
            (*p)[kx] = q[kx];
            (*p)[ky] = q[ky];
        }
    }
}

// Moves the centre of the area by `shift` raw units along `direction` (raw units).
void ShiftCentre(TParams* p, const TParams& from, TPointD direction, double shift,
                 const _CS_CONFIG& g) {
    (*p)[kCenterX] = from[kCenterX] +
                     static_cast<int32_t>(std::lround(direction.x * shift * 32767.0 / g.rawWidth));
    (*p)[kCenterY] = from[kCenterY] +
                     static_cast<int32_t>(std::lround(direction.y * shift * 32767.0 / g.rawHeight));
}

// One output axis at fixed side scales: the place of the axis across it (moving the centre along
// the other axis, which leaves the other coordinate alone) and the output centre, both chosen for
// the least cost on this coordinate. A side whose scale is a little steeper than the touches ask
// is met by moving the kink off the centre touch, so every target is still hit.
double PlaceAxis(const TFitProblem& problem, TParams* p, const TAxisParams& axis, TJudge judge,
                 TPointD along, double reach) {
    const TParams from = *p;
    const double unit = from[axis.outSize] /
                        static_cast<double>(judge == TJudge::X ? problem.in.screenWidth
                                                               : problem.in.screenHeight);
    const auto at = [&](double shift, TParams* q) {
        *q = from;
        ShiftCentre(q, from, along, shift, problem.in.geometry);
        (*q)[axis.outCenter] +=
            static_cast<int32_t>(std::lround(problem.MeanOffset(*q, judge) * unit));
        return problem.Cost(*q, judge);
    };
    double bestShift = 0.0;
    TParams best = from;
    double bestCost = at(0.0, &best);
    const auto consider = [&](double shift) {
        TParams q;
        const double c = at(shift, &q);
        if (c < bestCost) {
            bestCost = c;
            bestShift = shift;
            best = q;
        }
    };
    constexpr int kCoarse = 32;
    for (int i = -kCoarse; i <= kCoarse; ++i) consider(reach * i / kCoarse);
    for (double step = reach / kCoarse / 2; step >= 1.0; step /= 2) {
        const double around = bestShift;
        for (const int k : {-2, -1, 1, 2}) consider(around + k * step);
    }
    const double around = std::round(bestShift);
    for (int k = -12; k <= 12; ++k) consider(around + k);
    *p = best;
    return bestCost;
}

// Side scales for one output axis from the touches' scales: the middle scale and the edge
// adjustments, each rounded either way, and the output units per pixel that put one side
// exactly on the touches' scale. Returns the best placement of all of them.
double FitOutputAxis(const TFitProblem& problem, TParams* p, const TAxisParams& axis, TJudge judge,
                     const TAxisModel& model, TPointD along, double reach) {
    const _CS_CONFIG& g = problem.in.geometry;
    const bool isX = judge == TJudge::X;
    const int raw = isX ? g.rawWidth : g.rawHeight;
    const int logical = isX ? g.logicalWidth : g.logicalHeight;
    const int screen = isX ? problem.in.screenWidth : problem.in.screenHeight;
    const double centreScreen = isX ? problem.in.touches[problem.in.centreIndex].screen.x
                                    : problem.in.touches[problem.in.centreIndex].screen.y;

    const _HCRECT_CONFIG_FILE area = AreaOf(*p, problem.in.base);
    TAreaInfo probe(InitCoordinateInfo(&area, &g, 0));
    if (!probe) return std::numeric_limits<double>::infinity();
    const double half = isX ? probe->halfH : probe->halfV;
    const double unit = (*p)[axis.outSize] / static_cast<double>(screen);
    const double sMinus = model.minus * unit * half, sPlus = model.plus * unit * half;
    const int32_t mid = std::max<int32_t>(25, static_cast<int32_t>(std::lround((sMinus + sPlus) / 2)));
    const double perAdjust = static_cast<double>(raw) * mid / logical / half;

    TParams best = *p;
    double bestCost = std::numeric_limits<double>::infinity();
    for (const double minusWay : {std::floor((sMinus - mid) / perAdjust),
                                  std::ceil((sMinus - mid) / perAdjust)}) {
        for (const double plusWay : {std::floor((sPlus - mid) / perAdjust),
                                     std::ceil((sPlus - mid) / perAdjust)}) {
            TParams q = *p;
            q[axis.half] = mid;
            q[axis.edgeMinus] = static_cast<int32_t>(std::clamp(minusWay, -128.0, 127.0));
            q[axis.edgePlus] = static_cast<int32_t>(std::clamp(plusWay, -128.0, 127.0));
            const _HCRECT_CONFIG_FILE scaled = AreaOf(q, problem.in.base);
            TAreaInfo info(InitCoordinateInfo(&scaled, &g, 0));
            if (!info) continue;
            const double actualMinus = isX ? info->scaleMinusX : info->scaleMinusY;
            const double actualPlus = isX ? info->scalePlusX : info->scalePlusY;
            if (actualMinus <= 0 || actualPlus <= 0) continue;  // a product that wrapped
            for (const double exactUnit :
                 {actualMinus / (half * model.minus), actualPlus / (half * model.plus)}) {
                TParams r = q;
                r[axis.outSize] = static_cast<int32_t>(std::lround(screen * exactUnit));
                if (!InRange(axis.outSize, r[axis.outSize])) continue;
                r[axis.outCenter] = static_cast<int32_t>(std::lround(centreScreen * exactUnit));
                const double c = PlaceAxis(problem, &r, axis, judge, along, reach);
                if (c < bestCost) {
                    bestCost = c;
                    best = r;
                }
            }
        }
    }
    *p = best;
    return bestCost;
}

// Integer coordinate descent on the whole area, judged through the translation: it mends what
// the rounding of the placements above left.
double Polish(const TFitProblem& problem, TParams* p) {
    double cost = problem.Cost(*p);
    const auto tryMove = [&](const TParams& q) {
        for (int k = 0; k < kParamCount; ++k) {
            if (!InRange(static_cast<TParam>(k), q[k])) return false;
        }
        const double c = problem.Cost(q);
        if (c >= cost) return false;
        cost = c;
        *p = q;
        return true;
    };
    for (int round = 0; round < 100; ++round) {
        bool improved = false;
        for (int k = 0; k < kParamCount; ++k) {
            for (const int step : {16, 4, 1}) {
                for (const int sign : {-1, 1}) {
                    TParams q = *p;
                    q[k] += sign * step;
                    improved |= tryMove(q);
                }
            }
        }
        if (improved) continue;
        // The integers interact through the truncations: try moving two at once.
        for (int k = 0; k < kParamCount && !improved; ++k) {
            for (int m = k + 1; m < kParamCount && !improved; ++m) {
                for (const int sk : {-1, 1}) {
                    for (const int sm : {-1, 1}) {
                        TParams q = *p;
                        q[k] += sk;
                        q[m] += sm;
                        if (tryMove(q)) improved = true;
                    }
                }
            }
        }
        if (!improved) break;
    }
    return cost;
}

}  // namespace

std::optional<TPointD> MapThroughArea(const _HCRECT_CONFIG_FILE& area, const _CS_CONFIG& geometry,
                                      int screenWidth, int screenHeight, TPointD raw) {
    TAreaInfo info(InitCoordinateInfo(&area, &geometry, 0));
    if (!info) return std::nullopt;
    return MapWith(info.get(), area.rotation, screenWidth, screenHeight, raw);
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
        return fail("the touches do not span the screen: touch each target in turn");
    }
    // Each screen coordinate grows across the line its column (or row) of touches lies on. That
    // line is read from the touches themselves where targets share a column: the plain linear
    // fit leans when the two sides of the frame stretch differently.
    const auto normalAcross = [](TPointD line, TPointD row) {
        TPointD n = Unit({-line.y, line.x});
        if (line.x == 0 && line.y == 0) n = Unit(row);
        if (n.x * row.x + n.y * row.y < 0) n = {-n.x, -n.y};
        return n;
    };
    const TPointD column = SharedLineDirection(in.touches, true);
    const TPointD row = SharedLineDirection(in.touches, false);
    std::vector<double> outX, outY;
    for (const TPointD& o : out) {
        outX.push_back(o.x);
        outY.push_back(o.y);
    }
    const TAxisModel mx = SideScales(normalAcross(column, rowX), rel, outX);
    const TAxisModel my = SideScales(normalAcross(row, rowY), rel, outY);
    if (!(mx.minus > 0 && mx.plus > 0 && my.minus > 0 && my.plus > 0)) {
        return fail("the touches are not in the order of the targets: touch each target in turn");
    }
    // The vertical axis runs across the X normal, towards output Y; the horizontal one across
    // the Y normal, towards output X.
    TPointD dirV{-mx.normal.y, mx.normal.x};
    if (dirV.x * my.normal.x + dirV.y * my.normal.y < 0) dirV = {-dirV.x, -dirV.y};
    TPointD dirH{-my.normal.y, my.normal.x};
    if (dirH.x * mx.normal.x + dirH.y * mx.normal.y < 0) dirH = {-dirH.x, -dirH.y};
    // How far the kink of each coordinate may move: to the outermost touch.
    double reachX = 0, reachY = 0;
    for (const TPointD& r : rel) {
        reachX = std::max(reachX, std::abs(r.x * mx.normal.x + r.y * mx.normal.y));
        reachY = std::max(reachY, std::abs(r.x * my.normal.x + r.y * my.normal.y));
    }

    TFitProblem problem{in, {}};
    for (const TTargetTouch& t : in.touches) problem.points.push_back({t.raw, t.screen, 1.0});
    for (const TTargetTouch& t : in.touches) {
        if (&t == &centre) continue;
        problem.points.push_back({{std::round((t.raw.x + centre.raw.x) / 2),
                                   std::round((t.raw.y + centre.raw.y) / 2)},
                                  {(t.screen.x + centre.screen.x) / 2,
                                   (t.screen.y + centre.screen.y) / 2},
                                  kBetweenWeight});
    }

    const double toNormX = 32767.0 / g.rawWidth, toNormY = 32767.0 / g.rawHeight;
    TParams best{};
    double bestCost = std::numeric_limits<double>::infinity();
    // The record's integers are coarse: the side scales are whole output units and the edge
    // adjustments whole logical units, multiplied in 32 bits (a large target rectangle leaves
    // them little room). A longer axis makes an edge adjustment finer but its reach shorter, so
    // several axis lengths and rectangle sizes are tried.
    constexpr std::array kAxisHalves{256.0, 512.0, 1024.0, 2048.0, 4096.0, 8192.0};
    constexpr std::array kHalfScales{150.0, 400.0, 1000.0, 2500.0};
    for (const double axisHalf : kAxisHalves) {
        for (const double halfScale : kHalfScales) {
            const double scaleX = halfScale / ((mx.minus + mx.plus) / 2 * axisHalf);
            const double scaleY = halfScale / ((my.minus + my.plus) / 2 * axisHalf);
            TParams p{};
            p[kOutWidth] = static_cast<int32_t>(std::lround(in.screenWidth * scaleX));
            p[kOutHeight] = static_cast<int32_t>(std::lround(in.screenHeight * scaleY));
            if (!InRange(kOutWidth, p[kOutWidth]) || !InRange(kOutHeight, p[kOutHeight])) continue;
            p[kCenterX] = static_cast<int32_t>(std::lround(centre.raw.x * toNormX));
            p[kCenterY] = static_cast<int32_t>(std::lround(centre.raw.y * toNormY));
            p[kAxisHX] = static_cast<int32_t>(std::lround(dirH.x * axisHalf * toNormX));
            p[kAxisHY] = static_cast<int32_t>(std::lround(dirH.y * axisHalf * toNormY));
            p[kAxisVX] = static_cast<int32_t>(std::lround(dirV.x * axisHalf * toNormX));
            p[kAxisVY] = static_cast<int32_t>(std::lround(dirV.y * axisHalf * toNormY));
            AimAxis(g, dirH, axisHalf, &p, kAxisHX, kAxisHY);
            AimAxis(g, dirV, axisHalf, &p, kAxisVX, kAxisVY);
            p[kOutCenterX] = static_cast<int32_t>(std::lround(centre.screen.x * scaleX));
            p[kOutCenterY] = static_cast<int32_t>(std::lround(centre.screen.y * scaleY));
            p[kHalfWidth] = p[kHalfHeight] = 100;
            // X comes from the vertical axis's place, moved along the horizontal axis; Y the
            // other way round. The two do not disturb each other.
            if (!std::isfinite(FitOutputAxis(problem, &p, kAxisX, TJudge::X, mx, dirH, reachX)) ||
                !std::isfinite(FitOutputAxis(problem, &p, kAxisY, TJudge::Y, my, dirV, reachY))) {
                continue;
            }
            const double cost = problem.Cost(p);
            if (cost < bestCost) {
                bestCost = cost;
                best = p;
            }
        }
    }
    if (!std::isfinite(bestCost)) return fail("no calibration area fits these touches");
    Polish(problem, &best);

    TAreaFit fit;
    fit.area = AreaOf(best, in.base);
    for (const TTargetTouch& t : in.touches) {
        const TPointD at = *MapThroughArea(fit.area, g, in.screenWidth, in.screenHeight, t.raw);
        fit.mapped.push_back(at);
        fit.residuals.push_back(std::hypot(at.x - t.screen.x, at.y - t.screen.y));
    }
    return fit;
}
