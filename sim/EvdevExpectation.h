// What a reader of an evdev node should see, written as the writes that cause it, and the
// comparison with what it saw. The end-to-end runs on a real kernel read the driver's virtual
// input device with this.
//
// The input core passes on changes only: an absolute value equal to the axis's last value, a key
// already in that state and a relative move of 0 are dropped, and a report left empty is not
// delivered at all. CEvdevExpectation keeps the axis and key state a reader has seen, so that an
// expectation is written as the pointer moves, presses, keys and wheel turns the driver makes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct TEvEvent {
    uint16_t type;
    uint16_t code;
    int32_t value;
    bool operator==(const TEvEvent&) const = default;
};

// The events of one report (between two SYN_REPORTs), in order, and when it was read.
struct TEvPacket {
    std::vector<TEvEvent> events;
    uint64_t readNanos = 0;
};

// One expected event; an absolute value may be off by `tolerance`.
struct TEvExpected {
    uint16_t type;
    uint16_t code;
    int32_t value;
    int32_t tolerance = 0;
};
using TEvExpectedPacket = std::vector<TEvExpected>;

class CEvdevExpectation {
public:
    // The state the reader has seen so far (axes start at 0 and keys up, as after creation).
    void SetAbs(uint16_t code, int32_t value) { m_abs[code] = value; }
    void SetKey(uint16_t code, bool down) { m_keys[code] = down; }

    // The pointer at (x, y) in axis units, optionally with a button pressed (true) or released.
    CEvdevExpectation& Pointer(int32_t x, int32_t y, int32_t tolerance = 0,
                               std::optional<std::pair<uint16_t, bool>> button = std::nullopt);
    // A key pressed or released, in a report of its own.
    CEvdevExpectation& Key(uint16_t code, bool down);
    // A chord: each modifier pressed, then the key, then all released in reverse, one report each.
    CEvdevExpectation& Chord(const std::vector<uint16_t>& modifiers, uint16_t key);
    // The vertical wheel: hi-res units and whole detents, in one report.
    CEvdevExpectation& Wheel(int32_t hiRes, int32_t detents);

    const std::vector<TEvExpectedPacket>& Packets() const { return m_packets; }

private:
    void AddAbs(TEvExpectedPacket* packet, uint16_t code, int32_t value, int32_t tolerance);
    void AddKey(TEvExpectedPacket* packet, uint16_t code, bool down);
    void Push(TEvExpectedPacket packet);

    std::map<uint16_t, int32_t> m_abs;
    std::map<uint16_t, bool> m_keys;
    std::vector<TEvExpectedPacket> m_packets;
};

// "ABS_X", "BTN_LEFT", "KEY_LEFTCTRL", ... for the codes the driver's device declares; "EV_3/7"
// style for anything else.
std::string EvdevEventName(uint16_t type, uint16_t code);
std::string DescribePacket(const std::vector<TEvEvent>& events);
std::string DescribeExpected(const TEvExpectedPacket& packet);

// The first difference between the expected and the seen reports, as one line; empty when they
// match report for report.
std::string CompareEvdev(const std::vector<TEvExpectedPacket>& expected,
                         const std::vector<TEvPacket>& seen);

// The reports made only of events of `type` (the others are left out).
std::vector<TEvPacket> PacketsOfType(const std::vector<TEvPacket>& packets, uint16_t type);
