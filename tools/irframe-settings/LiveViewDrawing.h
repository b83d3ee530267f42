// Draws the live view with cairo, on whatever surface the caller gives: the window's drawing
// area, or an image surface in the benchmark and the tests.
#pragma once

#include <cstdint>

#include "LiveView.h"

typedef struct _cairo cairo_t;

// The frame's outline is stroked in exactly this colour, one pixel wide on whole pixels, so a
// reader of a screenshot finds the frame by it.
inline constexpr TViewColour kFrameOutlineColour{32 / 255.0, 48 / 255.0, 64 / 255.0};
// A contact's dot: its centre has the contact's colour, unmixed.
inline constexpr double kContactRadius = 14;

// The whole view at `micros` (trails fade by it) in a `width` x `height` area.
void DrawLiveView(cairo_t* cr, const CLiveView& view, double width, double height, int64_t micros);
