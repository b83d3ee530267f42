#include "TargetLayout.h"

std::vector<TPointD> TargetFractions(int points) {
    constexpr double kNear = 1.0 / 8, kMid = 1.0 / 2, kFar = 7.0 / 8;
    if (points == 5) return {{kNear, kNear}, {kFar, kNear}, {kFar, kFar}, {kNear, kFar}, {kMid, kMid}};
    if (points != 9) return {};
    std::vector<TPointD> grid;
    for (const double y : {kNear, kMid, kFar}) {
        for (const double x : {kNear, kMid, kFar}) grid.push_back({x, y});
    }
    return grid;
}
