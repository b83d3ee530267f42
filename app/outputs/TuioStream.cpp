#include "TuioStream.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

#include "FrameTimeStamp.h"

namespace {

constexpr std::string_view kAddress = "/tuio/2Dcur";

// OSC strings: the characters, a zero, zeros up to a multiple of 4.
constexpr size_t Padded(size_t chars) { return (chars + 4) & ~size_t{3}; }

constexpr size_t kHeaderBytes = 8 + 8;  // "#bundle", time tag
constexpr size_t kElementBytes = 4 + Padded(kAddress.size());  // size, address
constexpr size_t kSetBytes = kElementBytes + Padded(8) + Padded(3) + 4 + 5 * 4;  // ",sifffff" set
constexpr size_t kFseqBytes = kElementBytes + Padded(3) + Padded(4) + 4;         // ",si" fseq

size_t SourceBytes(size_t chars) { return kElementBytes + Padded(3) + Padded(6) + Padded(chars); }
size_t AliveBytes(size_t ids) { return kElementBytes + Padded(2 + ids) + Padded(5) + 4 * ids; }

// Writes OSC into a buffer sized for the largest bundle beforehand; never checks per byte.
class COscWriter {
public:
    explicit COscWriter(uint8_t* out) : m_begin(out), m_out(out) {}

    size_t Size() const { return static_cast<size_t>(m_out - m_begin); }

    void Bundle() {
        std::memcpy(m_out, "#bundle\0", 8);
        m_out += 8;
        Int(0);  // time tag 1: "immediately"
        Int(1);
    }
    // A bundle element: its size is filled in by End.
    void Begin(std::string_view tags) {
        m_element = m_out;
        m_out += 4;
        String(kAddress);
        String(tags);
    }
    void End() {
        const auto size = static_cast<uint32_t>(m_out - m_element - 4);
        Put32(m_element, size);
    }
    // A type tag string ",s" followed by `ints` times 'i'.
    void AliveTags(size_t ints) {
        uint8_t* start = m_out;
        *m_out++ = ',';
        *m_out++ = 's';
        std::memset(m_out, 'i', ints);
        m_out += ints;
        Zeros(start);
    }
    void AliveBegin(size_t ints) {
        m_element = m_out;
        m_out += 4;
        String(kAddress);
        AliveTags(ints);
    }
    void String(std::string_view text) {
        uint8_t* start = m_out;
        std::memcpy(m_out, text.data(), text.size());
        m_out += text.size();
        Zeros(start);
    }
    void Int(int32_t value) {
        Put32(m_out, static_cast<uint32_t>(value));
        m_out += 4;
    }
    void Float(float value) {
        Put32(m_out, std::bit_cast<uint32_t>(value));
        m_out += 4;
    }

private:
    // One zero, then zeros up to a multiple of 4 from `start`.
    void Zeros(const uint8_t* start) {
        const size_t total = Padded(static_cast<size_t>(m_out - start));
        const size_t pad = total - static_cast<size_t>(m_out - start);
        std::memset(m_out, 0, pad);
        m_out += pad;
    }
    static void Put32(uint8_t* at, uint32_t value) {  // big-endian
        at[0] = static_cast<uint8_t>(value >> 24);
        at[1] = static_cast<uint8_t>(value >> 16);
        at[2] = static_cast<uint8_t>(value >> 8);
        at[3] = static_cast<uint8_t>(value);
    }

    uint8_t* m_begin;
    uint8_t* m_out;
    uint8_t* m_element = nullptr;
};

}  // namespace

int64_t TuioFrameMicros(int64_t timeStamp) {
    // The stamp is not linear in time: each second adds 4,000,000, each microsecond 1.
    int64_t seconds = timeStamp / kStampUnitsPerSecond;
    int64_t micros = timeStamp % kStampUnitsPerSecond;
    if (micros < 0) {
        micros += kStampUnitsPerSecond;
        --seconds;
    }
    return seconds * 1'000'000 + micros;
}

CTuioStream::CTuioStream(const TOptions& options, std::atomic<int32_t>& sessions, SendFn send)
    : m_options(options), m_sessions(sessions), m_send(std::move(send)) {
    if (m_options.source.size() > kMaxSourceChars) m_options.source.resize(kMaxSourceChars);
    m_cursors.reserve(kMaxCursors);
    // Room for the largest single part: every id alive and one set, whatever the limit.
    const size_t largest = kHeaderBytes + SourceBytes(m_options.source.size()) +
                           AliveBytes(kMaxCursors) + kSetBytes + kFseqBytes;
    m_buffer.resize(std::max(largest, m_options.maxBundleBytes));
}

CTuioStream::TSession* CTuioStream::Find(uint8_t id) {
    for (TSession& s : m_cursors) {
        if (s.id == id) return &s;
    }
    return nullptr;
}

