#include "EventSink.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>

namespace {

bool IsMouse(TInputEventType type) {
    return type != TInputEventType::KeyDown && type != TInputEventType::KeyUp &&
           type != TInputEventType::ScrollWheel;
}

const char* TapName(TEventTap tap) { return tap == TEventTap::Hid ? "hid" : "session"; }
const char* ButtonName(TMouseButton button) {
    return button == TMouseButton::Left ? "left" : "right";
}

}  // namespace

TInputEvent TInputEvent::Mouse(TInputEventType type, double x, double y, uint64_t flags,
                               int64_t clickState, TMouseButton button) {
    TInputEvent e;
    e.type = type;
    e.tap = TEventTap::Hid;
    e.button = button;
    e.x = x;
    e.y = y;
    e.flags = flags;
    e.clickState = clickState;
    return e;
}

TInputEvent TInputEvent::Key(bool down, uint16_t keyCode, uint64_t flags) {
    TInputEvent e;
    e.type = down ? TInputEventType::KeyDown : TInputEventType::KeyUp;
    e.tap = TEventTap::Session;
    e.keyCode = keyCode;
    e.flags = flags;
    return e;
}

TInputEvent TInputEvent::Scroll(int32_t wheel1, int32_t wheel2) {
    TInputEvent e;
    e.type = TInputEventType::ScrollWheel;
    e.tap = TEventTap::Hid;
    e.wheel1 = wheel1;
    e.wheel2 = wheel2;
    return e;
}

const char* InputEventTypeName(TInputEventType type) {
    switch (type) {
        case TInputEventType::MouseMoved: return "mouseMoved";
        case TInputEventType::LeftMouseDown: return "leftMouseDown";
        case TInputEventType::LeftMouseUp: return "leftMouseUp";
        case TInputEventType::LeftMouseDragged: return "leftMouseDragged";
        case TInputEventType::RightMouseDown: return "rightMouseDown";
        case TInputEventType::RightMouseUp: return "rightMouseUp";
        case TInputEventType::KeyDown: return "keyDown";
        case TInputEventType::KeyUp: return "keyUp";
        case TInputEventType::ScrollWheel: return "scrollWheel";
    }
    return "unknown";
}

std::string DescribeInputEvent(const TInputEvent& e) {
    char buf[200];
    int n = 0;
    if (IsMouse(e.type)) {
        n = std::snprintf(buf, sizeof buf, "%s %s %s (%.17g, %.17g)", InputEventTypeName(e.type),
                          TapName(e.tap), ButtonName(e.button), e.x, e.y);
    } else if (e.type == TInputEventType::ScrollWheel) {
        n = std::snprintf(buf, sizeof buf, "%s %s wheels %d %d", InputEventTypeName(e.type),
                          TapName(e.tap), e.wheel1, e.wheel2);
    } else {
        n = std::snprintf(buf, sizeof buf, "%s %s key %u", InputEventTypeName(e.type),
                          TapName(e.tap), static_cast<unsigned>(e.keyCode));
    }
    std::string out(buf, n > 0 ? static_cast<size_t>(n) : 0);
    if (e.flags != EVENT_FLAG_NONE) {
        std::snprintf(buf, sizeof buf, " flags=0x%llx", static_cast<unsigned long long>(e.flags));
        out += buf;
    }
    if (e.clickState != 0) out += " click=" + std::to_string(e.clickState);
    return out;
}

void PrintTo(const TInputEvent& event, std::ostream* out) { *out << DescribeInputEvent(event); }

void CRecordingEventSink::Post(const TInputEvent& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(event);
}

std::vector<TInputEvent> CRecordingEventSink::Events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<TInputEvent> CRecordingEventSink::Take() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<TInputEvent> taken;
    taken.swap(m_events);
    return taken;
}

void CRecordingEventSink::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
}

size_t CRecordingEventSink::Count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
}

std::string CJsonLinesEventSink::ToJsonLine(const TInputEvent& e, const TKeyNamer& linuxKeys) {
    nlohmann::ordered_json j;
    j["type"] = InputEventTypeName(e.type);
    j["tap"] = TapName(e.tap);
    if (IsMouse(e.type)) {
        j["button"] = ButtonName(e.button);
        j["x"] = e.x;
        j["y"] = e.y;
        if (e.clickState != 0) j["clickState"] = e.clickState;
    } else if (e.type == TInputEventType::ScrollWheel) {
        j["unit"] = "pixel";
        j["wheelCount"] = 2;
        j["wheel1"] = e.wheel1;
        j["wheel2"] = e.wheel2;
    } else {
        j["keyCode"] = e.keyCode;
    }
    j["flags"] = e.flags;
    // Last, so that every other member keeps its place.
    const bool key = e.type == TInputEventType::KeyDown || e.type == TInputEventType::KeyUp;
    if (key && linuxKeys) j["linuxKeys"] = linuxKeys(e);
    return j.dump();
}

void CJsonLinesEventSink::Post(const TInputEvent& event) {
    const std::string line = ToJsonLine(event, m_linuxKeys);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_out << line << '\n';
    m_out.flush();
}
