#include "EvdevExpectation.h"

#include <linux/input-event-codes.h>

#include <algorithm>
#include <cstdlib>

namespace {

struct TCodeName {
    uint16_t type;
    uint16_t code;
    const char* name;
};

constexpr TCodeName kNames[] = {
    {EV_ABS, ABS_X, "ABS_X"},
    {EV_ABS, ABS_Y, "ABS_Y"},
    {EV_REL, REL_WHEEL, "REL_WHEEL"},
    {EV_REL, REL_HWHEEL, "REL_HWHEEL"},
    {EV_REL, REL_WHEEL_HI_RES, "REL_WHEEL_HI_RES"},
    {EV_REL, REL_HWHEEL_HI_RES, "REL_HWHEEL_HI_RES"},
    {EV_KEY, BTN_LEFT, "BTN_LEFT"},
    {EV_KEY, BTN_RIGHT, "BTN_RIGHT"},
    {EV_KEY, KEY_LEFTCTRL, "KEY_LEFTCTRL"},
    {EV_KEY, KEY_LEFTALT, "KEY_LEFTALT"},
    {EV_KEY, KEY_LEFTSHIFT, "KEY_LEFTSHIFT"},
    {EV_KEY, KEY_LEFTMETA, "KEY_LEFTMETA"},
    {EV_KEY, KEY_LEFT, "KEY_LEFT"},
    {EV_KEY, KEY_RIGHT, "KEY_RIGHT"},
    {EV_KEY, KEY_UP, "KEY_UP"},
    {EV_KEY, KEY_DOWN, "KEY_DOWN"},
    {EV_KEY, KEY_0, "KEY_0"},
    {EV_KEY, KEY_9, "KEY_9"},
};

bool Matches(const TEvExpected& expected, const TEvEvent& seen) {
    if (expected.type != seen.type || expected.code != seen.code) return false;
    const int64_t off = static_cast<int64_t>(seen.value) - expected.value;
    return std::llabs(off) <= expected.tolerance;
}

}  // namespace

void CEvdevExpectation::AddAbs(TEvExpectedPacket* packet, uint16_t code, int32_t value,
                               int32_t tolerance) {
    auto it = m_abs.find(code);
    const int32_t current = it != m_abs.end() ? it->second : 0;
    if (current == value) return;  // the input core drops an unchanged value
    packet->push_back({EV_ABS, code, value, tolerance});
    m_abs[code] = value;
}

void CEvdevExpectation::AddKey(TEvExpectedPacket* packet, uint16_t code, bool down) {
    auto it = m_keys.find(code);
    const bool current = it != m_keys.end() && it->second;
    if (current == down) return;  // and a key already in that state
    packet->push_back({EV_KEY, code, down ? 1 : 0, 0});
    m_keys[code] = down;
}

void CEvdevExpectation::Push(TEvExpectedPacket packet) {
    if (!packet.empty()) m_packets.push_back(std::move(packet));  // and an empty report
}

CEvdevExpectation& CEvdevExpectation::Pointer(int32_t x, int32_t y, int32_t tolerance,
                                              std::optional<std::pair<uint16_t, bool>> button) {
    TEvExpectedPacket packet;
    AddAbs(&packet, ABS_X, x, tolerance);
    AddAbs(&packet, ABS_Y, y, tolerance);
    if (button) AddKey(&packet, button->first, button->second);
    Push(std::move(packet));
    return *this;
}

CEvdevExpectation& CEvdevExpectation::Key(uint16_t code, bool down) {
    TEvExpectedPacket packet;
    AddKey(&packet, code, down);
    Push(std::move(packet));
    return *this;
}

CEvdevExpectation& CEvdevExpectation::Chord(const std::vector<uint16_t>& modifiers, uint16_t key) {
    for (uint16_t modifier : modifiers) Key(modifier, true);
    Key(key, true);
    Key(key, false);
    for (auto it = modifiers.rbegin(); it != modifiers.rend(); ++it) Key(*it, false);
    return *this;
}

CEvdevExpectation& CEvdevExpectation::Wheel(int32_t hiRes, int32_t detents) {
    TEvExpectedPacket packet;
    if (hiRes != 0) packet.push_back({EV_REL, REL_WHEEL_HI_RES, hiRes, 0});
    if (detents != 0) packet.push_back({EV_REL, REL_WHEEL, detents, 0});
    Push(std::move(packet));
    return *this;
}

std::string EvdevEventName(uint16_t type, uint16_t code) {
    for (const TCodeName& n : kNames) {
        if (n.type == type && n.code == code) return n.name;
    }
    return "EV_" + std::to_string(type) + "/" + std::to_string(code);
}

std::string DescribePacket(const std::vector<TEvEvent>& events) {
    std::string text = "[";
    for (size_t i = 0; i < events.size(); ++i) {
        if (i > 0) text += ", ";
        text += EvdevEventName(events[i].type, events[i].code) + " " +
                std::to_string(events[i].value);
    }
    return text + "]";
}

std::string DescribeExpected(const TEvExpectedPacket& packet) {
    std::string text = "[";
    for (size_t i = 0; i < packet.size(); ++i) {
        if (i > 0) text += ", ";
        text += EvdevEventName(packet[i].type, packet[i].code) + " " +
                std::to_string(packet[i].value);
        if (packet[i].tolerance > 0) {
            // Appended in two steps: "~" + to_string trips a false -Wrestrict in GCC 12 at -O3.
            text += '~';
            text += std::to_string(packet[i].tolerance);
        }
    }
    return text + "]";
}

std::string CompareEvdev(const std::vector<TEvExpectedPacket>& expected,
                         const std::vector<TEvPacket>& seen) {
    const size_t common = std::min(expected.size(), seen.size());
    for (size_t i = 0; i < common; ++i) {
        const TEvExpectedPacket& want = expected[i];
        const std::vector<TEvEvent>& got = seen[i].events;
        bool same = want.size() == got.size();
        for (size_t k = 0; same && k < want.size(); ++k) same = Matches(want[k], got[k]);
        if (!same) {
            return "report " + std::to_string(i + 1) + " of " + std::to_string(expected.size()) +
                   ": expected " + DescribeExpected(want) + ", saw " + DescribePacket(got);
        }
    }
    if (seen.size() > expected.size()) {
        return "expected " + std::to_string(expected.size()) + " reports, saw " +
               std::to_string(seen.size()) + "; the first extra is " +
               DescribePacket(seen[expected.size()].events);
    }
    if (seen.size() < expected.size()) {
        return "expected " + std::to_string(expected.size()) + " reports, saw " +
               std::to_string(seen.size()) + "; the first missing is " +
               DescribeExpected(expected[seen.size()]);
    }
    return "";
}

std::vector<TEvPacket> PacketsOfType(const std::vector<TEvPacket>& packets, uint16_t type) {
    std::vector<TEvPacket> out;
    for (const TEvPacket& packet : packets) {
        bool all = !packet.events.empty();
        for (const TEvEvent& e : packet.events) all = all && e.type == type;
        if (all) out.push_back(packet);
    }
    return out;
}
