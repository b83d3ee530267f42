// The calibration area fit of irframe-calibrate: planted mis-calibrations are undone through
// the library's own translation; degenerate touches are refused.
#include <gtest/gtest.h>

#include <cmath>

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

// Verify that every planted mis-calibration in the supported ranges is undone: each target's
// touch lands within half a pixel of it, through the library's translation.
TEST(CalibrationToolFit, UndoesPlantedTransforms) {
    const _CS_CONFIG sim{8191, 8191, 32766, 32766};
    const _CS_CONFIG other{4095, 2047, 16383, 9000};
    const TPlanted cases[] = {
        {0, 1, 1, 0, 0, 0, 1, 1, 1, 1, true},
        {5, 1.1, 0.9, 0, 0.05, -0.05, 1, 1, 1, 1, true},
        {-5, 0.9, 1.1, 0, -0.05, 0.05, 1, 1, 1, 1, false},
        {2, 1.0, 1.0, 0.08, 0.02, 0.01, 1, 1, 1, 1, true},           // axes not at a right angle
        {-3, 0.95, 1.05, -0.05, -0.03, 0.04, 0.97, 1.03, 1.02, 0.98, true},  // sides differ
        {1, 1.05, 0.95, 0, 0, 0, 0.9, 1.1, 1.1, 0.9, true},
        {4, 0.92, 1.08, 0.03, 0.05, 0.05, 1.08, 0.93, 0.94, 1.06, false},
    };
    for (const _CS_CONFIG& g : {sim, other}) {
        for (const int points : {5, 9}) {
            for (const TPlanted& planted : cases) {
                const TAreaFitInput in = Input(points, planted, g);
                std::string error;
                const auto fit = FitArea(in, &error);
                ASSERT_TRUE(fit) << error;
                for (size_t i = 0; i < in.touches.size(); ++i) {
                    const auto at =
                        MapThroughArea(fit->area, g, kScreenW, kScreenH, in.touches[i].raw);
                    ASSERT_TRUE(at);
                    EXPECT_LE(std::hypot(at->x - in.touches[i].screen.x,
                                         at->y - in.touches[i].screen.y),
                              0.5)
                        << "target " << i << " of " << points << ", rotation "
                        << planted.rotationDeg << ", raw " << g.rawWidth;
                }
            }
        }
    }
}

// Verify that touches on one spot, or along one line, are refused with a message.
TEST(CalibrationToolFit, RefusesDegenerateTouches) {
    const _CS_CONFIG g{8191, 8191, 32766, 32766};
    TAreaFitInput in = Input(5, {0, 1, 1, 0, 0, 0, 1, 1, 1, 1, true}, g);
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
