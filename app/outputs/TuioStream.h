// One TUIO 1.1 cursor stream (/tuio/2Dcur) to one target: the cursors' sessions and paths, and
// the OSC bundles that tell a receiver about them. No sockets here: each finished bundle goes to
// a send function, so the stream can be tested and measured on its own.
//
// Per frame at most one update: a bundle `source`, `alive` (the session ids down),
// `set s x y X Y m` for each new or changed cursor, `fseq` (one higher per bundle). A frame with
// nothing new sends nothing, except that at least every `refreshMicros` of frame time an update
// carries a `set` for every cursor (or an empty `alive` when there is none), so a receiver that
// lost a datagram catches up. An update larger than the bundle limit goes out in parts, each a
// complete bundle with the whole `alive` list and its own `fseq`.
//
// One stream is used by one thread; `sessions` is shared by all streams of a run, so session
// ids are unique across frames and targets.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

// A cursor of one frame: the frame's contact id, its position as fractions of its area.
struct TTuioCursor {
    uint8_t id = 0;
    float x = 0.0f;
    float y = 0.0f;
};

// Microseconds from a frame time stamp (seconds * 4,000,000 + microseconds).
int64_t TuioFrameMicros(int64_t timeStamp);

class CTuioStream {
public:
    using SendFn = std::function<void(std::span<const uint8_t> bundle)>;

    struct TOptions {
        std::string source;          // e.g. "irframe-1@host"; at most kMaxSourceChars
        size_t maxBundleBytes = 1452;
        int64_t refreshMicros = 1'000'000;
    };
    static constexpr size_t kMaxSourceChars = 200;
    static constexpr size_t kMaxCursors = 256;  // one per contact id

    CTuioStream(const TOptions& options, std::atomic<int32_t>& sessions, SendFn send);

    // An empty update: sent when the stream starts.
    void Start();
    // The cursors of one polled frame (ids repeated in a frame count once), at `micros`.
    void Frame(int64_t micros, std::span<const TTuioCursor> cursors);
    // Every cursor ends; an empty update goes out.
    void Stop();

    // Read access for tests.
    size_t AliveCount() const { return m_cursors.size(); }
    int32_t LastFseq() const { return m_fseq; }

private:
    struct TSession {
        uint8_t id = 0;
        bool seen = false;
        bool dirty = false;
        int32_t session = 0;
        int64_t micros = 0;  // time of the last position
        float x = 0, y = 0, vx = 0, vy = 0, accel = 0, speed = 0;
        float sent[5] = {};  // x, y, vx, vy, accel as last sent
    };

    TSession* Find(uint8_t id);
    static void Track(TSession& s, const TTuioCursor& c, int64_t micros);
    // Sends the alive list and the `set`s of the sessions marked dirty, split as needed.
    void Emit();
    size_t WriteBundle(size_t firstDirty, size_t* nextDirty);

    TOptions m_options;
    std::atomic<int32_t>& m_sessions;
    SendFn m_send;
    std::vector<TSession> m_cursors;  // alive, in order of arrival
    std::vector<uint8_t> m_buffer;
    int32_t m_fseq = 0;
    std::optional<int64_t> m_lastFull;
    size_t m_fixedBytes = 0;  // bundle bytes besides the sets, for the current alive count
};
