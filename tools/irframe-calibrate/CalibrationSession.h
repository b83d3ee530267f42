// One calibration, without any window: the targets one after the other, the touches taken on
// them (refusing mis-touches far from where the earlier touches predict), the fit, the targets
// whose touch stays off after it taken again, and the check. The window draws what this says
// and hands it the frames and the clock; the tests drive it the same way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AreaFit.h"
#include "TouchTaker.h"

struct TScreenRect {
    int x = 0;  // in the driver's screen, pixels
    int y = 0;
    int width = 0;
    int height = 0;
};

struct TSessionSetup {
    int points = 5;                // 5 or 9
    TScreenRect output;            // the monitor the targets are on
    int screenWidth = 0;           // the driver's screen (every monitor), pixels
    int screenHeight = 0;
    _CS_CONFIG geometry{};         // the frame's extents
    _HCRECT_CONFIG_FILE base{};    // the area being replaced (id, group, network fields kept)
    int64_t timeoutMicros = 30'000'000;
};

// The area that calibration `number` (1..32) replaces: the configuration's own, or for the
// number after the last a new one (id = number, network fields from the configuration). Empty
// for a number further on.
std::optional<_HCRECT_CONFIG_FILE> AreaToReplace(const _HARDWARE_DEV_CONFIG& config, int number);
// `config` with area `number` replaced by `area` and the calibration areas switched on.
_HARDWARE_DEV_CONFIG ConfigWithArea(const _HARDWARE_DEV_CONFIG& config, int number,
                                    const _HCRECT_CONFIG_FILE& area);
// The other areas (numbers from 1) that switching the areas on puts back in use: stored and
// usable while the frame had its areas switched off. Empty when they were on.
std::vector<int> AreasBackInUse(const _HARDWARE_DEV_CONFIG& config, int number);

enum class TSessionPhase {
    Taking,    // a target is shown and waits for its touch
    Check,     // every touch taken and fitted: the crosses show where they land now
    TimedOut,  // no touch within the time-out
    Cancelled,
};

class CCalibrationSession {
public:
    // A touch further than this fraction of the frame's extent from its prediction is a mis-touch.
    static constexpr double kMisTouchFraction = 0.1;
    // A fitted touch further than this fraction of the output's width from its target is retaken.
    static constexpr double kResidualFraction = 0.01;

    CCalibrationSession(const TSessionSetup& setup, int64_t nowMicros);

    TSessionPhase Phase() const { return m_phase; }
    int TargetCount() const { return static_cast<int>(m_targets.size()); }
    int Current() const { return m_pending.empty() ? -1 : m_pending.front(); }
    int TakenCount() const;
    // Where target `i` is, in the driver's screen (pixels).
    TPointD Target(int i) const { return m_targets[i]; }
    // A line for the screen: the instruction, or what was refused and why.
    const std::string& Message() const { return m_message; }
    // In Check: the fitted area and where each touch lands with it.
    const std::optional<TAreaFit>& Fit() const { return m_fit; }

    void OnFrame(const TMonitoredFrame& frame, int64_t nowMicros);
    void Tick(int64_t nowMicros);
    void Cancel() { m_phase = TSessionPhase::Cancelled; }
    // Back to the first target with nothing taken.
    void Redo(int64_t nowMicros);

private:
    void Accept(const TPointD& raw);
    void FitAll();
    std::optional<TPointD> Predict(int target) const;
    void Instruct(const std::string& before);

    TSessionSetup m_setup;
    std::vector<TPointD> m_targets;
    std::vector<std::optional<TPointD>> m_raw;  // the touch taken on each target
    std::vector<int> m_pending;                 // targets still to take, in order
    CTouchTaker m_taker;
    TSessionPhase m_phase = TSessionPhase::Taking;
    std::string m_message;
    std::optional<TAreaFit> m_fit;
    int64_t m_lastActivity = 0;
};
