#include "MtSlotTrace.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <string>
#include <vector>

namespace {

TEvEvent Abs(uint16_t code, int32_t value) { return {EV_ABS, code, value}; }

TEvPacket Report(std::vector<TEvEvent> events) { return TEvPacket{std::move(events), 0}; }

TMtState State(std::vector<TMtTouch> touches, bool touching, int32_t x, int32_t y) {
    return TMtState{std::move(touches), touching, x, y};
}

// A reader's view: the slot selected stays selected across reports, values a report leaves
// out keep their last value, and a slot whose tracking id went to -1 holds no touch.
TEST(MtSlotTrace, FollowsSlotsAcrossReports) {
    const std::vector<TEvPacket> reports = {
        Report({Abs(ABS_MT_TRACKING_ID, 0), Abs(ABS_MT_POSITION_X, 100),
                Abs(ABS_MT_POSITION_Y, 200), Abs(ABS_MT_SLOT, 1), Abs(ABS_MT_TRACKING_ID, 1),
                Abs(ABS_MT_POSITION_X, 300), {EV_KEY, BTN_TOUCH, 1}, Abs(ABS_X, 100),
                Abs(ABS_Y, 200)}),
        Report({Abs(ABS_MT_POSITION_Y, 50)}),  // still slot 1
        Report({Abs(ABS_MT_SLOT, 0), Abs(ABS_MT_TRACKING_ID, -1), Abs(ABS_X, 300),
                Abs(ABS_Y, 50)}),
        Report({Abs(ABS_MT_TRACKING_ID, 2)}),  // slot 0 again, at its old place
        Report({Abs(ABS_MT_TRACKING_ID, -1), Abs(ABS_MT_SLOT, 1), Abs(ABS_MT_TRACKING_ID, -1),
                {EV_KEY, BTN_TOUCH, 0}}),
    };
    const std::vector<TMtState> expected = {
        State({{0, 0, 100, 200}, {1, 1, 300, 0}}, true, 100, 200),
        State({{0, 0, 100, 200}, {1, 1, 300, 50}}, true, 100, 200),
        State({{1, 1, 300, 50}}, true, 300, 50),
        State({{0, 2, 100, 200}, {1, 1, 300, 50}}, true, 300, 50),
        State({}, false, 300, 50),
    };
    EXPECT_EQ(CompareMtStates(expected, TraceMtReports(reports), 0), "");
}

// Verify that the comparison names the first thing a reader saw differently.
TEST(MtSlotTrace, FirstDifference) {
    const TMtState want = State({{0, 4, 1000, 2000}}, true, 1000, 2000);
    const std::pair<TMtState, const char*> cases[] = {
        {State({{0, 4, 1001, 1999}}, true, 999, 2001), ""},  // within the tolerance
        {State({{0, 4, 1002, 2000}}, true, 1000, 2000),
         "saw {slot 0 id 4 (1002, 2000); BTN_TOUCH 1 at (1000, 2000)}"},
        {State({{0, 5, 1000, 2000}}, true, 1000, 2000), "id 5"},
        {State({{1, 4, 1000, 2000}}, true, 1000, 2000), "slot 1"},
        {State({{0, 4, 1000, 2000}}, false, 1000, 2000), "BTN_TOUCH 0"},
        {State({{0, 4, 1000, 2000}}, true, 5, 2000), "at (5, 2000)"},
    };
    for (const auto& [seen, difference] : cases) {
        const std::string diff = CompareMtStates({want}, {seen}, 1);
        if (*difference == 0) {
            EXPECT_EQ(diff, "");
        } else {
            EXPECT_NE(diff.find(difference), std::string::npos) << diff;
        }
    }
}

TEST(MtSlotTrace, CountsReports) {
    const TMtState none;
    EXPECT_NE(CompareMtStates({none}, {none, none}, 0).find("expected 1 reports, saw 2"),
              std::string::npos);
    EXPECT_NE(CompareMtStates({none, none}, {none}, 0).find("the first missing"),
              std::string::npos);
}

}  // namespace
