// The fit of one calibration area from touches on known screen points: the area's centre,
// half-axes, edge adjustments and rectangles chosen so that each touch, mapped through the
// library's own translation (InitCoordinateInfo, TranslateCalCoords, GetShortCoords) and scaled to
// the screen as the driver scales it, lands on its point. With more points than the area has
// degrees of freedom the squared distances are minimised.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CalibrateCoordinate.h"
#include "MtDevConfig.h"

struct TPointD {
    double x = 0.0;
    double y = 0.0;
};

// One target: where it is on the screen (the driver's screen, pixels) and the raw position of
// the touch taken on it.
struct TTargetTouch {
    TPointD screen;
    TPointD raw;
};

struct TAreaFitInput {
    _CS_CONFIG geometry{};        // the frame's extents
    int screenWidth = 0;          // the driver's screen, pixels: HID x * width / 32767
    int screenHeight = 0;
    std::vector<TTargetTouch> touches;  // at least 5, the centre of the layout among them
    int centreIndex = 0;                // the touch on the middle of the layout
    _HCRECT_CONFIG_FILE base{};         // id, group, network fields are kept from it
};

struct TAreaFit {
    _HCRECT_CONFIG_FILE area{};
    std::vector<TPointD> mapped;    // where each touch lands now, pixels
    std::vector<double> residuals;  // distance of each from its target, pixels
};

// Where the driver posts a raw point through `area`: pixels of a width x height screen. Empty
// when the library refuses the area.
std::optional<TPointD> MapThroughArea(const _HCRECT_CONFIG_FILE& area, const _CS_CONFIG& geometry,
                                      int screenWidth, int screenHeight, TPointD raw);

// The fitted area, or nothing with `error` set: degenerate touches (coincident or in a line),
// a geometry or screen that cannot be calibrated.
std::optional<TAreaFit> FitArea(const TAreaFitInput& input, std::string* error);
