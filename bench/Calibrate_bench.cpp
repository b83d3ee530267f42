// Cost of calibrating one frame as the worker does it: CalFramePoint then GetAbsHIDCoords,
// for ten contacts held across frames (the steady state of a touch), through a grid of
// overlapping calibration areas or through button panels.
#include "CCalibrateSystem.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

constexpr int kContacts = 10;
constexpr int kRaw = 32767;

// Areas tiling the frame in a columns x rows grid, each reaching 10% into its neighbours so
// that contacts near a seam are blended.
void AddGrid(_HARDWARE_DEV_CONFIG& config, int columns, int rows) {
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < columns; ++c) {
            _HCRECT_CONFIG_FILE& area = config.areas[config.areaCount++];
            area.id = static_cast<uint8_t>(r * columns + c);
            area.outputRect = {0, 0, 1920, 1080};
            area.targetRect = {1920 * c / columns, 1080 * r / rows, 1920 / columns, 1080 / rows};
            for (auto& a : area.edgeAdjust) a = 15;
            const int halfW = kRaw / columns / 2 * 11 / 10;
            const int halfH = kRaw / rows / 2 * 11 / 10;
            area.center = {static_cast<int16_t>(kRaw * (2 * c + 1) / (2 * columns)),
                           static_cast<int16_t>(kRaw * (2 * r + 1) / (2 * rows))};
            area.axisH = {static_cast<int16_t>(-halfW), 0};
            area.axisV = {0, static_cast<int16_t>(halfH)};
        }
    }
}

void AddPanels(_HARDWARE_DEV_CONFIG& config) {
    for (int i = 0; i < DEV_CONFIG_MAX_PANELS; ++i) {
        _HBRECT_CONFIG_FILE& panel = config.panels[config.panelCount++];
        panel.id = static_cast<uint8_t>(i);
        panel.width = 400;
        panel.height = 100;
        panel.center = {static_cast<int16_t>(4000 + 8000 * i), 30000};
        panel.axisH = {-2000, 0};
        panel.axisV = {0, 1500};
    }
}

void Calibrate(benchmark::State& state, int columns, int rows, bool panels) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    config->flags = DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE |
                    (panels ? DEV_FLAG_PANELS_ENABLED : 0);
    AddGrid(*config, columns, rows);
    if (panels) AddPanels(*config);
    const _CS_CONFIG geometry{1920, 1080, kRaw, kRaw};
    CCalibrateSystem cal;
    if (!cal.InitCalibrateSys(config.get(), &geometry)) {
        state.SkipWithError("InitCalibrateSys failed");
        return;
    }

    // Ten contacts spread over the frame; with panels, four of them sit on the panels.
    std::vector<_HARDWARE_SDK_POINT> points(kContacts);
    _HARDWARE_FRAME_SDK frame{};
    for (int i = 0; i < kContacts; ++i) {
        _HARDWARE_SDK_POINT& p = points[i];
        p.id = static_cast<uint8_t>(i + 1);
        p.status = 2;
        const bool onPanel = panels && i < DEV_CONFIG_MAX_PANELS;
        p.rawX = static_cast<uint16_t>(onPanel ? 4000 + 8000 * i : 1500 + 3100 * i);
        p.rawY = static_cast<uint16_t>(onPanel ? 30000 : 2000 + 2900 * i);
        p.rawW = static_cast<int16_t>(300 + 10 * i);
        p.rawH = static_cast<int16_t>(250 + 10 * i);
        p.area = p.rawW * p.rawH;
        p.next = frame.points;
        frame.points = &p;
    }

    for (auto _ : state) {
        cal.CalFramePoint(&frame);
        cal.GetAbsHIDCoords(&frame);
        benchmark::DoNotOptimize(frame.points->x);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());  // frames
}

void BM_Calibrate1Area(benchmark::State& state) { Calibrate(state, 1, 1, false); }
void BM_Calibrate4Areas(benchmark::State& state) { Calibrate(state, 2, 2, false); }
void BM_Calibrate32Areas(benchmark::State& state) { Calibrate(state, 8, 4, false); }
void BM_Calibrate4Panels4Areas(benchmark::State& state) { Calibrate(state, 2, 2, true); }

}  // namespace

BENCHMARK(BM_Calibrate1Area);
BENCHMARK(BM_Calibrate4Areas);
BENCHMARK(BM_Calibrate32Areas);
BENCHMARK(BM_Calibrate4Panels4Areas);
