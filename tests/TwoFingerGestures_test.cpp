// Two-finger gestures played as gesture scripts through contact matching into the container,
// with the posted events recorded. Scripts run at 100 frames a second (10 ms, 0.6 tick apart);
// every contact of a frame is dealt in turn, so two fingers mean two DealPoints per frame.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "CTouchPointContainer.h"
#include "support/GestureHarness.h"

namespace {

using T = TInputEventType;

Events Cmd(const char* key) { return CGestureHarness::Shortcut(key, EVENT_FLAG_COMMAND); }
Events F7() { return CGestureHarness::Shortcut("F7", EVENT_FLAG_SECONDARY_FN); }
Events Scroll(int32_t amount) { return {TInputEvent::Scroll(amount, 0)}; }

Events RightClick(const CGestureHarness& h, float x, float y) {
    const TScreenPoint p = h.Scaled(x, y);
    const auto right = [&](T type) {
        return TInputEvent::Mouse(type, p.x, p.y, EVENT_FLAG_NONE, 0, TMouseButton::Right);
    };
    return {right(T::RightMouseDown), right(T::RightMouseUp)};
}

std::string At(double x, double y) {
    return std::to_string(std::lround(x)) + " " + std::to_string(std::lround(y));
}

// A finger starting on a circle of `radius` around (cx, cy) at angle `from` and walking it to
// `to` (degrees, screen coordinates, so growing angles turn clockwise), one frame per `step`.
// The other finger sits at the centre.
std::string Orbit(int id, double cx, double cy, double radius, int from, int to, int step) {
    auto on = [&](int a) {
        const double rad = a * M_PI / 180.0;
        return At(cx + radius * std::cos(rad), cy + radius * std::sin(rad));
    };
    std::string script = id == 1 ? "down 1 " + on(from) + ", 2 " + At(cx, cy) + "\n"
                                 : "down 1 " + At(cx, cy) + ", 2 " + on(from) + "\n";
    const int dir = to > from ? step : -step;
    for (int a = from + dir; dir > 0 ? a <= to : a >= to; a += dir) {
        script += "move " + std::to_string(id) + " " + on(a) + " in 1\n";
    }
    return script;
}

const std::string kZoomDown = "down 1 10000 10000, 2 20000 10000\n";
const std::string kScrollDown = "down 1 10000 8000, 2 14000 8000\n";

struct ScriptCase {
    std::string script;
    Events events;                          // after the right click, when clickX is set
    const char* log = nullptr;              // a system log line the outcome writes
    TELO_FINGER_STATUS gesture = TFS_NONE;  // when set: the last outcome, with paths restarted
    float clickX = 0, clickY = 0;           // right click at this device position first
};

// Verify each two-finger gesture by the exact events its script posts.
TEST(TwoFingerScripts, PostExactEvents) {
    const ScriptCase cases[] = {
        // Scroll (down: the demo): C0's vertical movement / 10, truncated toward zero, whatever
        // C1 moved; the log says TFS_TWO_FINGERS_UP both ways.
        {kScrollDown + "move 1 10000 7500, 2 14000 7500 in 5\n", Scroll(-50), "TFS_TWO_FINGERS_UP",
         TFS_TWO_FINGERS_UP},
        {kScrollDown + "move 1 10000 8555, 2 14000 8900 in 5\n", Scroll(55), nullptr,
         TFS_TWO_FINGERS_DOWN},
        {kScrollDown + "move 1 10000 7445, 2 14000 7100 in 5\n", Scroll(-55)},
        // The paths restart at 8600 after the first scroll, so the next fires at 9100; the lift
        // right after posts nothing.
        {kScrollDown + "move 1 10000 9100, 2 14000 9100 in 11\nup 1, 2\n",
         Concat({Scroll(50), Scroll(50)})},
        // Bearings 53 degrees apart, or C0 short of 500: no scroll.
        {kScrollDown + "move 1 10000 8600, 2 13400 8450 in 6\n", {}},
        {kScrollDown + "move 1 10000 8499, 2 14000 8900 in 6\n", {}},
        // Swipes post the crossed arrow (left: the demo).
        {"down 1 10000 10000, 2 10000 14000\nmove 1 10500 10000, 2 10500 14000 in 5\n", Cmd("LEFT"),
         "TFS_TWO_FINGERS_RIGHT", TFS_TWO_FINGERS_RIGHT},
        // 80.0 points from the edge of a 1920-point screen is x = 31401.9: a first position at
        // 31401 is a plain swipe; either contact's first position at 31403 makes it the border.
        {"down 1 31401 10000, 2 31401 14000\nmove 1 30801 10000, 2 30801 14000 in 6\n",
         Cmd("RIGHT")},
        {"down 1 30000 10000, 2 31403 14000\nmove 1 29400 10000, 2 30803 14000 in 6\n", F7(),
         "TFS_TWO_FINGERS_BORDER"},
        // Zoom from C0 at (10000, 10000) and C1 at (20000, 10000): a moved contact (801 or more)
        // against a still one (799 or less), or both moved in different sectors; 800 decides
        // nothing, and the distance to the reference must change by 800. C0 pinching in: the
        // demo.
        {kZoomDown + "move 1 9000 10000 in 10\n", Cmd("+"), "TFS_TWO_FINGERS_ZOOM_OUT"},
        {kZoomDown + "move 2 19000 10000 in 10\n", Cmd("-")},
        {kZoomDown + "move 2 21000 10000 in 10\n", Cmd("+")},
        {kZoomDown + "move 1 11000 10000, 2 19000 10000 in 10\n", Cmd("-")},
        {kZoomDown + "move 1 9000 10000, 2 21000 10000 in 10\n", Cmd("+")},
        {kZoomDown + "move 1 10800 10000 in 8\nhold 5\n", {}},
        {kZoomDown + "move 2 19200 10000 in 8\nhold 5\n", {}},
        {kZoomDown + "move 2 19200 10000 in 8\nmove 1 10900 10000 in 9\nhold 5\n", {}},
        {kZoomDown + "move 1 10000 10900 in 9\nhold 5\n", {}},
        // Rotation, once, by the trend of the contact that turned: C1 circling C0 (A-B over 35),
        // or C0 circling C1 (A-B and E-C stay, C-A grows). C1 clockwise: the demo.
        {Orbit(2, 16000, 16000, 5000, 20, -40, 5), Cmd("l"), "TFS_TWO_FINGERS_ROTATE_ACLOCKWISE"},
        {Orbit(1, 16000, 16000, 5000, 160, 220, 5), Cmd("r")},
        {Orbit(1, 16000, 16000, 5000, 200, 140, 5), Cmd("l")},
        // A finger moved 900 across the axis (no swipe, no zoom): the lift is no tap.
        {"down 1 10000 10000, 2 14000 10000\nhold 20\nmove 1 10000 9100 in 5\n"
         "hold 10\nup 1, 2\n",
         {}},
        // The tap's lift, then finger 1 back down and up again 4 ticks later: the zoom toggle.
        {"down 1 10000 10000, 2 14000 10000\nhold 30\nup 1\ndown 1 10000 10000\n"
         "hold 5\nup 1\n",
         Cmd("0"), "TFS_TWO_FINGERS_DBCLICK", TFS_NONE, 12000, 10000},
    };
    for (const ScriptCase& c : cases) {
        SCOPED_TRACE(c.script);
        CGestureHarness h;
        h.Play(c.script);
        const Events click = c.clickX != 0 ? RightClick(h, c.clickX, c.clickY) : Events{};
        EXPECT_EQ(h.TakeEvents(), Concat({click, c.events}));
        if (c.log) {
            EXPECT_THAT(h.TakeLines(TLogChannel::System), testing::Contains(c.log));
        }
        if (c.gesture != TFS_NONE) {
            EXPECT_EQ(h.container.localGesture, c.gesture);
            for (const CTouchPointInfo* contact : h.tracker.Tracked()) {
                EXPECT_LE(contact->PathSize(), 1u);
            }
        }
    }
}

// Verify that a left swipe starting within 80 points of the right edge posts Fn-F7 once, then
// nothing (not even an opposite swipe or a scroll) until all fingers lift; afterwards it works
// again.
TEST(TwoFingerSwipe, BorderSwipeLatchesUntilLift) {
    CGestureHarness h;  // x 32000 is 45 points from the right edge
    h.Play(
        "down 1 32000 10000, 2 30000 14000\n"
        "move 1 31400 10000, 2 29400 14000 in 6\n"
        "move 1 32600 10000, 2 30600 14000 in 10\n"
        "move 1 32600 12000, 2 30600 16000 in 10\n"
        "up 1, 2\nhold 1\n");
    EXPECT_EQ(h.TakeEvents(), F7());
    // The last lift left one-finger mode, so the next touch presses on its first frame and the
    // first two-finger frame releases and restarts the paths (at x 31800, still 57 points from
    // the edge); 500 units later the border swipe fires again.
    h.Play(
        "wait 1s\n"
        "down 1 32000 10000, 2 30000 14000\n"
        "move 1 31000 10000, 2 29000 14000 in 10\n");
    EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(T::LeftMouseDown, 32000, 10000),
                                       h.Left(T::LeftMouseUp, 31900, 10000)},
                                      F7()}));
}

