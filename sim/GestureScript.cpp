#include "GestureScript.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include "QuotedText.h"

namespace {

struct Finger {
    int id;
    int32_t x;
    int32_t y;
};

class ScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The tokens of one line: words, with every comma a token of its own.
std::vector<std::string_view> Tokenize(std::string_view line) {
    std::vector<std::string_view> tokens;
    size_t i = 0;
    while (i < line.size()) {
        const char c = line[i];
        if (c == ' ' || c == '\t' || c == '\r') {
            ++i;
        } else if (c == ',') {
            tokens.push_back(line.substr(i, 1));
            ++i;
        } else {
            const size_t start = i;
            while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r' &&
                   line[i] != ',') {
                ++i;
            }
            tokens.push_back(line.substr(start, i - start));
        }
    }
    return tokens;
}

int64_t ParseInt(std::string_view token, int64_t low, int64_t high, const char* what) {
    int64_t value = 0;
    const auto [end, ec] = std::from_chars(token.data(), token.data() + token.size(), value);
    if (ec != std::errc() || end != token.data() + token.size()) {
        throw ScriptError(std::string(what) + " expected, found \"" + EscapedText(token) + "\"");
    }
    if (value < low || value > high) {
        throw ScriptError(std::string(what) + " " + std::to_string(value) + " is outside " +
                          std::to_string(low) + ".." + std::to_string(high));
    }
    return value;
}

// "250ms", "4000us", "2s".
uint64_t ParseDuration(std::string_view token) {
    struct Unit {
        std::string_view suffix;
        uint64_t micros;
    };
    for (const Unit& unit : {Unit{"us", 1}, Unit{"ms", 1000}, Unit{"s", 1000000}}) {
        if (token.size() > unit.suffix.size() && token.ends_with(unit.suffix)) {
            const std::string_view number = token.substr(0, token.size() - unit.suffix.size());
            // Digits only: "ms" must not be read as a number followed by "s".
            if (!std::all_of(number.begin(), number.end(),
                             [](char c) { return c >= '0' && c <= '9'; })) {
                continue;
            }
            const int64_t n = ParseInt(number, 0, 3600LL * 1000000 / static_cast<int64_t>(unit.micros),
                                       "duration");
            return static_cast<uint64_t>(n) * unit.micros;
        }
    }
    throw ScriptError("duration expected (e.g. 250ms, 4000us, 2s), found \"" + EscapedText(token) +
                      "\"");
}

// Splits tokens[from..to) into comma-separated groups of exactly `width` tokens (any
// non-empty group when `width` is 0).
std::vector<std::vector<std::string_view>> Groups(const std::vector<std::string_view>& tokens,
                                                  size_t from, size_t to, size_t width,
                                                  const char* shape) {
    std::vector<std::vector<std::string_view>> groups;
    std::vector<std::string_view> current;
    for (size_t i = from; i <= to; ++i) {
        if (i == to || tokens[i] == ",") {
            if (width == 0 ? current.empty() : current.size() != width) {
                throw ScriptError(std::string("expected ") + shape + " in each comma-separated part");
            }
            groups.push_back(current);
            current.clear();
        } else {
            current.push_back(tokens[i]);
        }
    }
    return groups;
}

