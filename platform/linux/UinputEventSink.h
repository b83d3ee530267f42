// The event sink on Linux: one virtual input device made through uinput (libevdev).
//
// The device has absolute X and Y (0..32767 over the whole desktop), the left and right
// buttons, the vertical and horizontal wheels with their hi-res companions, and every key that
// a gesture's shortcut can press (EvdevKeyMap). CEvdevTranslator turns one synthetic event into
// evdev events; CUinputEventSink writes them. Posting is locked: workers and the main thread post
// at the same time.
#pragma once

#include "EvdevEvent.h"
#include "EvdevKeyMap.h"
#include "EventSink.h"
#include "LinuxScreen.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct libevdev;
struct libevdev_uinput;

inline constexpr int32_t kUinputAbsMax = 32767;
// Pixels of a scroll event that make one wheel detent (120 hi-res units).
inline constexpr int32_t kScrollPixelsPerDetent = 50;
inline constexpr int32_t kHiResPerDetent = 120;

class CEvdevTranslator {
public:
    CEvdevTranslator(TDisplayGeometry geometry, CKeyMap keys)
        : m_geometry(std::move(geometry)), m_keys(std::move(keys)) {}

    // The evdev events of one synthetic event, each group ended by a SYN_REPORT; empty when the
    // event has no equivalent (a key code without an evdev key) or is a shortcut mapped to none.
    // A key event changes exactly the keys of CKeyMap::KeyChanges, which the dry run shows.
    std::vector<TEvdevEvent> Translate(const TInputEvent& event);
    // The same, appended to `out`.
    void Translate(const TInputEvent& event, std::vector<TEvdevEvent>* out);

    // A screen point to the absolute axis: offset by the main screen's place on the desktop,
    // scaled to 0..32767 over the desktop, rounded, clamped.
    int32_t AbsoluteX(double x) const;
    int32_t AbsoluteY(double y) const;

    const CKeyMap& Keys() const { return m_keys; }
    // The key map of the next shortcut. A shortcut pressed and not yet released is released by
    // the map that pressed it; the new one takes over after that.
    void SetKeys(CKeyMap keys);

private:
    void Wheel(std::vector<TEvdevEvent>* out, int32_t pixels, uint16_t hiResCode, uint16_t code,
               int32_t* remainder);

    TDisplayGeometry m_geometry;
    CKeyMap m_keys;
    std::optional<CKeyMap> m_nextKeys;  // waits for the shortcut that is down to be released
    int m_shortcutsDown = 0;
    // Hi-res units not yet given out as whole detents, per wheel.
    int32_t m_verticalRemainder = 0;
    int32_t m_horizontalRemainder = 0;
};

// Writes events to a uinput descriptor as arrays of input_event, one system call for up to 128
// of them. False when a write fails, with `error` its errno (0: a short write).
bool WriteEvdevEvents(int fd, const std::vector<TEvdevEvent>& events, int* error);

// The message for a uinput device that cannot be made: what failed and what to do about it.
// `stage` is "open" (opening the node) or "create" (making the device on it).
std::string DescribeUinputError(const std::string& path, const char* stage, int error);

class CUinputEventSink final : public CEventSink {
public:
    // Makes the virtual device on `path` (normally /dev/uinput). Null with `error` holding one
    // line of advice when that fails.
    static std::unique_ptr<CUinputEventSink> Create(const std::string& path,
                                                    TDisplayGeometry geometry, CKeyMap keys,
                                                    std::string* error);
    // A sink that writes its evdev events (struct input_event) to `fd`, which it then owns,
    // with no device made on it: for a descriptor whose device already exists, or a stand-in.
    static std::unique_ptr<CUinputEventSink> Adopt(int fd, TDisplayGeometry geometry,
                                                   CKeyMap keys);
    ~CUinputEventSink() override;

    // Outside a frame each event is written at once; within one, the frame's events of this
    // thread are written together at EndFrame, in one system call.
    void Post(const TInputEvent& event) override;
    void BeginFrame() override;
    void EndFrame() override;
    // The chords of the next shortcuts (a reloaded configuration); see CEvdevTranslator.
    void SetKeys(CKeyMap keys);
    // The device's node under /dev/input, when the kernel told it.
    std::string DeviceNode() const;

private:
    CUinputEventSink(TDisplayGeometry geometry, CKeyMap keys)
        : m_translator(std::move(geometry), std::move(keys)) {}

    std::mutex m_mutex;
    void Write(const std::vector<TEvdevEvent>& events);

    CEvdevTranslator m_translator;  // guarded by m_mutex (it keeps the wheel remainders)
    std::vector<TEvdevEvent> m_events;  // guarded by m_mutex: the event being written now
    libevdev* m_device = nullptr;
    libevdev_uinput* m_uinput = nullptr;
    int m_fd = -1;
};
