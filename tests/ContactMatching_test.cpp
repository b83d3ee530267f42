#include "ContactMatching.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/GestureHarness.h"

namespace {

std::vector<int> Ids(const CTouchPointList& list) {
    std::vector<int> ids;
    for (const CTouchPointInfo* c : list) ids.push_back(c->GetID());
    return ids;
}

// A list of tracked contacts that the test owns; whatever the functions under test leave in
// it is freed at the end.
struct OwnedList {
    CTouchPointList list;
    explicit OwnedList(std::initializer_list<int> ids) {
        for (int id : ids) list.push_back(new CTouchPointInfo(id, 1.0f, 1.0f, 0, 0, 0));
    }
    ~OwnedList() {
        for (CTouchPointInfo* c : list) delete c;
    }
};

// A frame's contact list with the given ids, linked in order.
struct FramePoints {
    std::vector<_HARDWARE_SDK_POINT> points;
    explicit FramePoints(std::initializer_list<int> ids) : points(ids.size()) {
        size_t i = 0;
        for (int id : ids) {
            points[i] = _HARDWARE_SDK_POINT{};
            points[i].id = static_cast<uint8_t>(id);
            if (i > 0) points[i - 1].next = &points[i];
            ++i;
        }
    }
    const _HARDWARE_SDK_POINT* head() const { return points.empty() ? nullptr : &points[0]; }
};

// How many times the dispatcher ran for n contacts among captured standard-output lines.
long Dispatches(const std::vector<std::string>& out, int n) {
    return std::count(out.begin(), out.end(), std::to_string(n));
}

// Verify lookup: nullptr for an empty list or an unknown id, the earlier of duplicates.
TEST(ContactMatching, FindTouchPoint) {
    OwnedList tracked{4, 7, 4};
    EXPECT_EQ(findTouchPoint(4, &tracked.list), tracked.list[0]);
    EXPECT_EQ(findTouchPoint(7, &tracked.list), tracked.list[1]);
    EXPECT_EQ(findTouchPoint(5, &tracked.list), nullptr);
    CTouchPointList empty;
    EXPECT_EQ(findTouchPoint(4, &empty), nullptr);
    EXPECT_EQ(findTouchPoint(4, nullptr), nullptr);
}

// Verify removal: the first entry with the id goes (and is freed), the order stays, an unknown
// id changes nothing.
TEST(ContactMatching, RemoveTouchPoint) {
    OwnedList tracked{4, 7, 4, 9};
    CTouchPointInfo* secondFour = tracked.list[2];
    removeTouchPoint(4, &tracked.list);
    EXPECT_EQ(Ids(tracked.list), (std::vector<int>{7, 4, 9}));
    EXPECT_EQ(tracked.list[1], secondFour);
    removeTouchPoint(5, &tracked.list);
    EXPECT_EQ(Ids(tracked.list), (std::vector<int>{7, 4, 9}));
}

struct CheckCase {
    const char* name;
    std::vector<int> tracked;
    std::vector<int> frame;
    bool nullFrame;
    std::vector<int> after;
};

class CheckTouchPoint : public testing::TestWithParam<CheckCase> {};

// Verify retirement of ids missing from the frame, with the deliberate skip of the entry that
// slides into a freed slot.
TEST_P(CheckTouchPoint, Retires) {
    const CheckCase& c = GetParam();
    OwnedList tracked{};
    for (int id : c.tracked) tracked.list.push_back(new CTouchPointInfo(id, 1, 1, 0, 0, 0));
    std::vector<_HARDWARE_SDK_POINT> points(c.frame.size());
    for (size_t i = 0; i < points.size(); ++i) {
        points[i] = _HARDWARE_SDK_POINT{};
        points[i].id = static_cast<uint8_t>(c.frame[i]);
        if (i > 0) points[i - 1].next = &points[i];
    }
    checkTouchPoint(c.nullFrame || points.empty() ? nullptr : &points[0], &tracked.list);
    EXPECT_EQ(Ids(tracked.list), c.after);
}

INSTANTIATE_TEST_SUITE_P(
    All, CheckTouchPoint,
    testing::Values(CheckCase{"OnlyThreeListed", {1, 2, 3}, {3}, false, {2, 3}},
                    CheckCase{"NullFrame", {1, 2, 3, 4}, {}, true, {2, 4}},
                    CheckCase{"AllListed", {1, 2, 3}, {3, 1, 2}, false, {1, 2, 3}},
                    CheckCase{"LastMissing", {1, 2, 3}, {1, 2}, false, {1, 2}},
                    CheckCase{"IdWidenedToInt", {255, 0}, {255}, false, {255}},
                    CheckCase{"EmptyList", {}, {1}, false, {}}),
    [](const testing::TestParamInfo<CheckCase>& info) { return std::string(info.param.name); });

// Verify the frame stamp unit: seconds times 4,000,000 plus microseconds.
TEST(ContactMatching, FrameTimeStamp) {
    EXPECT_EQ(FrameTimeStamp(timeval{1, 999999}), 4999999);
    EXPECT_EQ(FrameTimeStamp(timeval{2, 0}), 8000000);
    EXPECT_EQ(FrameTimeStamp(timeval{1'700'000'000, 5}), 6'800'000'000'000'005);
    TVirtualClock clock(0, 3);
    TScopedClock scoped(clock);
    clock.AdvanceMicros(250);
    EXPECT_EQ(CurrentFrameTimeStamp(), 12'000'250);
}

// Verify that a frame whose only contact is new drops every tracked contact and deals once.
TEST(ContactTracker, LoneNewContactClearsTheList) {
    CGestureHarness h;
    h.Play("down 1 1000 1000, 2 5000 5000\nhold 1\nvanish 1, 2\n");
    ASSERT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{1, 2}));
    h.TakeLogs();
    h.Play("down 3 9000 9000\n");
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{3}));
    const std::vector<std::string> out = h.TakeLines(TLogChannel::Stdout);
    EXPECT_EQ(Dispatches(out, 1), 1);
    EXPECT_EQ(Dispatches(out, 2), 0);
}

