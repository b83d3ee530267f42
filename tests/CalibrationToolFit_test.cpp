// The calibration area fit of irframe-calibrate: planted mis-calibrations are undone through
// the library's own translation; degenerate touches are refused.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "AreaFit.h"
#include "TargetLayout.h"

namespace {

constexpr int kScreenW = 1920, kScreenH = 1080;

// A frame mounted off: screen point -> raw position. Stretch per side of the centre, then a
// scale per axis, a shear (axes not at a right angle), a rotation, an offset, and the raw scale.
struct TPlanted {
    double rotationDeg, scaleX, scaleY, shear, offsetX, offsetY;  // offsets: fractions of extent
    double leftStretch, rightStretch, topStretch, bottomStretch;
    bool mirrorX;

    TPointD Raw(TPointD screen, const _CS_CONFIG& g) const {
        double dx = (screen.x - kScreenW / 2.0) / kScreenW;
        double dy = (screen.y - kScreenH / 2.0) / kScreenH;
        dx *= dx < 0 ? leftStretch : rightStretch;
        dy *= dy < 0 ? topStretch : bottomStretch;
        dx *= scaleX;
        dy *= scaleY;
        dx += shear * dy;
        const double a = rotationDeg * M_PI / 180;
        const double rx = dx * std::cos(a) - dy * std::sin(a);
        const double ry = dx * std::sin(a) + dy * std::cos(a);
        return {(0.5 + offsetX + (mirrorX ? -rx : rx)) * g.rawWidth,
                (0.5 + offsetY + ry) * g.rawHeight};
    }
};

TAreaFitInput Input(int points, const TPlanted& planted, const _CS_CONFIG& g) {
    TAreaFitInput in;
    in.geometry = g;
    in.screenWidth = kScreenW;
    in.screenHeight = kScreenH;
    in.centreIndex = kCentreTarget;
    for (const TPointD& f : TargetFractions(points)) {
        const TPointD screen{f.x * kScreenW, f.y * kScreenH};
        TPointD raw = planted.Raw(screen, g);
        raw = {std::round(raw.x), std::round(raw.y)};  // the frame reports whole units
        in.touches.push_back({screen, raw});
    }
    return in;
}

}  // namespace

// The worst distance (pixels) of a touch from its target after the fit, through the library's
// translation.
double WorstAfterFit(int points, const TPlanted& planted, const _CS_CONFIG& g) {
    const TAreaFitInput in = Input(points, planted, g);
    std::string error;
    const auto fit = FitArea(in, &error);
    EXPECT_TRUE(fit) << error;
    if (!fit) return 1e9;
    double worst = 0.0;
    for (const TTargetTouch& t : in.touches) {
        const auto at = MapThroughArea(fit->area, g, kScreenW, kScreenH, t.raw);
        if (!at) return 1e9;
        worst = std::max(worst, std::hypot(at->x - t.screen.x, at->y - t.screen.y));
    }
    return worst;
}

const _CS_CONFIG kSimGeometry{8191, 8191, 32766, 32766};
const _CS_CONFIG kOtherGeometry{4095, 2047, 16383, 9000};

// Verify that planted mis-calibrations at the edges of the supported ranges, and drawn anywhere
// in them (a fixed seed: the record's integers must not leave some combinations off target),
// are undone: each target's touch lands within half a pixel of it.
TEST(CalibrationToolFit, UndoesPlantedTransforms) {
    std::vector<TPlanted> cases = {
        {0, 1, 1, 0, 0, 0, 1, 1, 1, 1, true},
        {5, 1.1, 0.9, 0, 0.05, -0.05, 1, 1, 1, 1, true},
        {-5, 0.9, 1.1, 0, -0.05, 0.05, 1, 1, 1, 1, false},
        {2, 1.0, 1.0, 0.08, 0.02, 0.01, 1, 1, 1, 1, true},           // axes not at a right angle
        {-3, 0.95, 1.05, -0.05, -0.03, 0.04, 0.97, 1.03, 1.02, 0.98, true},  // sides differ
        {1, 1.05, 0.95, 0, 0, 0, 0.9, 1.1, 1.1, 0.9, true},
        {4, 0.92, 1.08, 0.03, 0.05, 0.05, 1.08, 0.93, 0.94, 1.06, false},
        // Sides far apart: edge adjustments of more than one whole unit's step
        {-3.946, 1.001, 1.077, 0.007, -0.022, -0.015, 1.079, 0.948, 0.905, 1.093, true},
        {-2.714, 1.068, 0.961, -0.003, 0.015, -0.036, 0.961, 1.077, 1.077, 1.003, true},
    };
    std::mt19937 draw(2026);
    const auto in = [&](double low, double high) {
        return low + (high - low) * (draw() / 4294967296.0);
    };
    for (int i = 0; i < 12; ++i) {
        cases.push_back({in(-5, 5), in(0.9, 1.1), in(0.9, 1.1), in(-0.1, 0.1), in(-0.05, 0.05),
                         in(-0.05, 0.05), in(0.9, 1.1), in(0.9, 1.1), in(0.9, 1.1), in(0.9, 1.1),
                         draw() % 2 == 0});
    }
    for (const _CS_CONFIG& g : {kSimGeometry, kOtherGeometry}) {
        for (const int points : {5, 9}) {
            for (size_t i = 0; i < cases.size(); ++i) {
                EXPECT_LE(WorstAfterFit(points, cases[i], g), 0.5)
                    << "case " << i << ", " << points << " points, raw " << g.rawWidth;
            }
        }
    }
}

// Verify that touches on one spot, or along one line, are refused with a message.
TEST(CalibrationToolFit, RefusesDegenerateTouches) {
    TAreaFitInput in = Input(5, {0, 1, 1, 0, 0, 0, 1, 1, 1, 1, true}, kSimGeometry);
    TAreaFitInput same = in;
    for (TTargetTouch& t : same.touches) t.raw = {16000, 16000};
    TAreaFitInput line = in;
    for (size_t i = 0; i < line.touches.size(); ++i) line.touches[i].raw = {1000.0 + 5000 * i, 9000};
    for (const TAreaFitInput& bad : {same, line}) {
        std::string error;
        EXPECT_FALSE(FitArea(bad, &error));
        EXPECT_NE(error.find("touch each target"), std::string::npos) << error;
    }
}