class Compiler {
public:
    std::vector<TScriptFrame> Compile(std::string_view text) {
        int lineNumber = 0;
        size_t pos = 0;
        while (pos <= text.size()) {
            size_t end = text.find('\n', pos);
            if (end == std::string_view::npos) end = text.size();
            std::string_view line = text.substr(pos, end - pos);
            pos = end + 1;
            ++lineNumber;
            const size_t hash = line.find('#');
            if (hash != std::string_view::npos) line = line.substr(0, hash);
            const std::vector<std::string_view> tokens = Tokenize(line);
            if (tokens.empty()) continue;
            m_line = lineNumber;
            try {
                Command(tokens);
            } catch (const ScriptError& e) {
                throw ScriptError("line " + std::to_string(lineNumber) + ": " + e.what());
            }
        }
        return std::move(m_frames);
    }

private:
    void Command(const std::vector<std::string_view>& t) {
        const std::string_view verb = t[0];
        if (verb == "rate") {
            Expect(t.size() == 2, "usage: rate <reports per second>");
            m_periodMicros = 1000000 / static_cast<uint64_t>(ParseInt(t[1], 1, 1000000, "rate"));
        } else if (verb == "wait") {
            Expect(t.size() == 2, "usage: wait <duration>");
            m_pendingWait += ParseDuration(t[1]);
            m_waited = true;
        } else if (verb == "down") {
            std::vector<int> fresh;
            for (const auto& g : Groups(t, 1, t.size(), 3, "<id> <x> <y>")) {
                const int id = Id(g[0]);
                Expect(Find(id) == nullptr, "finger " + std::to_string(id) + " is already down");
                m_fingers.push_back(Finger{id, Coord(g[1]), Coord(g[2])});
                fresh.push_back(id);
            }
            Emit([&](const Finger& f) -> uint8_t {
                return std::find(fresh.begin(), fresh.end(), f.id) != fresh.end() ? 0 : 1;
            });
        } else if (verb == "move") {
            Expect(t.size() >= 6 && t[t.size() - 2] == "in", "usage: move <id> <x> <y>[, ...] in <frames>");
            const int64_t count = ParseInt(t.back(), 1, 1000000, "frame count");
            struct Leg {
                Finger* finger;
                int32_t x0, y0, x1, y1;
            };
            std::vector<Leg> legs;
            for (const auto& g : Groups(t, 1, t.size() - 2, 3, "<id> <x> <y>")) {
                Finger* f = Known(Id(g[0]));
                legs.push_back(Leg{f, f->x, f->y, Coord(g[1]), Coord(g[2])});
            }
            for (int64_t k = 1; k <= count; ++k) {
                for (Leg& leg : legs) {
                    leg.finger->x = Lerp(leg.x0, leg.x1, k, count);
                    leg.finger->y = Lerp(leg.y0, leg.y1, k, count);
                }
                Emit([](const Finger&) -> uint8_t { return 1; });
            }
        } else if (verb == "hold") {
            Expect(t.size() == 2, "usage: hold <frames>");
            const int64_t count = ParseInt(t[1], 1, 1000000, "frame count");
            for (int64_t k = 0; k < count; ++k) Emit([](const Finger&) -> uint8_t { return 1; });
        } else if (verb == "up") {
            // "<id>" lifts where the finger is; "<id> <x> <y>" lifts at a new position.
            std::vector<int> ids;
            for (const auto& g : Groups(t, 1, t.size(), 0, "<id> or <id> <x> <y>")) {
                Expect(g.size() == 1 || g.size() == 3,
                       "expected <id> or <id> <x> <y> in each comma-separated part");
                Finger* f = Known(Id(g[0]));
                if (g.size() == 3) {
                    f->x = Coord(g[1]);
                    f->y = Coord(g[2]);
                }
                ids.push_back(f->id);
            }
            Emit([&](const Finger& f) -> uint8_t {
                return std::find(ids.begin(), ids.end(), f.id) != ids.end() ? 2 : 1;
            });
            Forget(ids);
        } else if (verb == "vanish") {
            std::vector<int> ids;
            for (const auto& g : Groups(t, 1, t.size(), 1, "<id>")) {
                ids.push_back(Known(Id(g[0]))->id);
            }
            Forget(ids);
        } else if (verb == "gone") {
            std::vector<std::pair<int, uint8_t>> gone;
            for (const auto& g : Groups(t, 1, t.size(), 2, "<id> <status>")) {
                const int id = Known(Id(g[0]))->id;
                gone.emplace_back(id, static_cast<uint8_t>(ParseInt(g[1], 3, 255, "status")));
            }
            Emit([&](const Finger& f) -> uint8_t {
                for (const auto& [id, status] : gone) {
                    if (id == f.id) return status;
                }
                return 1;
            });
            std::vector<int> ids;
            for (const auto& entry : gone) ids.push_back(entry.first);
            Forget(ids);
        } else if (verb == "raw") {
            std::vector<TScriptContact> contacts;
            for (const auto& g : Groups(t, 1, t.size(), 4, "<id> <status> <x> <y>")) {
                contacts.push_back(TScriptContact{static_cast<uint8_t>(Id(g[0])),
                                                  static_cast<uint8_t>(ParseInt(g[1], 0, 255, "status")),
                                                  Coord(g[2]), Coord(g[3])});
            }
            Expect(contacts.size() <= SCRIPT_MAX_CONTACTS, "a frame holds at most 9 contacts");
            Push(std::move(contacts));
        } else {
            throw ScriptError("unknown command \"" + EscapedText(verb) + "\"");
        }
    }

    static void Expect(bool ok, const std::string& message) {
        if (!ok) throw ScriptError(message);
    }
    static int Id(std::string_view token) { return static_cast<int>(ParseInt(token, 0, 255, "id")); }
    static int32_t Coord(std::string_view token) {
        return static_cast<int32_t>(ParseInt(token, SCRIPT_MIN_COORD, SCRIPT_MAX_COORD, "coordinate"));
    }
    static int32_t Lerp(int32_t from, int32_t to, int64_t k, int64_t n) {
        return static_cast<int32_t>(
            std::llround(from + static_cast<double>(to - from) * static_cast<double>(k) /
                                    static_cast<double>(n)));
    }

