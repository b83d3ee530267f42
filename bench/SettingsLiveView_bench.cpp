// Cost of one frame of the settings window's live view with nine contacts moving: the model
// taking the polled frame (trails, colours, frame rate) and the drawing of the whole view
// (areas, panel, outline, trails, dots, labels) with cairo on a 1100 x 680 image, the size of
// the window's drawing area. At a 60 Hz display a frame has 16.7 ms; it must stay under 1 ms.
#include <benchmark/benchmark.h>
#include <cairo.h>

#include <cmath>

#include "LiveViewDrawing.h"
#include "support/TwoAreasAndPanel.h"

namespace {

void BM_LiveViewFrameNineContacts(benchmark::State& state) {
    TFrameEntry frame;
    frame.logicalWidth = 1600;
    frame.logicalHeight = 900;
    frame.rawWidth = frame.rawHeight = 32766;
    CLiveView view;
    CLiveViewPainter painter;
    view.SetFrame(frame, TwoAreasAndPanel());
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 1100, 680);
    cairo_t* cr = cairo_create(surface);
    const bool draw = state.range(0) != 0;
    int64_t micros = 0;
    TMonitoredFrame f;
    f.contacts.resize(9);
    for (auto _ : state) {
        micros += 16'667;
        for (int k = 0; k < 9; ++k) {
            TMonitoredContact& c = f.contacts[static_cast<size_t>(k)];
            const double a = micros / 1e6 + k * 0.7;
            c.id = static_cast<uint8_t>(k + 1);
            c.status = 1;
            c.rawX = static_cast<uint16_t>(16383 + 12000 * std::cos(a));
            c.rawY = static_cast<uint16_t>(16383 + 12000 * std::sin(a * 1.3));
            c.cellIndex = static_cast<uint8_t>(k % 2);
        }
        view.OnFrame(f, micros);
        if (draw) {
            painter.Draw(cr, view, 1100, 680, micros);
            cairo_surface_flush(surface);
        }
        benchmark::DoNotOptimize(view.Trails().size());
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
}
// 0: the model alone; 1: the model and the drawing.
BENCHMARK(BM_LiveViewFrameNineContacts)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