// Verify that only one contact's trend is asked: C0 slides straight up (the axis test then asks
// C0, which has no trend) while C1 drifts on a small clockwise curve; nothing is posted although
// C1's own path has a clockwise trend.
TEST(TwoFingerRotation, StraightC0WithCurvingC1PostsNothing) {
    CGestureHarness h;
    std::string script = "down 1 10000 16000, 2 16000 16000\n";
    const int curve[][2] = {{16000, 16050}, {15990, 16100}, {15970, 16150}, {15940, 16190},
                            {15900, 16220}, {15850, 16240}, {15800, 16250}, {15740, 16250}};
    int y = 16000;
    for (const auto& p : curve) {
        y -= 100;
        script += "move 1 10000 " + std::to_string(y) + ", 2 " + At(p[0], p[1]) + " in 1\n";
    }
    h.Play(script + "move 1 10000 10000 in 52\n");
    EXPECT_TRUE(h.TakeEvents().empty());
    ASSERT_EQ(h.tracker.Tracked().size(), 2u);
    EXPECT_EQ(CTouchPointDeal::FingerMovementTrend(h.tracker.Tracked()[1]->getPointsPath()),
              TFS_TWO_FINGERS_ROTATE_CLOCKWISE);
}

// Verify that the zoom toggle alternates, shared with the one-finger short touch: one finger
// Command-0, then two quick two-finger touches Command-9 and Command-0.
TEST(TwoFingerDoubleTouch, ToggleAlternatesWithOneFingerShortTouch) {
    CGestureHarness h;
    h.Play("down 1 10000 10000\nup 1\nhold 1\n");  // a short touch, finished by toSingleClick
    EXPECT_EQ(h.TakeEvents(), Cmd("0"));
    // Each first frame presses (one-finger mode), the two-finger frame releases, and the lift
    // within 14 ticks toggles.
    for (const char* key : {"9", "0"}) {
        h.Play("wait 1s\ndown 1 10000 10000, 2 14000 10000\nhold 6\nup 1, 2\nhold 1\n");
        EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(T::LeftMouseDown, 10000, 10000),
                                           h.Left(T::LeftMouseUp, 10000, 10000)},
                                          Cmd(key)}))
            << key;
    }
}