    Finger* Find(int id) {
        for (Finger& f : m_fingers) {
            if (f.id == id) return &f;
        }
        return nullptr;
    }
    Finger* Known(int id) {
        Finger* f = Find(id);
        Expect(f != nullptr, "finger " + std::to_string(id) + " is not down");
        return f;
    }
    void Forget(const std::vector<int>& ids) {
        std::erase_if(m_fingers, [&](const Finger& f) {
            return std::find(ids.begin(), ids.end(), f.id) != ids.end();
        });
    }

    template <typename StatusOf>
    void Emit(StatusOf statusOf) {
        Expect(m_fingers.size() <= SCRIPT_MAX_CONTACTS, "a frame holds at most 9 contacts");
        std::vector<TScriptContact> contacts;
        contacts.reserve(m_fingers.size());
        for (const Finger& f : m_fingers) {
            contacts.push_back(TScriptContact{static_cast<uint8_t>(f.id), statusOf(f), f.x, f.y});
        }
        Push(std::move(contacts));
    }

    void Push(std::vector<TScriptContact> contacts) {
        Expect(m_frames.size() < SCRIPT_MAX_FRAMES,
               "a script has at most " + std::to_string(SCRIPT_MAX_FRAMES) + " frames");
        uint64_t gap = m_waited ? m_pendingWait : (m_frames.empty() ? 0 : m_periodMicros);
        m_pendingWait = 0;
        m_waited = false;
        m_frames.push_back(TScriptFrame{gap, std::move(contacts), m_line});
    }

    std::vector<TScriptFrame> m_frames;
    std::vector<Finger> m_fingers;  // in the order they went down
    uint64_t m_periodMicros = 10000;
    uint64_t m_pendingWait = 0;
    bool m_waited = false;
    int m_line = 0;
};

}  // namespace

bool CGestureScript::Parse(std::string_view text, CGestureScript* script, std::string* error) {
    try {
        std::vector<TScriptFrame> frames = Compiler().Compile(text);
        if (script) script->m_frames = std::move(frames);
        return true;
    } catch (const ScriptError& e) {
        if (error) *error = e.what();
        return false;
    }
}

CGestureScript CGestureScript::FromText(std::string_view text) {
    CGestureScript script;
    std::string error;
    if (!Parse(text, &script, &error)) throw std::invalid_argument("gesture script: " + error);
    return script;
}

uint64_t CGestureScript::DurationMicros() const {
    uint64_t total = 0;
    for (size_t i = 1; i < m_frames.size(); ++i) total += m_frames[i].gapMicros;
    return total;
}

CGestureScriptPlayer::CGestureScriptPlayer(const CGestureScript& script, TVirtualClock& clock,
                                           size_t firstFrame)
    : m_script(script), m_clock(clock), m_next(firstFrame) {
    m_points.resize(SCRIPT_MAX_CONTACTS);
    m_frame.rawWidth = 32767;
    m_frame.rawHeight = 32767;
    m_frame.logicalWidth = 32767 / 4;
    m_frame.logicalHeight = 32767 / 4;
    m_frame.pointBufferBytes = static_cast<uint16_t>(m_points.size() * sizeof(_HARDWARE_SDK_POINT));
    m_frame.pointBuffer = reinterpret_cast<uint8_t*>(m_points.data());
}

const _HARDWARE_FRAME_SDK* CGestureScriptPlayer::NextFrame() {
    if (Done()) return nullptr;
    const TScriptFrame& frame = m_script.Frames()[m_next++];
    m_clock.AdvanceMicros(frame.gapMicros);
    m_frame.points = nullptr;
    // Linked in the frame's order; the list is what contact matching walks.
    _HARDWARE_SDK_POINT* tail = nullptr;
    for (size_t i = 0; i < frame.contacts.size() && i < m_points.size(); ++i) {
        const TScriptContact& c = frame.contacts[i];
        _HARDWARE_SDK_POINT& p = m_points[i];
        p = _HARDWARE_SDK_POINT{};
        p.x = c.x;
        p.y = c.y;
        p.rawX = static_cast<uint16_t>(c.x);
        p.rawY = static_cast<uint16_t>(c.y);
        p.id = c.id;
        p.status = c.status;
        if (tail) {
            tail->next = &p;
        } else {
            m_frame.points = &p;
        }
        tail = &p;
    }
    return &m_frame;
}
