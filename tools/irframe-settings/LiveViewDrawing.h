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

typedef struct _cairo_surface cairo_surface_t;

// Draws the view; keeps what changes only with the frame, its configuration or the size (the
// background, areas, panels, outline, labels) as a picture, so that a frame costs a copy of it
// and the moving parts.
class CLiveViewPainter {
public:
    CLiveViewPainter() = default;
    ~CLiveViewPainter();
    CLiveViewPainter(const CLiveViewPainter&) = delete;
    CLiveViewPainter& operator=(const CLiveViewPainter&) = delete;

    // The whole view at `micros` (trails fade by it) in a `width` x `height` area.
    void Draw(cairo_t* cr, const CLiveView& view, int width, int height, int64_t micros);

private:
    cairo_surface_t* m_still = nullptr;
    int m_width = 0, m_height = 0, m_generation = -1;
};

// Where the view puts the frame in a `width` x `height` area.
TViewFit LiveViewFit(const CLiveView& view, double width, double height);