void CTuioStream::Track(TSession& s, const TTuioCursor& c, int64_t micros) {
    const int64_t dt = micros - s.micros;
    if (dt > 0) {
        const float seconds = static_cast<float>(static_cast<double>(dt) * 1e-6);
        s.vx = (c.x - s.x) / seconds;
        s.vy = (c.y - s.y) / seconds;
        const float speed = std::hypot(s.vx, s.vy);
        s.accel = (speed - s.speed) / seconds;
        s.speed = speed;
        s.micros = micros;
    } else {
        s.accel = 0.0f;  // no time passed: the velocity stays as it was
    }
    s.x = c.x;
    s.y = c.y;
}

void CTuioStream::Start() {
    m_cursors.clear();
    m_lastFull.reset();
    Emit();
}

void CTuioStream::Stop() {
    m_cursors.clear();
    m_lastFull.reset();
    Emit();
}

void CTuioStream::Frame(int64_t micros, std::span<const TTuioCursor> cursors) {
    bool changed = false;
    for (TSession& s : m_cursors) s.seen = false;
    for (const TTuioCursor& c : cursors) {
        TSession* s = Find(c.id);
        if (s == nullptr) {
            if (m_cursors.size() >= kMaxCursors) continue;
            const uint32_t previous = static_cast<uint32_t>(m_sessions.fetch_add(1));
            TSession fresh;
            fresh.id = c.id;
            fresh.seen = fresh.dirty = true;
            fresh.session = static_cast<int32_t>((previous + 1) & 0x7FFFFFFFu);
            fresh.micros = micros;
            fresh.x = c.x;
            fresh.y = c.y;
            m_cursors.push_back(fresh);
            changed = true;
            continue;
        }
        if (s->seen) continue;
        s->seen = true;
        Track(*s, c, micros);
        const float now[5] = {s->x, s->y, s->vx, s->vy, s->accel};
        if (std::memcmp(now, s->sent, sizeof now) != 0) s->dirty = changed = true;
    }
    const size_t before = m_cursors.size();
    std::erase_if(m_cursors, [](const TSession& s) { return !s.seen; });
    changed = changed || m_cursors.size() != before;

    if (!m_lastFull || micros < *m_lastFull) {
        m_lastFull = micros;  // the first frame, or the clock went back: count from here
    } else if (micros - *m_lastFull >= m_options.refreshMicros) {
        changed = true;
        for (TSession& s : m_cursors) s.dirty = true;
    }
    if (!changed) return;
    // An update with a set for every cursor (or none alive) is a full one.
    if (std::all_of(m_cursors.begin(), m_cursors.end(), [](const TSession& s) { return s.dirty; })) {
        m_lastFull = micros;
    }
    Emit();
}

void CTuioStream::Emit() {
    m_fixedBytes = kHeaderBytes + SourceBytes(m_options.source.size()) +
                   AliveBytes(m_cursors.size()) + kFseqBytes;
    size_t next = 0;
    do {
        const size_t size = WriteBundle(next, &next);
        m_send(std::span<const uint8_t>(m_buffer.data(), size));
    } while (next < m_cursors.size());
}

size_t CTuioStream::WriteBundle(size_t firstDirty, size_t* nextDirty) {
    const size_t room = m_options.maxBundleBytes > m_fixedBytes
                            ? (m_options.maxBundleBytes - m_fixedBytes) / kSetBytes
                            : 0;
    const size_t perPart = std::max<size_t>(room, 1);

    COscWriter out(m_buffer.data());
    out.Bundle();
    out.Begin(",ss");
    out.String("source");
    out.String(m_options.source);
    out.End();

    out.AliveBegin(m_cursors.size());
    out.String("alive");
    for (const TSession& s : m_cursors) out.Int(s.session);
    out.End();

    size_t i = firstDirty;
    for (size_t written = 0; i < m_cursors.size(); ++i) {
        TSession& s = m_cursors[i];
        if (!s.dirty) continue;
        if (written == perPart) break;
        out.Begin(",sifffff");
        out.String("set");
        out.Int(s.session);
        out.Float(s.x);
        out.Float(s.y);
        out.Float(s.vx);
        out.Float(s.vy);
        out.Float(s.accel);
        out.End();
        s.dirty = false;
        s.sent[0] = s.x;
        s.sent[1] = s.y;
        s.sent[2] = s.vx;
        s.sent[3] = s.vy;
        s.sent[4] = s.accel;
        ++written;
    }
    *nextDirty = i;

    m_fseq = m_fseq == std::numeric_limits<int32_t>::max() ? 1 : m_fseq + 1;
    out.Begin(",si");
    out.String("fseq");
    out.Int(m_fseq);
    out.End();
    return out.Size();
}
