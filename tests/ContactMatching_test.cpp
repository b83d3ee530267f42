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
    explicit OwnedList(const std::vector<int>& ids) {
        for (int id : ids) list.push_back(new CTouchPointInfo(id, 1.0f, 1.0f, 0, 0, 0));
    }
    ~OwnedList() {
        for (CTouchPointInfo* c : list) delete c;
    }
};

// How many times the dispatcher ran for n contacts among captured standard-output lines.
long Dispatches(const std::vector<std::string>& out, int n) {
    return std::count(out.begin(), out.end(), std::to_string(n));
}

// Verify lookup (nullptr for an empty list or an unknown id, the earlier of duplicates) and
// removal (the first entry with the id goes and is freed, the order stays, an unknown id changes
// nothing).
TEST(ContactMatching, FindAndRemoveTouchPoint) {
    OwnedList tracked({4, 7, 4, 9});
    EXPECT_EQ(findTouchPoint(4, &tracked.list), tracked.list[0]);
    EXPECT_EQ(findTouchPoint(7, &tracked.list), tracked.list[1]);
    EXPECT_EQ(findTouchPoint(5, &tracked.list), nullptr);
    CTouchPointList empty;
    EXPECT_EQ(findTouchPoint(4, &empty), nullptr);
    EXPECT_EQ(findTouchPoint(4, nullptr), nullptr);

    CTouchPointInfo* secondFour = tracked.list[2];
    removeTouchPoint(4, &tracked.list);
    EXPECT_EQ(Ids(tracked.list), (std::vector<int>{7, 4, 9}));
    EXPECT_EQ(tracked.list[1], secondFour);
    removeTouchPoint(5, &tracked.list);
    EXPECT_EQ(Ids(tracked.list), (std::vector<int>{7, 4, 9}));
}

// Verify retirement of ids missing from the frame, with the deliberate skip of the entry that
// slides into a freed slot.
TEST(ContactMatching, CheckTouchPointRetires) {
    const struct {
        std::vector<int> tracked;
        std::vector<int> frame;  // empty: no frame record
        std::vector<int> after;
    } cases[] = {
        {{1, 2, 3}, {3}, {2, 3}},    {{1, 2, 3, 4}, {}, {2, 4}}, {{1, 2, 3}, {3, 1, 2}, {1, 2, 3}},
        {{1, 2, 3}, {1, 2}, {1, 2}}, {{255, 0}, {255}, {255}},   {{}, {1}, {}},
    };
    for (const auto& c : cases) {
        OwnedList tracked(c.tracked);
        std::vector<_HARDWARE_SDK_POINT> points(c.frame.size());
        for (size_t i = 0; i < points.size(); ++i) {
            points[i] = _HARDWARE_SDK_POINT{};
            points[i].id = static_cast<uint8_t>(c.frame[i]);
            if (i > 0) points[i - 1].next = &points[i];
        }
        checkTouchPoint(points.empty() ? nullptr : &points[0], &tracked.list);
        EXPECT_EQ(Ids(tracked.list), c.after) << testing::PrintToString(c.tracked);
    }
}

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

const std::string kOne = "down 1 1000 1000\n";
const std::string kTwo = "down 2 5000 5000, 1 1000 1000\n";  // 2 updated before 1 lifts
const std::string kOneAndTwo = "down 1 1000 1000, 2 5000 5000\n";
const std::string kThree = "down 1 1000 1000, 2 2000 2000, 3 3000 3000\n";
const std::string kSettle = "down 1 1000 1000\nwait 3000us\ndown 2 5000 5000\n";

