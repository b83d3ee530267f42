#include "MtSlotTrace.h"

#include <linux/input-event-codes.h>

#include <algorithm>
#include <cstdlib>

TMtState CMtSlotTrace::Feed(const std::vector<TEvEvent>& report) {
    for (const TEvEvent& e : report) {
        if (e.type == EV_KEY && e.code == BTN_TOUCH) m_state.touching = e.value != 0;
        if (e.type != EV_ABS) continue;
        switch (e.code) {
            case ABS_MT_SLOT: m_slot = e.value; break;
            case ABS_MT_TRACKING_ID: m_slots[m_slot].trackingId = e.value; break;
            case ABS_MT_POSITION_X: m_slots[m_slot].x = e.value; break;
            case ABS_MT_POSITION_Y: m_slots[m_slot].y = e.value; break;
            case ABS_X: m_state.x = e.value; break;
            case ABS_Y: m_state.y = e.value; break;
            default: break;
        }
    }
    m_state.touches.clear();
    for (const auto& [slot, s] : m_slots) {
        if (s.trackingId >= 0) m_state.touches.push_back({slot, s.trackingId, s.x, s.y});
    }
    return m_state;
}

std::vector<TMtState> TraceMtReports(const std::vector<TEvPacket>& reports) {
    CMtSlotTrace trace;
    std::vector<TMtState> states;
    for (const TEvPacket& report : reports) states.push_back(trace.Feed(report.events));
    return states;
}

std::string DescribeMtState(const TMtState& state) {
    std::string text = "{";
    for (const TMtTouch& t : state.touches) {
        text += "slot " + std::to_string(t.slot) + " id " + std::to_string(t.trackingId) + " (" +
                std::to_string(t.x) + ", " + std::to_string(t.y) + "); ";
    }
    text += state.touching ? "BTN_TOUCH 1" : "BTN_TOUCH 0";
    if (state.touching) {
        text += " at (" + std::to_string(state.x) + ", " + std::to_string(state.y) + ")";
    }
    return text + "}";
}

namespace {

bool Near(int32_t a, int32_t b, int32_t tolerance) {
    return std::llabs(static_cast<int64_t>(a) - b) <= tolerance;
}

bool Same(const TMtState& want, const TMtState& got, int32_t tolerance) {
    if (want.touching != got.touching || want.touches.size() != got.touches.size()) return false;
    if (want.touching && !(Near(want.x, got.x, tolerance) && Near(want.y, got.y, tolerance))) {
        return false;
    }
    for (size_t i = 0; i < want.touches.size(); ++i) {
        const TMtTouch& w = want.touches[i];
        const TMtTouch& g = got.touches[i];
        if (w.slot != g.slot || w.trackingId != g.trackingId || !Near(w.x, g.x, tolerance) ||
            !Near(w.y, g.y, tolerance)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string CompareMtStates(const std::vector<TMtState>& expected,
                            const std::vector<TMtState>& seen, int32_t tolerance) {
    const size_t common = std::min(expected.size(), seen.size());
    for (size_t i = 0; i < common; ++i) {
        if (!Same(expected[i], seen[i], tolerance)) {
            return "report " + std::to_string(i + 1) + " of " + std::to_string(expected.size()) +
                   ": expected " + DescribeMtState(expected[i]) + ", saw " +
                   DescribeMtState(seen[i]);
        }
    }
    if (expected.size() != seen.size()) {
        return "expected " + std::to_string(expected.size()) + " reports, saw " +
               std::to_string(seen.size()) +
               (seen.size() > expected.size()
                    ? "; the first extra leaves " + DescribeMtState(seen[common])
                    : "; the first missing leaves " + DescribeMtState(expected[common]));
    }
    return "";
}
