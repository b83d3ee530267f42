#include "GestureHarness.h"

CGestureHarness::CGestureHarness(float screenWidth, float screenHeight) {
    container.SetScreenBoard(screenWidth, screenHeight);
    m_previousLog = TSetLogSink([this](TLogChannel channel, std::string_view line) {
        m_logs.push_back(TLoggedLine{channel, std::string(line)});
    });
}

CGestureHarness::~CGestureHarness() { TSetLogSink(std::move(m_previousLog)); }

void CGestureHarness::Play(std::string_view script,
                           const std::function<void(size_t)>& afterFrame) {
    std::string whole = m_script;
    whole.append(script);
    whole.push_back('\n');
    const CGestureScript parsed = CGestureScript::FromText(whole);
    m_script = std::move(whole);
    CGestureScriptPlayer player(parsed, clock, m_framesPlayed);
    size_t index = 0;
    while (const _HARDWARE_FRAME_SDK* frame = player.NextFrame()) {
        tracker.DealFrame(*frame, CurrentFrameTimeStamp());
        if (afterFrame) afterFrame(index);
        ++index;
    }
    m_framesPlayed = parsed.Frames().size();
}

std::vector<TLoggedLine> CGestureHarness::TakeLogs() {
    std::vector<TLoggedLine> taken;
    taken.swap(m_logs);
    return taken;
}

std::vector<std::string> CGestureHarness::TakeLines(TLogChannel channel) {
    std::vector<std::string> lines;
    for (const TLoggedLine& line : TakeLogs()) {
        if (line.channel == channel) lines.push_back(line.text);
    }
    return lines;
}

TInputEvent CGestureHarness::Left(TInputEventType type, float x, float y,
                                  int64_t clickState) const {
    const TScreenPoint p = Scaled(x, y);
    return TInputEvent::Mouse(type, p.x, p.y, EVENT_FLAG_SECONDARY_FN, clickState);
}

TInputEvent CGestureHarness::LeftUnscaled(TInputEventType type, float x, float y) {
    return TInputEvent::Mouse(type, x, y, EVENT_FLAG_SECONDARY_FN);
}

std::vector<TInputEvent> CGestureHarness::Shortcut(const char* key, uint64_t flags) {
    const uint16_t code = CTouchPointDeal::keyCodeForKeyString(key);
    return {TInputEvent::Key(true, code, flags), TInputEvent::Key(false, code, flags)};
}

uint64_t CGestureHarness::MicrosUntilTick(int64_t tick) {
    const uint64_t startNanos = (static_cast<uint64_t>(tick) * 1000000000ull + 59u) / 60u;
    const uint64_t now = clock.MonotonicNanos();
    if (startNanos <= now) return 0;
    return (startNanos - now + 999u) / 1000u;
}
