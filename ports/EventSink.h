// The one narrow road from gesture recognition to the operating system: synthetic mouse, key
// and scroll events, described in the window system's own vocabulary, handed to a sink.
//
// Platform sinks (Quartz, uinput) turn each event into a real one; CRecordingEventSink keeps
// them for tests, CJsonLinesEventSink writes one JSON object per line (the dry-run output,
// fields in docs/event-output.md), CDiscardEventSink drops them.
//
// A sink may be called from several threads (each device worker posts, and the main thread
// may release a held button); every sink here is safe for that.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

// Event flag masks, with the window system's values.
constexpr uint64_t EVENT_FLAG_NONE = 0;
constexpr uint64_t EVENT_FLAG_CONTROL = 0x40000;
constexpr uint64_t EVENT_FLAG_COMMAND = 0x100000;
constexpr uint64_t EVENT_FLAG_SECONDARY_FN = 0x800000;

enum class TInputEventType : uint8_t {
    MouseMoved,
    LeftMouseDown,
    LeftMouseUp,
    LeftMouseDragged,
    RightMouseDown,
    RightMouseUp,
    KeyDown,
    KeyUp,
    ScrollWheel,  // pixel units, two wheels
};

enum class TMouseButton : uint8_t { Left, Right };

// Where an event enters the event stream: mouse and scroll events at the HID level, keyboard
// shortcuts at the session level.
enum class TEventTap : uint8_t { Hid, Session };

struct TInputEvent {
    TInputEventType type = TInputEventType::MouseMoved;
    TEventTap tap = TEventTap::Hid;
    TMouseButton button = TMouseButton::Left;  // mouse events
    double x = 0.0;                            // mouse events: screen points
    double y = 0.0;
    uint64_t flags = EVENT_FLAG_NONE;  // EVENT_FLAG_NONE: the event's flags are not set
    int64_t clickState = 0;            // mouse events: 0 not set, 1 click, 2 double click
    uint16_t keyCode = 0;              // key events: macOS virtual key code
    int32_t wheel1 = 0;                // scroll: first (vertical) wheel, pixels
    int32_t wheel2 = 0;                // scroll: second wheel, pixels

    bool operator==(const TInputEvent&) const = default;

    // Builders for the usual shapes. Mouse events go to the HID tap, key events to the session.
    static TInputEvent Mouse(TInputEventType type, double x, double y, uint64_t flags,
                             int64_t clickState = 0, TMouseButton button = TMouseButton::Left);
    static TInputEvent Key(bool down, uint16_t keyCode, uint64_t flags);
    static TInputEvent Scroll(int32_t wheel1, int32_t wheel2 = 0);
};

// "leftMouseDown", "keyUp", "scrollWheel", ...
const char* InputEventTypeName(TInputEventType type);
// One readable line, e.g. "leftMouseDown hid left (12.5, 40) flags=0x800000 click=1".
std::string DescribeInputEvent(const TInputEvent& event);
// So GoogleTest prints events readably.
void PrintTo(const TInputEvent& event, std::ostream* out);

class CEventSink {
public:
    virtual ~CEventSink() = default;
    // Posts one event. Never fails as seen by the caller.
    virtual void Post(const TInputEvent& event) = 0;
    // The events one touch frame brings: a sink may hold what this thread posts between the two
    // calls and deliver it at EndFrame, in order, in one go. Not nested; see TEventFrame.
    virtual void BeginFrame() {}
    virtual void EndFrame() {}
};

// BeginFrame and EndFrame around a scope; a null sink is left alone.
class TEventFrame {
public:
    explicit TEventFrame(CEventSink* sink) : m_sink(sink) {
        if (m_sink != nullptr) m_sink->BeginFrame();
    }
    ~TEventFrame() {
        if (m_sink != nullptr) m_sink->EndFrame();
    }
    TEventFrame(const TEventFrame&) = delete;
    TEventFrame& operator=(const TEventFrame&) = delete;

private:
    CEventSink* const m_sink;
};

class CDiscardEventSink final : public CEventSink {
public:
    void Post(const TInputEvent&) override {}
};

// Keeps every posted event, in order.
class CRecordingEventSink final : public CEventSink {
public:
    void Post(const TInputEvent& event) override;
    std::vector<TInputEvent> Events() const;
    // Returns the events recorded so far and forgets them.
    std::vector<TInputEvent> Take();
    void Clear();
    size_t Count() const;

private:
    mutable std::mutex m_mutex;
    std::vector<TInputEvent> m_events;
};

// The names of the keys that the platform's sink changes for a key event, in order (evdev names
// on Linux: "KEY_LEFTCTRL"); empty for a shortcut that presses nothing. Must be safe to call
// from several threads.
using TKeyNamer = std::function<std::vector<std::string>(const TInputEvent&)>;

// Writes one JSON object per event and line, flushed per line. The stream must outlive the sink.
class CJsonLinesEventSink final : public CEventSink {
public:
    explicit CJsonLinesEventSink(std::ostream& out, TKeyNamer linuxKeys = {})
        : m_out(out), m_linuxKeys(std::move(linuxKeys)) {}
    void Post(const TInputEvent& event) override;

    // The line written for one event, without the newline. With a key namer, key events end
    // with a "linuxKeys" member: the names it gives.
    static std::string ToJsonLine(const TInputEvent& event, const TKeyNamer& linuxKeys = {});

private:
    std::mutex m_mutex;
    std::ostream& m_out;
    const TKeyNamer m_linuxKeys;
};
