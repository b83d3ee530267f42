// Expected evdev reports: the input core's filtering of unchanged values, and the comparison
// with what a reader saw.
#include "EvdevExpectation.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <vector>

namespace {

std::vector<TEvPacket> Seen(std::vector<std::vector<TEvEvent>> reports) {
    std::vector<TEvPacket> packets;
    for (auto& events : reports) packets.push_back(TEvPacket{std::move(events), 0});
    return packets;
}

// Verify that an axis keeping its value and a button already in that state are left out, and
// that a report left empty is not expected at all.
TEST(CEvdevExpectation, DropsWhatDidNotChange) {
    CEvdevExpectation expect;
    expect.Pointer(100, 0, 0, {{BTN_LEFT, true}})  // Y starts at 0: unchanged
        .Pointer(100, 0)                            // nothing changed: no report
        .Pointer(100, 50, 0, {{BTN_LEFT, true}})    // still pressed: only Y
        .Pointer(100, 50, 0, {{BTN_LEFT, false}});
    EXPECT_EQ(CompareEvdev(expect.Packets(), Seen({{{EV_ABS, ABS_X, 100}, {EV_KEY, BTN_LEFT, 1}},
                                                   {{EV_ABS, ABS_Y, 50}},
                                                   {{EV_KEY, BTN_LEFT, 0}}})),
              "");
    EXPECT_EQ(expect.Packets().size(), 3u);
}

// Verify that the state a reader has seen is where an expectation starts.
TEST(CEvdevExpectation, StartsFromTheSeenState) {
    CEvdevExpectation expect;
    expect.SetAbs(ABS_X, 700);
    expect.SetAbs(ABS_Y, 800);
    expect.SetKey(BTN_LEFT, true);
    expect.Pointer(700, 900, 0, {{BTN_LEFT, true}}).Pointer(0, 0, 0, {{BTN_LEFT, false}});
    ASSERT_EQ(expect.Packets().size(), 2u);
    EXPECT_EQ(DescribeExpected(expect.Packets()[0]), "[ABS_Y 900]");
    EXPECT_EQ(DescribeExpected(expect.Packets()[1]), "[ABS_X 0, ABS_Y 0, BTN_LEFT 0]");
}

// Verify a chord: modifiers pressed in order, the key, then released in reverse, one report
// each; a modifier already held is not pressed again but is released.
TEST(CEvdevExpectation, ChordOrder) {
    CEvdevExpectation expect;
    expect.SetKey(KEY_LEFTALT, true);
    expect.Chord({KEY_LEFTCTRL, KEY_LEFTALT}, KEY_RIGHT);
    const auto seen = Seen({{{EV_KEY, KEY_LEFTCTRL, 1}},
                            {{EV_KEY, KEY_RIGHT, 1}},
                            {{EV_KEY, KEY_RIGHT, 0}},
                            {{EV_KEY, KEY_LEFTALT, 0}},
                            {{EV_KEY, KEY_LEFTCTRL, 0}}});
    EXPECT_EQ(CompareEvdev(expect.Packets(), seen), "");
}

// Verify the wheel report: hi-res units first, then detents; no detents, no detent event.
TEST(CEvdevExpectation, Wheel) {
    CEvdevExpectation expect;
    expect.Wheel(120, 1).Wheel(-60, 0).Wheel(0, 0);
    ASSERT_EQ(expect.Packets().size(), 2u);
    EXPECT_EQ(DescribeExpected(expect.Packets()[0]), "[REL_WHEEL_HI_RES 120, REL_WHEEL 1]");
    EXPECT_EQ(DescribeExpected(expect.Packets()[1]), "[REL_WHEEL_HI_RES -60]");
}

// Verify that a value within the tolerance matches and one beyond it does not, and that the
// message names the report and both sides.
TEST(CompareEvdev, ToleranceOnValues) {
    CEvdevExpectation expect;
    expect.Pointer(12000, 4000, 1);
    const auto near = Seen({{{EV_ABS, ABS_X, 11999}, {EV_ABS, ABS_Y, 4001}}});
    EXPECT_EQ(CompareEvdev(expect.Packets(), near), "");
    const auto far = Seen({{{EV_ABS, ABS_X, 11998}, {EV_ABS, ABS_Y, 4000}}});
    EXPECT_EQ(CompareEvdev(expect.Packets(), far),
              "report 1 of 1: expected [ABS_X 12000~1, ABS_Y 4000~1], "
              "saw [ABS_X 11998, ABS_Y 4000]");
    CEvdevExpectation exact;
    exact.Wheel(120, 1);
    EXPECT_NE(CompareEvdev(exact.Packets(), Seen({{{EV_REL, REL_WHEEL_HI_RES, 121},
                                                   {EV_REL, REL_WHEEL, 1}}})),
              "");
}

// Verify that the order of events within a report, their codes and types all count.
TEST(CompareEvdev, OrderCodesAndTypesCount) {
    CEvdevExpectation expect;
    expect.Wheel(120, 1);
    EXPECT_NE(CompareEvdev(expect.Packets(), Seen({{{EV_REL, REL_WHEEL, 1},
                                                    {EV_REL, REL_WHEEL_HI_RES, 120}}})),
              "");
    EXPECT_NE(CompareEvdev(expect.Packets(), Seen({{{EV_REL, REL_HWHEEL_HI_RES, 120},
                                                    {EV_REL, REL_HWHEEL, 1}}})),
              "");
    CEvdevExpectation key;
    key.Key(KEY_UP, true);
    EXPECT_NE(CompareEvdev(key.Packets(), Seen({{{EV_KEY, KEY_DOWN, 1}}})), "");
    EXPECT_NE(CompareEvdev(key.Packets(), Seen({{{EV_KEY, KEY_UP, 0}}})), "");
    EXPECT_NE(CompareEvdev(key.Packets(), Seen({{{EV_ABS, KEY_UP, 1}}})), "");
    EXPECT_NE(CompareEvdev(key.Packets(), Seen({{{EV_KEY, KEY_UP, 1}, {EV_KEY, KEY_UP, 1}}})), "");
}

// Verify the messages for reports missing and left over.
TEST(CompareEvdev, MissingAndExtraReports) {
    CEvdevExpectation expect;
    expect.Key(KEY_UP, true).Key(KEY_UP, false);
    EXPECT_EQ(CompareEvdev(expect.Packets(), Seen({{{EV_KEY, KEY_UP, 1}}})),
              "expected 2 reports, saw 1; the first missing is [KEY_UP 0]");
    EXPECT_EQ(CompareEvdev(expect.Packets(), Seen({{{EV_KEY, KEY_UP, 1}},
                                                   {{EV_KEY, KEY_UP, 0}},
                                                   {{EV_REL, REL_WHEEL, -1}}})),
              "expected 2 reports, saw 3; the first extra is [REL_WHEEL -1]");
    EXPECT_EQ(CompareEvdev({}, {}), "");
}

// Verify the split of an interleaved stream by event type: mixed and empty reports belong to
// neither side.
TEST(PacketsOfType, KeepsReportsOfOneTypeOnly) {
    const auto seen = Seen({{{EV_REL, REL_WHEEL_HI_RES, 120}, {EV_REL, REL_WHEEL, 1}},
                            {{EV_KEY, KEY_LEFTCTRL, 1}},
                            {{EV_ABS, ABS_X, 5}, {EV_KEY, BTN_LEFT, 1}},
                            {},
                            {{EV_REL, REL_WHEEL_HI_RES, -120}, {EV_REL, REL_WHEEL, -1}}});
    const auto rel = PacketsOfType(seen, EV_REL);
    ASSERT_EQ(rel.size(), 2u);
    EXPECT_EQ(rel[1].events[1].value, -1);
    const auto keys = PacketsOfType(seen, EV_KEY);
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].events[0].code, KEY_LEFTCTRL);
    EXPECT_TRUE(PacketsOfType(seen, EV_ABS).empty());
}

}  // namespace
