#include "GestureRecorder.h"

#include <algorithm>
#include <sstream>

namespace {

constexpr int64_t kStampSecond = 4'000'000;
constexpr int32_t kMinCoord = 1;       // what a script position may be
constexpr int32_t kMaxCoord = 32766;
constexpr size_t kMaxContacts = 9;

}  // namespace

int64_t StampToMicros(int64_t stamp) {
    // The microseconds part stays below a million, so the stamp splits back uniquely.
    const int64_t seconds = stamp / kStampSecond;
    return seconds * 1'000'000 + stamp % kStampSecond;
}

CGestureRecorder::CGestureRecorder(std::ostream& out, const std::string& header) : m_out(out) {
    std::istringstream lines(header);
    for (std::string line; std::getline(lines, line);) m_out << "# " << line << "\n";
}

void CGestureRecorder::Wait(int64_t micros) {
    // Several waits add up; each holds at most an hour.
    while (micros > kMaxWaitMicros) {
        m_out << "wait " << kMaxWaitMicros << "us\n";
        micros -= kMaxWaitMicros;
    }
    m_out << "wait " << micros << "us\n";
}

void CGestureRecorder::FlushHold() {
    if (m_pendingHold > 0) m_out << "hold " << m_pendingHold << "\n";
    m_pendingHold = 0;
}

void CGestureRecorder::Add(const TMonitoredFrame& frame) {
    const int64_t now = StampToMicros(frame.timeStamp);
    bool waited = false;
    if (m_first) {
        const int64_t withinSecond = now % 1'000'000;
        if (withinSecond > 0) {
            Wait(withinSecond);
            waited = true;
        }
    } else {
        // A clock that stepped back plays as frames at the same time.
        const int64_t gap = std::max<int64_t>(0, now - m_lastMicros);
        if (gap != kPeriodMicros) {
            FlushHold();
            Wait(gap);
            waited = true;
        }
    }
    m_first = false;
    m_lastMicros = now;
    ++m_frames;

    std::string contacts;
    size_t count = 0;
    for (const TMonitoredContact& c : frame.contacts) {
        if (c.retired || count == kMaxContacts) continue;
        contacts += count++ == 0 ? "raw " : ", ";
        contacts += std::to_string(+c.id) + " " + std::to_string(+c.status) + " " +
                    std::to_string(std::clamp(c.x, kMinCoord, kMaxCoord)) + " " +
                    std::to_string(std::clamp(c.y, kMinCoord, kMaxCoord));
    }
    if (count == 0) {
        // `hold` makes empty frames: `raw` never puts a finger down in the player.
        if (waited) FlushHold();
        ++m_pendingHold;
        return;
    }
    ++m_framesWithContacts;
    FlushHold();
    m_out << contacts << "\n";
}

void CGestureRecorder::Finish() {
    FlushHold();
    m_out.flush();
}
