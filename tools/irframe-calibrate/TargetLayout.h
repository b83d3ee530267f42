// Where the calibration targets are: fixed fractions of the output's width and height, so that
// people and scripts know where to touch.
//   5 points: (1/8, 1/8), (7/8, 1/8), (7/8, 7/8), (1/8, 7/8), (1/2, 1/2), in that order.
//   9 points: a 3 x 3 grid at 1/8, 1/2 and 7/8, row by row from the top left.
#pragma once

#include <vector>

#include "AreaFit.h"

// Fractions of the output, in touching order; empty for a count other than 5 or 9.
std::vector<TPointD> TargetFractions(int points);
// Both layouts have their middle target fifth.
inline constexpr int kCentreTarget = 4;
