#include "MtEmuUhidFrame.h"

#include <algorithm>
#include <chrono>

#include "MultiPlatformAPI.h"

namespace {

// The reply code of a frame report.
constexpr uint8_t kFrameReplyCode = 0xD1;

}  // namespace

CMtEmuUhidFrame::CMtEmuUhidFrame(const CSimFrameEncoder& encoder, TUhidIdentity identity)
    : m_encoder(encoder), m_identity(std::move(identity)) {}

CMtEmuUhidFrame::~CMtEmuUhidFrame() {
    Unplug();
}

bool CMtEmuUhidFrame::Prepare() {
    if (m_link) return false;  // one appearance per object
    m_emulator = std::make_unique<CMtDevEmulator>();
    m_emulator->SetConfigBlock(SimConfigBlock());
    m_emulator->SetIdleFrame(m_encoder.IdleFrame());
    m_emulator->SetFrameSource([this](TEmuFramePayload& payload) { return NextPayload(payload); });
    m_link = std::make_unique<CMtEmuUhidLink>(*m_emulator);
    m_link->SetSentHook([this](const uint8_t* report, size_t length, uint64_t nanos) {
        OnSent(report, length, nanos);
    });
    return true;
}

bool CMtEmuUhidFrame::Plug(const std::string& uhidPath, std::string* error) {
    if (!Prepare()) {
        *error = "the frame was plugged in before";
        return false;
    }
    return m_link->Create(uhidPath, m_identity, error);
}

bool CMtEmuUhidFrame::PlugFd(int fd, std::string* error) {
    if (!Prepare()) {
        *error = "the frame was plugged in before";
        return false;
    }
    return m_link->Adopt(fd, m_identity, error);
}

void CMtEmuUhidFrame::Unplug() {
    // A released answer must not reach the kernel after the device went.
    if (m_link) m_link->SetAnswering(false);
    {
        // First release a paced answer that waits, or the link's thread cannot be stopped.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_unplugged = true;
        m_playing = false;
        m_changed.notify_all();
    }
    if (m_link) m_link->Destroy();
}

bool CMtEmuUhidFrame::Play(const CGestureScript& script) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_playing || m_unplugged || script.Frames().empty()) return false;
    m_script = script;
    m_next = 0;
    m_playing = true;
    m_changed.notify_all();
    return true;
}

bool CMtEmuUhidFrame::WaitPlayed(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [this] { return !m_playing; }) &&
           m_script && m_next >= m_script->Frames().size();
}

bool CMtEmuUhidFrame::Playing() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_playing;
}

size_t CMtEmuUhidFrame::FramesSent() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_next;
}

uint64_t CMtEmuUhidFrame::Polls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_polls;
}

bool CMtEmuUhidFrame::WaitPollsAbove(uint64_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_polls > count; });
}

uint64_t CMtEmuUhidFrame::AnswerDueNanos(uint64_t lastAnswerNanos, uint64_t arrivedNanos,
                                         uint64_t gapMicros) {
    if (lastAnswerNanos == 0) return 0;  // the first poll: the frame has just appeared
    return std::max(lastAnswerNanos + gapMicros * 1000u, arrivedNanos + gapMicros * 500u);
}

bool CMtEmuUhidFrame::NextPayload(TEmuFramePayload& payload) {
    // The poll has just arrived: the driver stamped the previous frame before it sent it.
    const uint64_t arrived = TGetClock().MonotonicNanos();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_sending.reset();
    // Wait for the answer to be due; a script handed over meanwhile changes what is due.
    for (;;) {
        if (m_unplugged) return false;
        uint64_t gapMicros = m_idlePeriodMicros;
        if (m_playing) {
            const uint64_t scripted = m_script->Frames()[m_next].gapMicros;
            if (scripted > 0) gapMicros = scripted;
        }
        const uint64_t due = AnswerDueNanos(m_lastAnswerNanos, arrived, gapMicros);
        const uint64_t now = TGetClock().MonotonicNanos();
        if (now >= due) break;
        const bool wasPlaying = m_playing;
        m_changed.wait_for(lock, std::chrono::nanoseconds(due - now),
                           [&] { return m_unplugged || m_playing != wasPlaying; });
    }

    if (m_playing) {
        payload = m_encoder.Encode(m_script->Frames()[m_next].contacts);
        m_sending = m_next;
        if (++m_next >= m_script->Frames().size()) m_playing = false;
    } else {
        payload = m_encoder.IdleFrame();
    }
    m_lastAnswerNanos = TGetClock().MonotonicNanos();
    ++m_polls;
    m_changed.notify_all();
    return true;
}

void CMtEmuUhidFrame::OnSent(const uint8_t* report, size_t length, uint64_t nanos) {
    if (!m_sending || length == 0 || report[0] != kFrameReplyCode) return;
    const size_t index = *m_sending;
    m_sending.reset();
    if (m_frameSent) m_frameSent(index, nanos);
}