// Verify that two new contacts in one frame are both appended, and only the first deals.
TEST(ContactTracker, TwoNewContactsDealOnce) {
    CGestureHarness h;
    h.Play("down 1 1000 1000, 2 5000 5000\n");
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{1, 2}));
    const std::vector<TLoggedLine> logs = h.TakeLogs();
    EXPECT_EQ(std::count(logs.begin(), logs.end(), TLoggedLine{TLogChannel::System, "new point add"}), 2);
    std::vector<std::string> out;
    for (const TLoggedLine& l : logs) {
        if (l.channel == TLogChannel::Stdout) out.push_back(l.text);
    }
    EXPECT_EQ(Dispatches(out, 1), 1);
    EXPECT_EQ(Dispatches(out, 2), 0);
}

struct SpanCase {
    int64_t micros;
    bool deals;
};

class OneContactSpan : public testing::TestWithParam<SpanCase> {};

// Verify that one continuing contact is dealt with only once its samples span 4000 units.
TEST_P(OneContactSpan, SettlesAt4000) {
    CGestureHarness h;
    h.Play("down 1 1000 1000\n");
    h.TakeLogs();
    h.Play("wait " + std::to_string(GetParam().micros) + "us\nhold 1\n");
    EXPECT_EQ(Dispatches(h.TakeLines(TLogChannel::Stdout), 1), GetParam().deals ? 1 : 0);
    EXPECT_EQ(h.TakeEvents().size(), GetParam().deals ? 1u : 0u);  // the press
}

INSTANTIATE_TEST_SUITE_P(All, OneContactSpan,
                         testing::Values(SpanCase{3999, false}, SpanCase{4000, true}));

