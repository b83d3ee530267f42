#include "TouchTaker.h"

#include <cmath>
#include <vector>

namespace {

bool Ended(const TMonitoredContact& c) { return c.retired || c.status >= 2; }

}  // namespace

TTouchResult CTouchTaker::OnFrame(const TMonitoredFrame& frame) {
    const int64_t now = StampMicros(frame.timeStamp);
    std::vector<const TMonitoredContact*> down;
    const TMonitoredContact* mine = nullptr;
    for (const TMonitoredContact& c : frame.contacts) {
        if (m_state == TState::Pressing && c.id == m_id) {
            mine = &c;
        } else if (!Ended(c)) {
            down.push_back(&c);
        }
    }
    switch (m_state) {
        case TState::WaitForNoFinger:
            if (down.empty()) m_state = TState::Free;
            return {};
        case TState::Free:
            if (down.empty()) return {};
            if (down.size() > 1) {
                m_state = TState::WaitForNoFinger;
                return {TTouchOutcome::SecondFinger, {}};
            }
            m_state = TState::Pressing;
            m_id = down[0]->id;
            m_start = {static_cast<double>(down[0]->rawX), static_cast<double>(down[0]->rawY)};
            m_sum = m_start;
            m_samples = 1;
            m_startMicros = now;
            return {TTouchOutcome::FingerDown, {}};
        case TState::Pressing:
            break;
    }
    if (!down.empty()) {
        m_state = TState::WaitForNoFinger;
        return {TTouchOutcome::SecondFinger, {}};
    }
    if (mine != nullptr && !mine->retired) {
        if (std::abs(mine->rawX - m_start.x) > 0.01 * m_rawWidth ||
            std::abs(mine->rawY - m_start.y) > 0.01 * m_rawHeight) {
            m_state = mine->status >= 2 ? TState::Free : TState::WaitForNoFinger;
            return {TTouchOutcome::Moved, {}};
        }
        if (mine->status < 2) {
            m_sum.x += mine->rawX;
            m_sum.y += mine->rawY;
            ++m_samples;
            return {};
        }
    }
    // Lifted (or gone): taken when it rested long enough.
    m_state = TState::Free;
    if (now - m_startMicros < kRestMicros) return {TTouchOutcome::TooShort, {}};
    return {TTouchOutcome::Taken, {m_sum.x / m_samples, m_sum.y / m_samples}};
}