// Verify that a second finger landing during a one-finger drag only releases the left button
// (at the first finger's latest position) and starts the two-finger gesture from fresh paths.
TEST(TwoFingerTransitions, SecondFingerDuringDragOnlyReleases) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 10000\n"
        "move 1 10300 10000 in 3\n"
        "down 2 10300 14000\n"
        "move 1 9900 10000, 2 9900 14000 in 4\n");  // 400 left: 800 since finger 1 went down
    // Finger 2's first frame still drags (finger 1 is dealt before finger 2 is added).
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(T::LeftMouseDown, 10100, 10000),
                                      h.Left(T::LeftMouseDragged, 10200, 10000),
                                      h.Left(T::LeftMouseDragged, 10300, 10000),
                                      h.Left(T::LeftMouseDragged, 10300, 10000),
                                      h.Left(T::LeftMouseUp, 10200, 10000)}));
    EXPECT_EQ(h.container.buttonState, kButtonReleased);
    EXPECT_EQ(h.container.fingerMode, kFingerModeTwo);
}

// Verify the branches before classification, for contacts that swiped far: a held button posts
// only the release and restarts touchStartTick; during a four-finger lift the paths are only
// cleared. Both empty the paths and enter two-finger mode.
TEST(TwoFingerTransitions, HeldButtonOrFourFingerLiftShortCircuits) {
    const struct {
        uint32_t buttonState, fingerMode;
        TELO_FINGER_STATUS outcome;
        bool released;
    } cases[] = {{kButtonDragging, kFingerModeOne, TFS_ONE_FINGER_UP, true},
                 {kButtonReleased, kFingerModeFour, TFS_NONE, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fingerMode);
        CGestureHarness h;
        CTouchPointInfo c0(1, 20000, 10000, 0, 0, 0), c1(2, 20000, 14000, 0, 0, 0);
        c0.Update(18000, 10000, 1);
        c1.Update(18000, 14000, 1);
        h.container.buttonState = c.buttonState;
        h.container.fingerMode = c.fingerMode;
        h.container.touchStartTick = 5;
        EXPECT_EQ(h.container.DealPoints({&c0, &c1}, true), c.outcome);
        EXPECT_EQ(h.TakeEvents(),
                  c.released ? Events{h.Left(T::LeftMouseUp, 18000, 10000)} : Events{});
        EXPECT_TRUE(c0.PathEmpty() && c1.PathEmpty());
        EXPECT_EQ(h.container.touchStartTick, c.released ? h.Tick() : 5);
        EXPECT_EQ(h.container.buttonState, c.released ? kButtonReleased : c.buttonState);
        EXPECT_EQ(h.container.fingerMode, kFingerModeTwo);
    }
}

