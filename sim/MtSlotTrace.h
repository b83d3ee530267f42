// A multitouch device's touches as a reader of its event node knows them, report by report
// (protocol B): which slots hold a touch, with which tracking id and where, and the state that
// single-touch clients read (BTN_TOUCH, ABS_X/ABS_Y). The real-kernel test checks the
// touchscreen output with it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "EvdevExpectation.h"

struct TMtTouch {
    int slot = 0;
    int32_t trackingId = 0;
    int32_t x = 0;
    int32_t y = 0;
    bool operator==(const TMtTouch&) const = default;
};

struct TMtState {
    std::vector<TMtTouch> touches;  // the slots holding a touch, in slot order
    bool touching = false;          // BTN_TOUCH
    int32_t x = 0;                  // ABS_X, ABS_Y
    int32_t y = 0;
};

class CMtSlotTrace {
public:
    // Folds one report's events in and returns the state after it.
    TMtState Feed(const std::vector<TEvEvent>& report);

private:
    struct TSlot {
        int32_t trackingId = -1;  // as after the device's creation
        int32_t x = 0;
        int32_t y = 0;
    };
    int m_slot = 0;
    std::map<int, TSlot> m_slots;
    TMtState m_state;
};

// The states after each of the reports, from a fresh device.
std::vector<TMtState> TraceMtReports(const std::vector<TEvPacket>& reports);

std::string DescribeMtState(const TMtState& state);

// The first report whose state differs, as one line (positions may be off by `tolerance`);
// empty when every report matches.
std::string CompareMtStates(const std::vector<TMtState>& expected,
                            const std::vector<TMtState>& seen, int32_t tolerance);