// Verify that a span across a second boundary counts 3,000,000 extra units: one millisecond
// over the boundary is enough to deal.
TEST(ContactTracker, SecondBoundaryAddsThreeMillionUnits) {
    CGestureHarness h;
    h.clock.SetTimeOfDay(CGestureHarness::kStartWallSeconds, 999'500);
    h.Play("down 1 1000 1000\n");
    h.TakeLogs();
    h.Play("wait 1ms\nhold 1\n");
    EXPECT_EQ(Dispatches(h.TakeLines(TLogChannel::Stdout), 1), 1);
    const CTouchPointPath path = h.tracker.Tracked()[0]->getPointsPath();
    EXPECT_EQ(path.back().GetBirthTime() - path.front().GetBirthTime(), 3'001'000);
}

// Verify the two-contact settling: no deal while either contact spans less than 4000.
TEST(ContactTracker, TwoContactsSettle) {
    CGestureHarness h;
    h.Play("down 1 1000 1000\nwait 3000us\ndown 2 5000 5000\n");
    h.TakeLogs();
    // Contact 1 spans 4000 after this frame; contact 2 only 1000.
    h.Play("wait 1000us\nhold 1\n");
    EXPECT_EQ(Dispatches(h.TakeLines(TLogChannel::Stdout), 2), 0);
    h.Play("wait 3000us\nhold 1\n");
    // Contact 1 is updated first (4000 vs 0 units on contact 2: no deal), then contact 2
    // reaches 4000: one deal.
    EXPECT_EQ(Dispatches(h.TakeLines(TLogChannel::Stdout), 2), 1);
}

class TwoContactLiftSpan : public testing::TestWithParam<SpanCase> {};

// Verify that a lift among two contacts deals only once both span 30000 units; the lifted
// contact is removed either way.
TEST_P(TwoContactLiftSpan, DealsAt30000) {
    CGestureHarness h;
    // Finger 2 first, so that in the lift frame it is updated before finger 1 lifts.
    h.Play("down 2 5000 5000, 1 1000 1000\n");
    h.TakeLogs();
    h.Play("wait " + std::to_string(GetParam().micros) + "us\nup 1\n");
    EXPECT_EQ(Dispatches(h.TakeLines(TLogChannel::Stdout), 2), GetParam().deals ? 1 : 0);
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{2}));
}

INSTANTIATE_TEST_SUITE_P(All, TwoContactLiftSpan,
                         testing::Values(SpanCase{29999, false}, SpanCase{30000, true}));

// Verify that a contact gone with an unknown status (7) and an id nobody tracks releases the
// one tracked contact, and removes nothing.
TEST(ContactTracker, UnknownStatusForUntrackedId) {
    CGestureHarness h;
    h.Play("down 1 1000 2000\nhold 1\n");
    h.TakeEvents();
    h.container.SetHoldStatus(true);
    h.Play("raw 1 1 1000 2000, 9 7 3000 3000\n");
    EXPECT_FALSE(h.container.holdStatus);
    EXPECT_EQ(h.TakeEvents(), (std::vector<TInputEvent>{h.Left(TInputEventType::LeftMouseDragged, 1000, 2000),
                                                        h.Left(TInputEventType::LeftMouseUp, 1000, 2000)}));
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{1}));
    EXPECT_EQ(h.tracker.LastGesture(), TFS_ONE_FINGER_UP);
}

// Verify that a tracked contact gone with status 7 is released at its last recorded
// position (the gone report's own position is not recorded) and removed.
TEST(ContactTracker, UnknownStatusRemoves) {
    CGestureHarness h;
    h.Play("down 1 1000 2000\nhold 1\n");
    h.TakeEvents();
    h.Play("raw 1 7 3000 3000\n");
    EXPECT_EQ(h.TakeEvents(), (std::vector<TInputEvent>{h.Left(TInputEventType::LeftMouseUp, 1000, 2000)}));
    EXPECT_TRUE(h.tracker.Tracked().empty());
}