// Verify the lift's tick windows and their log lines: the double touch up to 14 ticks after the
// last lift, the tap up to 199 ticks after the last two-finger frame (fingers that hardly moved).
TEST(TwoFingerLift, DecidesByTicks) {
    const struct {
        int64_t sinceLastLift;   // ticks since touchStartTick
        int64_t sinceLastFrame;  // ticks since twoFingerTick
        TELO_FINGER_STATUS outcome;
    } cases[] = {{14, 0, TFS_TWO_FINGERS_DBCLICK},
                 {15, 0, TFS_TWO_FINGERS_TAP},
                 {20, 199, TFS_TWO_FINGERS_TAP},
                 {15, 200, TFS_NONE}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.sinceLastLift << " " << c.sinceLastFrame);
        CGestureHarness h;
        CTouchPointInfo c0(1, 10000, 10000, 0, 0, 0), c1(2, 14000, 10000, 0, 0, 0);
        c0.Update(10000, 10000, 1);
        c1.Update(14000, 10000, 1);
        h.container.fingerMode = kFingerModeTwo;
        h.container.touchStartTick = h.Tick() - c.sinceLastLift;
        h.container.twoFingerTick = h.Tick() - c.sinceLastFrame;
        EXPECT_EQ(h.container.DealPoints({&c0, &c1}, false), c.outcome);
        const bool dbclick = c.outcome == TFS_TWO_FINGERS_DBCLICK;
        // touchStartTick: 0 after a double touch, else the lift's tick.
        EXPECT_EQ(h.container.touchStartTick, dbclick ? 0 : h.Tick());
        EXPECT_EQ(h.container.twoFingerTick, h.Tick());
        std::vector<std::string> expected{"currTime-twolastTickTime:" +
                                          std::to_string(c.sinceLastLift)};
        if (!dbclick) {
            expected.push_back("currTime-lastTickTime:" + std::to_string(c.sinceLastFrame));
        }
        if (c.outcome != TFS_NONE) expected.push_back(TeloFingerStatusName(c.outcome));
        std::vector<std::string> lines = h.TakeLines(TLogChannel::System);
        lines.resize(std::min(lines.size(), expected.size()));
        EXPECT_EQ(lines, expected);
    }
}