// Verify what the per-frame update keeps tracked and how often it deals.
TEST(ContactTracker, TracksAndDeals) {
    const struct {
        std::string before;        // frames played first
        std::string frames;        // the frames judged
        std::vector<int> tracked;  // ids tracked after them
        int ones = -1, twos = -1;  // dispatches for one and for two contacts (-1: not judged)
        int added = -1;            // "new point add" lines (-1: not judged)
    } cases[] = {
        // Two new contacts in one frame are both appended, and only the first deals.
        {"", kOneAndTwo, {1, 2}, 1, 0, 2},
        // A frame whose only contact is new drops every tracked contact and deals once.
        {kOneAndTwo + "hold 1\nvanish 1, 2\n", "down 3 9000 9000\n", {3}, 1, 0, 1},
        // A continuing or lifting contact with an unknown id is appended without a "new point
        // add" line (6 is appended, then removed).
        {"", "raw 5 1 1000 1000\n", {5}, -1, -1, 0},
        {"raw 5 1 1000 1000\n", "raw 5 1 1000 1000, 6 2 2000 2000\n", {5}, -1, -1, 0},
        // One continuing contact deals once its samples span 4000 units.
        {kOne, "wait 3999us\nhold 1\n", {1}, 0},
        {kOne, "wait 4000us\nhold 1\n", {1}, 1},
        // A lift among two contacts deals only once both span 30000; the lifted one goes.
        {kTwo, "wait 29999us\nup 1\n", {2}, -1, 0},
        {kTwo, "wait 30000us\nup 1\n", {2}, -1, 1},
        // Two contacts deal only when both span 4000: contact 1 spans 4000 after the first
        // frame, contact 2 only 1000; in the next, contact 1 is updated first (contact 2 still
        // spans 0 units) and contact 2 then reaches 4000: one deal.
        {kSettle, "wait 1000us\nhold 1\n", {1, 2}, -1, 0},
        {kSettle + "wait 1000us\nhold 1\n", "wait 3000us\nhold 1\n", {1, 2}, -1, 1},
        // The skip of checkTouchPoint: with 1, 2, 3 tracked and only 3 reported, 2 survives one
        // frame longer.
        {kThree, "vanish 1, 2\nhold 1\n", {2, 3}},
        {kThree + "vanish 1, 2\nhold 1\n", "hold 1\n", {3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.before + "--\n" + c.frames);
        CGestureHarness h;
        if (!c.before.empty()) h.Play(c.before);
        h.TakeLogs();
        h.Play(c.frames);
        EXPECT_EQ(Ids(h.tracker.Tracked()), c.tracked);
        std::vector<std::string> out, system;
        for (const TLoggedLine& l : h.TakeLogs()) {
            (l.channel == TLogChannel::Stdout ? out : system).push_back(l.text);
        }
        const auto judged = [](int expected, long actual) { return expected < 0 ? -1 : actual; };
        const long added = std::count(system.begin(), system.end(), "new point add");
        EXPECT_EQ(std::make_tuple(judged(c.ones, Dispatches(out, 1)),
                                  judged(c.twos, Dispatches(out, 2)), judged(c.added, added)),
                  std::make_tuple(long{c.ones}, long{c.twos}, long{c.added}));
    }
}

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

// Verify status 7 (gone, unknown): for an id nobody tracks it releases the one tracked contact
// and removes nothing; for a tracked contact it releases at the last recorded position (the gone
// report's own position is not recorded) and removes it.
TEST(ContactTracker, UnknownStatus) {
    CGestureHarness h;
    h.Play("down 1 1000 2000\nhold 1\n");
    h.TakeEvents();
    h.container.SetHoldStatus(true);
    h.Play("raw 1 1 1000 2000, 9 7 3000 3000\n");
    EXPECT_FALSE(h.container.holdStatus);
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(TInputEventType::LeftMouseDragged, 1000, 2000),
                                      h.Left(TInputEventType::LeftMouseUp, 1000, 2000)}));
    EXPECT_EQ(Ids(h.tracker.Tracked()), (std::vector<int>{1}));
    EXPECT_EQ(h.tracker.LastGesture(), TFS_ONE_FINGER_UP);

    CGestureHarness g;
    g.Play("down 1 1000 2000\nhold 1\n");
    g.TakeEvents();
    g.Play("raw 1 7 3000 3000\n");
    EXPECT_EQ(g.TakeEvents(), (Events{g.Left(TInputEventType::LeftMouseUp, 1000, 2000)}));
    EXPECT_TRUE(g.tracker.Tracked().empty());
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
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(TInputEventType::LeftMouseUp, 1000, 2000)}));
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
