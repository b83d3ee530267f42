#include "CalibrationSession.h"

#include <cmath>

#include "CCalibrateSystem.h"
#include "TargetLayout.h"

std::optional<_HCRECT_CONFIG_FILE> AreaToReplace(const _HARDWARE_DEV_CONFIG& config, int number) {
    if (number < 1 || number > DEV_CONFIG_MAX_AREAS || number > config.areaCount + 1) {
        return std::nullopt;
    }
    if (number <= config.areaCount) return config.areas[number - 1];
    _HCRECT_CONFIG_FILE area{};
    area.netAddress = config.netAddress;
    area.port = config.port;
    area.port2 = config.port2;
    area.mode = static_cast<uint8_t>(config.flags & 0xFF);
    area.id = static_cast<uint8_t>(number);
    return area;
}

_HARDWARE_DEV_CONFIG ConfigWithArea(const _HARDWARE_DEV_CONFIG& config, int number,
                                    const _HCRECT_CONFIG_FILE& area) {
    _HARDWARE_DEV_CONFIG out = config;
    out.areas[number - 1] = area;
    if (number > out.areaCount) out.areaCount = static_cast<uint8_t>(number);
    out.flags |= DEV_FLAG_AREAS_ENABLED;
    return out;
}

std::vector<int> AreasBackInUse(const _HARDWARE_DEV_CONFIG& config, int number) {
    std::vector<int> back;
    if ((config.flags & DEV_FLAG_AREAS_ENABLED) != 0) return back;
    for (int i = 0; i < config.areaCount && i < DEV_CONFIG_MAX_AREAS; ++i) {
        if (i + 1 != number && CCalibrateSystem::CheckCalRectConfig(&config.areas[i])) {
            back.push_back(i + 1);
        }
    }
    return back;
}

CCalibrationSession::CCalibrationSession(const TSessionSetup& setup, int64_t nowMicros)
    : m_setup(setup), m_taker(setup.geometry.rawWidth, setup.geometry.rawHeight) {
    for (const TPointD& f : TargetFractions(setup.points)) {
        m_targets.push_back({setup.output.x + f.x * setup.output.width,
                             setup.output.y + f.y * setup.output.height});
    }
    Redo(nowMicros);
}

int CCalibrationSession::TakenCount() const {
    int n = 0;
    for (const auto& r : m_raw) n += r.has_value();
    return n;
}

void CCalibrationSession::Redo(int64_t nowMicros) {
    m_raw.assign(m_targets.size(), std::nullopt);
    m_pending.clear();
    for (int i = 0; i < TargetCount(); ++i) m_pending.push_back(i);
    m_fit.reset();
    m_taker.Reset();
    m_phase = TSessionPhase::Taking;
    m_lastActivity = nowMicros;
    Instruct("");
}

void CCalibrationSession::Instruct(const std::string& before) {
    m_message = before + "Touch the centre of the cross, hold still, then lift.";
}

void CCalibrationSession::Tick(int64_t nowMicros) {
    if (m_phase == TSessionPhase::Taking && nowMicros - m_lastActivity >= m_setup.timeoutMicros) {
        m_phase = TSessionPhase::TimedOut;
        m_message = "No touch: calibration cancelled.";
    }
}

void CCalibrationSession::OnFrame(const TMonitoredFrame& frame, int64_t nowMicros) {
    if (m_phase != TSessionPhase::Taking) return;
    const TTouchResult r = m_taker.OnFrame(frame);
    switch (r.outcome) {
        case TTouchOutcome::None: return;
        case TTouchOutcome::FingerDown: m_lastActivity = nowMicros; return;
        case TTouchOutcome::Moved: return Instruct("The finger moved. ");
        case TTouchOutcome::SecondFinger: return Instruct("Use one finger only. ");
        case TTouchOutcome::TooShort: return Instruct("Hold the finger still a little longer. ");
        case TTouchOutcome::Taken: return Accept(r.raw);
    }
}

void CCalibrationSession::Accept(const TPointD& raw) {
    const int target = Current();
    const double extent = std::max(m_setup.geometry.rawWidth, m_setup.geometry.rawHeight);
    if (const auto expected = Predict(target);
        expected && std::hypot(raw.x - expected->x, raw.y - expected->y) > kMisTouchFraction * extent) {
        return Instruct("That touch was far from the cross. ");
    }
    m_raw[target] = raw;
    m_pending.erase(m_pending.begin());
    if (!m_pending.empty()) return Instruct("");
    FitAll();
}

void CCalibrationSession::FitAll() {
    TAreaFitInput in;
    in.geometry = m_setup.geometry;
    in.screenWidth = m_setup.screenWidth;
    in.screenHeight = m_setup.screenHeight;
    in.centreIndex = kCentreTarget;
    in.base = m_setup.base;
    for (int i = 0; i < TargetCount(); ++i) in.touches.push_back({m_targets[i], *m_raw[i]});
    std::string error;
    std::optional<TAreaFit> fit = FitArea(in, &error);
    if (!fit) {
        const int64_t keep = m_lastActivity;
        Redo(keep);
        return Instruct(error + ". ");
    }
    std::string off;
    for (int i = 0; i < TargetCount(); ++i) {
        if (fit->residuals[i] > kResidualFraction * m_setup.output.width) {
            m_pending.push_back(i);
            m_raw[i].reset();
            off += (off.empty() ? "" : ", ") + std::to_string(i + 1);
        }
    }
    if (!off.empty()) return Instruct("Target " + off + " was off; touch it again. ");
    m_fit = std::move(fit);
    m_phase = TSessionPhase::Check;
    m_message = "Touch anywhere to check: save if the crosses sit on the targets.";
}

// From at least three touches not in a line: the affine map from screen to raw through them
// (least squares), at the target.
std::optional<TPointD> CCalibrationSession::Predict(int target) const {
    double s[3][3] = {}, bx[3] = {}, by[3] = {};
    int n = 0;
    for (int i = 0; i < TargetCount(); ++i) {
        if (!m_raw[i] || i == target) continue;
        const double v[3] = {m_targets[i].x, m_targets[i].y, 1.0};
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) s[r][c] += v[r] * v[c];
            bx[r] += v[r] * m_raw[i]->x;
            by[r] += v[r] * m_raw[i]->y;
        }
        ++n;
    }
    if (n < 3) return std::nullopt;
    const auto det3 = [](const double m[3][3]) {
        return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
               m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    };
    const double d = det3(s);
    const double scale = s[0][0] * s[1][1];
    if (std::abs(d) <= 1e-9 * scale * s[2][2]) return std::nullopt;  // the touches lie in a line
    // Cramer's rule for each coordinate.
    const auto solve = [&](const double b[3]) {
        double out[3];
        for (int k = 0; k < 3; ++k) {
            double m[3][3];
            for (int r = 0; r < 3; ++r) {
                for (int c = 0; c < 3; ++c) m[r][c] = c == k ? b[r] : s[r][c];
            }
            out[k] = det3(m) / d;
        }
        return out[0] * m_targets[target].x + out[1] * m_targets[target].y + out[2];
    };
    return TPointD{solve(bx), solve(by)};
}