// Verify each zoom case's own angle check and the 800-unit change, off the axis where a script
// would turn into a rotation: only C0 moved checks E-B, only C1 moved checks A-B, both moved
// need different sectors.
TEST(TwoFingerZoom, AngleChecksPerCase) {
    const struct {
        float c0From[2], c0To[2], c1From[2], c1To[2];
        TELO_FINGER_STATUS outcome;
    } cases[] = {
        // 1803 units 26 degrees off the axis: refused, whichever contact moved.
        {{10000, 10000}, {10000, 10000}, {12000, 10000}, {13000, 11500}, TFS_NONE},
        {{12000, 10000}, {13000, 11500}, {10000, 10000}, {10000, 10000}, TFS_NONE},
        // Both right along the axis, C1 twice as far: same sector, no zoom.
        {{10000, 10000}, {10900, 10000}, {12000, 10000}, {13800, 10000}, TFS_NONE},
        // Both below 800: nothing is judged, even a large relative change.
        {{10000, 10000}, {9201, 10000}, {12000, 10000}, {12799, 10000}, TFS_NONE},
        // C0 moves 900 units 18 degrees off the axis: the distance to C1 changes by 852; 30
        // degrees off, by 768.
        {{10000, 10000}, {10856, 10278}, {20000, 10000}, {20000, 10000}, TFS_TWO_FINGERS_ZOOM_IN},
        {{10000, 10000}, {10779, 10450}, {20000, 10000}, {20000, 10000}, TFS_NONE},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        CTouchPointInfo c0(1, c.c0From[0], c.c0From[1], 0, 0, 0);
        CTouchPointInfo c1(2, c.c1From[0], c.c1From[1], 0, 0, 0);
        c0.Update(c.c0To[0], c.c0To[1], 1);
        c1.Update(c.c1To[0], c.c1To[1], 1);
        EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0, &c1}), c.outcome) << i;
    }
}

// Verify that three contacts given to the two-finger handler end at the first classifier when it
// finds nothing: TFS_NONE, paths kept, two-finger mode, although the first two would zoom.
TEST(TwoFingerTransitions, ThreeContactsStopAfterRoll) {
    CGestureHarness h;
    CTouchPointInfo c0(1, 10000, 10000, 0, 0, 0), c1(2, 20000, 10000, 0, 0, 0),
        c2(3, 15000, 15000, 0, 0, 0);
    c0.Update(9000, 10000, 1);
    c1.Update(20000, 10000, 1);
    ASSERT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0, &c1}), TFS_TWO_FINGERS_ZOOM_OUT);
    EXPECT_EQ(h.container.TwoFingersTouchType({&c0, &c1, &c2}, true), TFS_NONE);
    EXPECT_EQ(c0.PathSize(), 2u);
    EXPECT_EQ(h.container.fingerMode, kFingerModeTwo);
    EXPECT_TRUE(h.TakeEvents().empty());
}

}  // namespace