// Verify the frame without contacts: release handling of the lone contact, then the list,
// the last gesture and the container's local gesture are all reset.
TEST(ContactTracker, EmptyFrameReleasesAndResets) {
    CGestureHarness h;
    h.Play("down 1 1000 2000\nhold 1\nvanish 1\n");
    h.TakeEvents();
    h.container.SetHoldStatus(true);
    EXPECT_EQ(h.tracker.LastGesture(), TFS_ONE_FINGER_DOWN);
    h.Play("hold 1\n");
    EXPECT_EQ(h.TakeEvents(), (std::vector<TInputEvent>{h.Left(TInputEventType::LeftMouseUp, 1000, 2000)}));
    EXPECT_TRUE(h.tracker.Tracked().empty());
    EXPECT_EQ(h.tracker.LastGesture(), TFS_NONE);
    EXPECT_EQ(h.container.localGesture, TFS_NONE);
    EXPECT_FALSE(h.container.holdStatus);
}

// Verify that a contact whose path a gesture emptied is not released on lift.
TEST(ContactTracker, EmptiedPathSuppressesRelease) {
    CGestureHarness h;
    h.Play("down 1 1000 2000\nhold 1\n");
    h.TakeEvents();
    h.TakeLogs();
    h.container.ClearTouchPointLists(h.tracker.Tracked());
    h.Play("vanish 1\nhold 1\n");
    EXPECT_TRUE(h.TakeEvents().empty());
    EXPECT_EQ(Dispatches(h.TakeLines(TLogChannel::Stdout), 1), 0);
}

// Verify duplicate ids: both contacts are tracked, updates go to the earlier one, and both
// survive while their id is in the frame.
TEST(ContactTracker, DuplicateIds) {
    CGestureHarness h;
    h.Play("raw 1 0 100 100, 1 0 200 200\nraw 1 1 300 300\nraw 1 1 400 400, 1 1 500 500\n");
    const CTouchPointList& tracked = h.tracker.Tracked();
    ASSERT_EQ(Ids(tracked), (std::vector<int>{1, 1}));
    EXPECT_EQ(tracked[0]->PathSize(), 4u);
    EXPECT_EQ(tracked[0]->GetBehindX(), 500.0f);
    EXPECT_EQ(tracked[1]->PathSize(), 1u);
    EXPECT_EQ(tracked[1]->GetBehindX(), 200.0f);
}

// Verify the skip of checkTouchPoint within the per-frame update: with 1, 2, 3 tracked and
// only 3 reported, 2 survives one frame longer.
TEST(ContactTracker, CheckSkipAcrossFrames) {
    CGestureHarness h;
    h.Play("down 1 1000 1000, 2 2000 2000, 3 3000 3000\nvanish 1, 2\nhold 1\n");
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{2, 3}));
    h.Play("hold 1\n");
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{3}));
}

// Verify that a continuing or lifting contact with an unknown id is created and appended
// without a "new point add" line.
TEST(ContactTracker, UnknownIdContinuingIsAppended) {
    CGestureHarness h;
    h.Play("raw 5 1 1000 1000\n");
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{5}));
    const std::vector<std::string> system = h.TakeLines(TLogChannel::System);
    EXPECT_EQ(std::count(system.begin(), system.end(), "new point add"), 0);
    h.Play("raw 5 1 1000 1000, 6 2 2000 2000\n");
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{5}));  // 6 appended, then removed
}

// Verify that the tracker frees what it holds at its end and on Reset (LeakSanitizer checks
// the rest: run under the sanitizer build).
TEST(ContactTracker, ResetDropsEverything) {
    CGestureHarness h;
    h.Play("down 1 1000 1000, 2 2000 2000\n");
    h.tracker.Reset();
    EXPECT_TRUE(h.tracker.Tracked().empty());
    EXPECT_EQ(h.tracker.LastGesture(), TFS_NONE);
    h.Play("down 3 1000 1000, 4 2000 2000\n");  // left tracked: the destructor frees them
}

}  // namespace
