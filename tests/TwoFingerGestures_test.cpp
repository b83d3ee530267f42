// Two-finger gestures played as gesture scripts through contact matching into the container,
// with the posted events recorded. Scripts run at 100 frames a second (10 ms, 0.6 tick apart);
// every contact of a frame is dealt in turn, so two fingers mean two DealPoints per frame.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "CTouchPointContainer.h"
#include "support/GestureHarness.h"

namespace {


Events Cmd(const char* key) { return CGestureHarness::Shortcut(key, EVENT_FLAG_COMMAND); }

Events Scroll(int32_t amount) { return {TInputEvent::Scroll(amount, 0)}; }

Events RightClick(const CGestureHarness& h, float x, float y) {
    const TScreenPoint p = h.Scaled(x, y);
    return {TInputEvent::Mouse(TInputEventType::RightMouseDown, p.x, p.y, EVENT_FLAG_NONE, 0,
                               TMouseButton::Right),
            TInputEvent::Mouse(TInputEventType::RightMouseUp, p.x, p.y, EVENT_FLAG_NONE, 0,
                               TMouseButton::Right)};
}

bool Logged(const std::vector<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines) {
        if (line == text) return true;
    }
    return false;
}

// One frame per step: finger `id` walks a circle of `radius` around (cx, cy) from angle `from`
// to `to` (degrees, screen coordinates, so growing angles turn clockwise on the screen).
std::string Orbit(int id, double cx, double cy, double radius, int from, int to, int step) {
    std::string script;
    const int dir = to > from ? step : -step;
    for (int a = from + dir; dir > 0 ? a <= to : a >= to; a += dir) {
        const double rad = a * M_PI / 180.0;
        script += "move " + std::to_string(id) + " " +
                  std::to_string(std::lround(cx + radius * std::cos(rad))) + " " +
                  std::to_string(std::lround(cy + radius * std::sin(rad))) + " in 1\n";
    }
    return script;
}

std::string OrbitStart(double cx, double cy, double radius, int angle) {
    const double rad = angle * M_PI / 180.0;
    return std::to_string(std::lround(cx + radius * std::cos(rad))) + " " +
           std::to_string(std::lround(cy + radius * std::sin(rad)));
}

// ---------------------------------------------------------------------------------------------
// Scroll

struct ScrollCase {
    const char* name;
    int c0To;        // C0's end y (from 8000, in 5 frames)
    int c1To;        // C1's end y (from 8000, in 5 frames)
    int32_t amount;  // expected scroll amount
};

class TwoFingerScroll : public testing::TestWithParam<ScrollCase> {};

// Verify that two fingers moving down (or up) together by 500 units scroll by C0's vertical
// movement / 10, truncated toward zero, whatever C1 moved, and log TFS_TWO_FINGERS_UP for both.
TEST_P(TwoFingerScroll, ScrollsByTenthOfFirstContact) {
    const ScrollCase& c = GetParam();
    CGestureHarness h;
    h.Play(
        "down 1 10000 8000, 2 14000 8000\n"
        "move 1 10000 " +
        std::to_string(c.c0To) + ", 2 14000 " + std::to_string(c.c1To) + " in 5\n");
    EXPECT_EQ(h.TakeEvents(), Scroll(c.amount));
    EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System), "TFS_TWO_FINGERS_UP"));
    EXPECT_EQ(h.container.localGesture, c.amount > 0 ? TFS_TWO_FINGERS_DOWN : TFS_TWO_FINGERS_UP);
    // The recognised scroll restarted both paths.
    for (const CTouchPointInfo* contact : h.tracker.Tracked()) EXPECT_LE(contact->PathSize(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Directions, TwoFingerScroll,
                         testing::Values(ScrollCase{"Down", 8500, 8500, 50},
                                         ScrollCase{"Up", 7500, 7500, -50},
                                         ScrollCase{"DownTruncated", 8555, 8900, 55},
                                         ScrollCase{"UpTruncatedTowardZero", 7445, 7100, -55}),
                         [](const testing::TestParamInfo<ScrollCase>& info) {
                             return info.param.name;
                         });

// Verify that after a scroll both paths restart: a second scroll needs another 500 units of
// both fingers, and the lift right after posts nothing.
TEST(TwoFingerScroll, PathsRestartAfterEachScroll) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 8000, 2 14000 8000\n"
        "move 1 10000 9100, 2 14000 9100 in 11\n"
        "up 1, 2\n");
    // First at y 8500 (moved 500); the paths restart at 8600 and reach 500 again at 9100.
    EXPECT_EQ(h.TakeEvents(), Concat({Scroll(50), Scroll(50)}));
}

// Verify that fingers moving down apart by more than 45 degrees, or by less than 500 units,
// do not scroll.
TEST(TwoFingerScroll, SpreadOrShortMovesDoNotScroll) {
    CGestureHarness h;
    // Bearings 180 and about 233: 53 degrees apart (distances of 600 and 750).
    h.Play(
        "down 1 10000 8000, 2 14000 8000\n"
        "move 1 10000 8600, 2 13400 8450 in 6\n");
    EXPECT_TRUE(h.TakeEvents().empty());

    CGestureHarness h2;
    h2.Play(
        "down 1 10000 8000, 2 14000 8000\n"
        "move 1 10000 8499, 2 14000 8900 in 6\n");
    EXPECT_TRUE(h2.TakeEvents().empty());
}

// ---------------------------------------------------------------------------------------------
// Swipes and the border swipe

// Verify the crossed swipe shortcuts: left posts Command-Right, right posts Command-Left.
TEST(TwoFingerSwipe, CrossedCommandArrows) {
    CGestureHarness h;
    h.Play(
        "down 1 20000 10000, 2 20000 14000\n"
        "move 1 19500 10000, 2 19500 14000 in 5\n");
    EXPECT_EQ(h.TakeEvents(), Cmd("RIGHT"));
    EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System), "TFS_TWO_FINGERS_LEFT"));

    CGestureHarness h2;
    h2.Play(
        "down 1 10000 10000, 2 10000 14000\n"
        "move 1 10500 10000, 2 10500 14000 in 5\n");
    EXPECT_EQ(h2.TakeEvents(), Cmd("LEFT"));
    EXPECT_TRUE(Logged(h2.TakeLines(TLogChannel::System), "TFS_TWO_FINGERS_RIGHT"));
}

// Verify that a left swipe starting within 80 points of the right edge posts Fn-F7 once, then
// nothing (not even an opposite swipe) until all fingers lift; afterwards it works again.
TEST(TwoFingerSwipe, BorderSwipeLatchesUntilLift) {
    CGestureHarness h;  // 1920 points wide: 80 points are about 1365 units
    // x 32000 is 45 points from the right edge; C1 starts farther (x 30000, 88 points).
    const std::string swipeFromEdge =
        "down 1 32000 10000, 2 30000 14000\n"
        "move 1 31400 10000, 2 29400 14000 in 6\n";
    h.Play(swipeFromEdge +
           "move 1 32600 10000, 2 30600 14000 in 10\n"  // a right swipe: swallowed
           "move 1 32600 12000, 2 30600 16000 in 10\n"  // a scroll: swallowed
           "up 1, 2\n"
           "hold 1\n");
    EXPECT_EQ(h.TakeEvents(), CGestureHarness::Shortcut("F7", EVENT_FLAG_SECONDARY_FN));
    EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System), "TFS_TWO_FINGERS_BORDER"));

    // The latch is gone. The last lift left one-finger mode, so the next touch presses on its
    // first frame and the first two-finger frame releases and restarts the paths (at x 31800,
    // still 57 points from the edge); 500 units later the border swipe fires again.
    h.Play(
        "wait 1s\n"
        "down 1 32000 10000, 2 30000 14000\n"
        "move 1 31000 10000, 2 29000 14000 in 10\n");
    EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(TInputEventType::LeftMouseDown, 32000, 10000),
                                       h.Left(TInputEventType::LeftMouseUp, 31900, 10000)},
                                      CGestureHarness::Shortcut("F7", EVENT_FLAG_SECONDARY_FN)}));
}

// Verify the edge test's limit: either contact's first position counts, and a first position
// 80 points or more from the edge does not.
TEST(TwoFingerSwipe, BorderNeedsAFirstPositionWithin80Points) {
    // 80.0 points from the edge of a 1920-point screen is x = 32767 * 1840 / 1920 = 31401.9.
    CGestureHarness far;
    far.Play("down 1 31401 10000, 2 31401 14000\nmove 1 30801 10000, 2 30801 14000 in 6\n");
    EXPECT_EQ(far.TakeEvents(), Cmd("RIGHT"));

    CGestureHarness near;
    near.Play("down 1 30000 10000, 2 31403 14000\nmove 1 29400 10000, 2 30803 14000 in 6\n");
    EXPECT_EQ(near.TakeEvents(), CGestureHarness::Shortcut("F7", EVENT_FLAG_SECONDARY_FN));
}

// ---------------------------------------------------------------------------------------------
// Zoom

struct ZoomCase {
    const char* name;
    const char* move;  // from C0 at (10000, 10000) and C1 at (20000, 10000)
    Events (*expected)();
    const char* log;  // the outcome's log line, nullptr for none
};

class TwoFingerZoom : public testing::TestWithParam<ZoomCase> {};

// Verify the zoom's moving/reference cases: a distance of 801 or more against 799 or less
// decides, and the distance to the reference must change by 800 or more.
TEST_P(TwoFingerZoom, PostsZoomShortcut) {
    CGestureHarness h;
    h.Play(std::string("down 1 10000 10000, 2 20000 10000\n") + GetParam().move);
    EXPECT_EQ(h.TakeEvents(), GetParam().expected());
    if (GetParam().log) {
        EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System), GetParam().log));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TwoFingerZoom,
    testing::Values(
        // Only C0 moved (toward C1): fires at 900 (800 decides nothing).
        ZoomCase{"OnlyC0PinchesIn", "move 1 11000 10000 in 10\n", [] { return Cmd("-"); },
                 "TFS_TWO_FINGERS_ZOOM_IN"},
        ZoomCase{"OnlyC0Spreads", "move 1 9000 10000 in 10\n", [] { return Cmd("+"); },
                 "TFS_TWO_FINGERS_ZOOM_OUT"},
        // Only C1 moved.
        ZoomCase{"OnlyC1PinchesIn", "move 2 19000 10000 in 10\n", [] { return Cmd("-"); },
                 "TFS_TWO_FINGERS_ZOOM_IN"},
        ZoomCase{"OnlyC1Spreads", "move 2 21000 10000 in 10\n", [] { return Cmd("+"); },
                 "TFS_TWO_FINGERS_ZOOM_OUT"},
        // Both moved, in opposite sectors.
        ZoomCase{"BothPinchIn", "move 1 11000 10000, 2 19000 10000 in 10\n",
                 [] { return Cmd("-"); }, "TFS_TWO_FINGERS_ZOOM_IN"},
        ZoomCase{"BothSpread", "move 1 9000 10000, 2 21000 10000 in 10\n", [] { return Cmd("+"); },
                 "TFS_TWO_FINGERS_ZOOM_OUT"},
        // Exactly 800 decides nothing, for either contact.
        ZoomCase{"C0ExactlyEightHundred", "move 1 10800 10000 in 8\nhold 5\n",
                 [] { return Events{}; }, nullptr},
        ZoomCase{"C1ExactlyEightHundred", "move 2 19200 10000 in 8\nhold 5\n",
                 [] { return Events{}; }, nullptr},
        // C1 at exactly 800, then C0 at 900: neither the single nor the double case.
        ZoomCase{"C0MovedC1AtEightHundred",
                 "move 2 19200 10000 in 8\nmove 1 10900 10000 in 9\nhold 5\n",
                 [] { return Events{}; }, nullptr},
        // Moved 900 across the axis: the distance to C1 changes by only about 40.
        ZoomCase{"AcrossTheAxis", "move 1 10000 10900 in 9\nhold 5\n", [] { return Events{}; },
                 nullptr}),
    [](const testing::TestParamInfo<ZoomCase>& info) { return info.param.name; });

// Verify that a zoom needs the distance to the reference to change by at least 800: C0 moving
// 900 units 18 degrees off the axis changes it by 852 and zooms; 30 degrees off, by 768: no zoom.
TEST(TwoFingerZoomClassifier, NeedsEightHundredChange) {
    CTouchPointInfo c0(1, 10000, 10000, 0, 0, 0);
    CTouchPointInfo c1(2, 20000, 10000, 0, 0, 0);
    c1.Update(20000, 10000, 1);
    // 900 units at about 18 degrees below the axis: |S1 - S2| is about 850.
    c0.Update(10856, 10278, 1);
    EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0, &c1}), TFS_TWO_FINGERS_ZOOM_IN);
    // The same distance 30 degrees off the axis.
    CTouchPointInfo c0b(1, 10000, 10000, 0, 0, 0);
    c0b.Update(10779, 10450, 1);
    EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0b, &c1}), TFS_NONE);
}

// ---------------------------------------------------------------------------------------------
// Rotation

struct RotationCase {
    const char* name;
    std::string script;
    const char* key;
};

class TwoFingerRotation : public testing::TestWithParam<RotationCase> {};

// Verify that turning the axis between the fingers posts Command-r (clockwise) or Command-l
// (anticlockwise) once, decided by the movement trend of the one contact that turned.
TEST_P(TwoFingerRotation, PostsRotationOnce) {
    CGestureHarness h;
    h.Play(GetParam().script);
    EXPECT_EQ(h.TakeEvents(), Cmd(GetParam().key));
    EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System),
                       std::string(GetParam().key) == "r" ? "TFS_TWO_FINGERS_ROTATE_CLOCKWISE"
                                                          : "TFS_TWO_FINGERS_ROTATE_ACLOCKWISE"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TwoFingerRotation,
    testing::Values(
        // C1 circles C0 (A-B over 35: C1's trend is asked).
        RotationCase{"C1Clockwise",
                     "down 1 16000 16000, 2 " + OrbitStart(16000, 16000, 5000, 20) + "\n" +
                         Orbit(2, 16000, 16000, 5000, 20, 80, 5),
                     "r"},
        RotationCase{"C1Anticlockwise",
                     "down 1 16000 16000, 2 " + OrbitStart(16000, 16000, 5000, 20) + "\n" +
                         Orbit(2, 16000, 16000, 5000, 20, -40, 5),
                     "l"},
        // C0 circles C1 (A-B and E-C stay, C-A grows: C0's trend is asked).
        RotationCase{"C0Clockwise",
                     "down 1 " + OrbitStart(16000, 16000, 5000, 160) + ", 2 16000 16000\n" +
                         Orbit(1, 16000, 16000, 5000, 160, 220, 5),
                     "r"},
        RotationCase{"C0Anticlockwise",
                     "down 1 " + OrbitStart(16000, 16000, 5000, 200) + ", 2 16000 16000\n" +
                         Orbit(1, 16000, 16000, 5000, 200, 140, 5),
                     "l"}),
    [](const testing::TestParamInfo<RotationCase>& info) { return info.param.name; });

// Verify that only one contact's trend is asked: C0 moves straight (no trend) while C1 drifts
// on a small clockwise curve; the axis test asks C0, so nothing is posted although C1's own
// path has a clockwise trend.
TEST(TwoFingerRotationClassifier, AsksOnlyOneTrend) {
    CTouchPointInfo c0(1, 10000, 16000, 0, 0, 0);
    CTouchPointInfo c1(2, 16000, 16000, 0, 0, 0);
    const float curve[][2] = {{16000, 16050}, {15990, 16100}, {15970, 16150}, {15940, 16190},
                              {15900, 16220}, {15850, 16240}, {15800, 16250}, {15740, 16250}};
    int64_t t = 0;
    for (const auto& p : curve) c1.Update(p[0], p[1], ++t);
    c0.Update(10000, 10000, ++t);  // 6000 straight up: C-A 45 degrees, A-B and E-C small
    ASSERT_EQ(CTouchPointDeal::FingerMovementTrend(c1.getPointsPath()),
              TFS_TWO_FINGERS_ROTATE_CLOCKWISE);
    ASSERT_EQ(CTouchPointDeal::FingerMovementTrend(c0.getPointsPath()), TFS_NONE);
    EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0, &c1}), TFS_NONE);

    // The same curve seen from a C0 below it, with C1 going on far to the west: A-B exceeds 35,
    // so C1's trend is asked and answers.
    CTouchPointInfo c0b(1, 16000, 21000, 0, 0, 0);  // south of C1's start, C1 drifts west
    c0b.Update(16000, 21000, 1);
    CTouchPointInfo c1b(2, 16000, 16000, 0, 0, 0);
    t = 0;
    for (const auto& p : curve) c1b.Update(p[0], p[1], ++t);
    c1b.Update(13000, 16250, ++t);
    c1b.Update(12500, 17500, ++t);  // A is 0 degrees, B 315
    EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0b, &c1b}),
              TFS_TWO_FINGERS_ROTATE_CLOCKWISE);
}

// Verify the script version of the single trend: C0 slides straight up past C1 while C1 drifts
// clockwise in a small curve; nothing is posted.
TEST(TwoFingerRotation, StraightC0WithCurvingC1PostsNothing) {
    CGestureHarness h;
    std::string script = "down 1 10000 16000, 2 16000 16000\n";
    const int curve[][2] = {{16000, 16050}, {15990, 16100}, {15970, 16150}, {15940, 16190},
                            {15900, 16220}, {15850, 16240}, {15800, 16250}, {15740, 16250}};
    int y = 16000;
    for (const auto& p : curve) {
        y -= 100;
        script += "move 1 10000 " + std::to_string(y) + ", 2 " + std::to_string(p[0]) + " " +
                  std::to_string(p[1]) + " in 1\n";
    }
    script += "move 1 10000 10000 in 52\n";
    h.Play(script);
    EXPECT_TRUE(h.TakeEvents().empty());
}

// ---------------------------------------------------------------------------------------------
// Tap, double touch, zoom toggle

// Verify that two fingers held still for more than 14 ticks and lifted post a right click
// (down, up, no flags) at the midpoint of their first positions, even after moving a little.
TEST(TwoFingerTap, RightClickAtMidpointOfFirstPositions) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 10000, 2 14000 12000\n"
        "hold 10\n"
        "move 1 10300 10100, 2 14500 12400 in 10\n"  // less than 800 each, no gesture
        "hold 10\n"
        "up 1, 2\n"
        "hold 1\n");
    EXPECT_EQ(h.TakeEvents(), RightClick(h, 12000, 11000));
    EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System), "TFS_TWO_FINGERS_TAP"));
}

// Verify that a lift is not a tap when a finger moved 800 units or more, or when the lift
// comes more than 199 ticks after the last two-finger frame.
TEST(TwoFingerTap, NotATapWhenMovedOrLate) {
    CGestureHarness moved;
    moved.Play(
        "down 1 10000 10000, 2 14000 10000\n"
        "hold 20\n"
        "move 1 10000 9100 in 5\n"  // 900 across the axis: no swipe, no zoom
        "hold 10\n"
        "up 1, 2\n");
    EXPECT_TRUE(moved.TakeEvents().empty());

    CGestureHarness late;
    late.Play(
        "down 1 10000 10000, 2 14000 12000\n"
        "hold 20\n"
        "wait 3400ms\n"  // 204 ticks since the last two-finger frame
        "up 1, 2\n");
    EXPECT_TRUE(late.TakeEvents().empty());
}

// Verify the double touch: a two-finger lift fewer than 15 ticks after the previous one posts
// the zoom toggle, Command-0 first. Here the first lift is a tap (right click); finger 1 comes
// back at once and lifts again.
TEST(TwoFingerDoubleTouch, SecondLiftWithin14TicksTogglesZoom) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 10000, 2 14000 10000\n"
        "hold 30\n"
        "up 1\n"  // the tap
        "down 1 10000 10000\n"
        "hold 5\n"
        "up 1\n");  // 6 frames (about 4 ticks) later
    EXPECT_EQ(h.TakeEvents(), Concat({RightClick(h, 12000, 10000), Cmd("0")}));
    EXPECT_TRUE(Logged(h.TakeLines(TLogChannel::System), "TFS_TWO_FINGERS_DBCLICK"));
}

// Verify that the zoom toggle alternates, shared with the one-finger short touch:
// one finger Command-0, two fingers Command-9, two fingers Command-0.
TEST(TwoFingerDoubleTouch, ToggleAlternatesWithOneFingerShortTouch) {
    CGestureHarness h;
    h.Play("down 1 10000 10000\nup 1\nhold 1\n");  // one short touch, finished by toSingleClick
    EXPECT_EQ(h.TakeEvents(), Cmd("0"));

    // A quick two-finger touch: its first frame presses (one finger, already in one-finger
    // mode), the two-finger frame releases, and the lift within 14 ticks toggles.
    const std::string quickTwo =
        "wait 1s\n"
        "down 1 10000 10000, 2 14000 10000\n"
        "hold 6\n"
        "up 1, 2\n"
        "hold 1\n";
    h.Play(quickTwo);
    EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(TInputEventType::LeftMouseDown, 10000, 10000),
                                       h.Left(TInputEventType::LeftMouseUp, 10000, 10000)},
                                      Cmd("9")}));
    h.Play(quickTwo);
    EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(TInputEventType::LeftMouseDown, 10000, 10000),
                                       h.Left(TInputEventType::LeftMouseUp, 10000, 10000)},
                                      Cmd("0")}));
}

// ---------------------------------------------------------------------------------------------
// Finger-count transitions

// Verify that a second finger landing during a one-finger drag only releases the left button
// (at the first finger's latest position) and starts the two-finger gesture from fresh paths.
TEST(TwoFingerTransitions, SecondFingerDuringDragOnlyReleases) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 10000\n"
        "move 1 10300 10000 in 3\n"
        "down 2 10300 14000\n"
        "move 1 9900 10000, 2 9900 14000 in 4\n");  // 400 left: 800 since finger 1 went down
    // Press at the second frame, then drags (finger 2's first frame still drags: finger 1 is
    // dealt before finger 2 is added). The first two-finger frame releases at finger 1's latest
    // position and restarts the paths, so the 400 units that follow are no swipe.
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(TInputEventType::LeftMouseDown, 10100, 10000),
                                      h.Left(TInputEventType::LeftMouseDragged, 10200, 10000),
                                      h.Left(TInputEventType::LeftMouseDragged, 10300, 10000),
                                      h.Left(TInputEventType::LeftMouseDragged, 10300, 10000),
                                      h.Left(TInputEventType::LeftMouseUp, 10200, 10000)}));
    EXPECT_EQ(h.container.buttonState, 3u);
    EXPECT_EQ(h.container.fingerMode, 2u);
}

// Verify the release branch on its own: with the button held, a two-finger frame posts only the
// release, even for contacts that swiped far, empties their paths and restarts touchStartTick.
TEST(TwoFingerTransitions, HeldButtonShortCircuitsClassification) {
    CGestureHarness h;
    CTouchPointInfo c0(1, 20000, 10000, 0, 0, 0);
    CTouchPointInfo c1(2, 20000, 14000, 0, 0, 0);
    c0.Update(18000, 10000, 1);
    c1.Update(18000, 14000, 1);
    h.container.buttonState = 2;
    h.container.fingerMode = 1;
    h.container.touchStartTick = 5;
    EXPECT_EQ(h.container.DealPoints({&c0, &c1}, true), TFS_ONE_FINGER_UP);
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(TInputEventType::LeftMouseUp, 18000, 10000)}));
    EXPECT_TRUE(c0.PathEmpty());
    EXPECT_TRUE(c1.PathEmpty());
    EXPECT_EQ(h.container.touchStartTick, h.Tick());
    EXPECT_EQ(h.container.buttonState, 3u);
    EXPECT_EQ(h.container.fingerMode, 2u);
}

// Verify that a two-finger frame during a four-finger lift only clears the paths and leaves
// four-finger mode, and that an unrecognised frame keeps the paths.
TEST(TwoFingerTransitions, FourFingerModeOnlyClears) {
    CGestureHarness h;
    CTouchPointInfo c0(1, 20000, 10000, 0, 0, 0);
    CTouchPointInfo c1(2, 20000, 14000, 0, 0, 0);
    c0.Update(18000, 10000, 1);
    c1.Update(18000, 14000, 1);
    h.container.fingerMode = 4;
    EXPECT_EQ(h.container.DealPoints({&c0, &c1}, true), TFS_NONE);
    EXPECT_TRUE(h.TakeEvents().empty());
    EXPECT_TRUE(c0.PathEmpty());
    EXPECT_EQ(h.container.fingerMode, 2u);

    c0.Update(20000, 10000, 2);
    c0.Update(20100, 10000, 3);
    c1.Update(20000, 14000, 2);
    EXPECT_EQ(h.container.DealPoints({&c0, &c1}, true), TFS_NONE);
    EXPECT_EQ(c0.PathSize(), 2u);  // not cleared
}

struct LiftTimingCase {
    const char* name;
    int64_t sinceLastLift;   // ticks since touchStartTick
    int64_t sinceLastFrame;  // ticks since twoFingerTick
    TELO_FINGER_STATUS outcome;
};

class TwoFingerLiftTiming : public testing::TestWithParam<LiftTimingCase> {};

// Verify the lift's tick windows: the double touch up to 14 ticks after the last lift, the tap
// up to 199 ticks after the last two-finger frame (for two fingers that hardly moved).
TEST_P(TwoFingerLiftTiming, DecidesByTicks) {
    const LiftTimingCase& c = GetParam();
    CGestureHarness h;
    CTouchPointInfo c0(1, 10000, 10000, 0, 0, 0);
    CTouchPointInfo c1(2, 14000, 10000, 0, 0, 0);
    c0.Update(10000, 10000, 1);
    c1.Update(14000, 10000, 1);
    h.container.fingerMode = 2;
    h.container.touchStartTick = h.Tick() - c.sinceLastLift;
    h.container.twoFingerTick = h.Tick() - c.sinceLastFrame;
    EXPECT_EQ(h.container.DealPoints({&c0, &c1}, false), c.outcome);
    // touchStartTick: 0 after a double touch, else the lift's tick.
    EXPECT_EQ(h.container.touchStartTick, c.outcome == TFS_TWO_FINGERS_DBCLICK ? 0 : h.Tick());
    EXPECT_EQ(h.container.twoFingerTick, h.Tick());
}

INSTANTIATE_TEST_SUITE_P(
    Windows, TwoFingerLiftTiming,
    testing::Values(LiftTimingCase{"DoubleTouchAt14", 14, 0, TFS_TWO_FINGERS_DBCLICK},
                    LiftTimingCase{"NoDoubleTouchAt15", 15, 0, TFS_TWO_FINGERS_TAP},
                    LiftTimingCase{"TapAt199", 15, 199, TFS_TWO_FINGERS_TAP},
                    LiftTimingCase{"NoTapAt200", 15, 200, TFS_NONE}),
    [](const testing::TestParamInfo<LiftTimingCase>& info) { return info.param.name; });

struct ZoomGeometryCase {
    const char* name;
    float c0From[2], c0To[2], c1From[2], c1To[2];
    TELO_FINGER_STATUS outcome;
};

class TwoFingerZoomGeometry : public testing::TestWithParam<ZoomGeometryCase> {};

// Verify each zoom case's own angle check on the classifier: only C0 moved checks E-B, only C1
// moved checks A-B, both moved checks both and needs different sectors.
TEST_P(TwoFingerZoomGeometry, AngleChecksPerCase) {
    const ZoomGeometryCase& c = GetParam();
    CTouchPointInfo c0(1, c.c0From[0], c.c0From[1], 0, 0, 0);
    CTouchPointInfo c1(2, c.c1From[0], c.c1From[1], 0, 0, 0);
    c0.Update(c.c0To[0], c.c0To[1], 1);
    c1.Update(c.c1To[0], c.c1To[1], 1);
    EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0, &c1}), c.outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TwoFingerZoomGeometry,
    testing::Values(
        // C1 moves 1803 units 26 degrees off the axis (A-B 26, E-B 0): refused.
        ZoomGeometryCase{"OnlyC1OffAxis",
                         {10000, 10000},
                         {10000, 10000},
                         {12000, 10000},
                         {13000, 11500},
                         TFS_NONE},
        // The same seen from C1, with C0 moving (E-B 26, A-B 0): refused.
        ZoomGeometryCase{"OnlyC0OffAxis",
                         {12000, 10000},
                         {13000, 11500},
                         {10000, 10000},
                         {10000, 10000},
                         TFS_NONE},
        // Along the axis both are zooms.
        ZoomGeometryCase{"OnlyC1AlongAxis",
                         {10000, 10000},
                         {10000, 10000},
                         {12000, 10000},
                         {13800, 10000},
                         TFS_TWO_FINGERS_ZOOM_OUT},
        ZoomGeometryCase{"OnlyC0AlongAxis",
                         {12000, 10000},
                         {13800, 10000},
                         {10000, 10000},
                         {10000, 10000},
                         TFS_TWO_FINGERS_ZOOM_OUT},
        // Both moved right along the axis, C1 twice as far: same sector, no zoom.
        ZoomGeometryCase{"BothSameSector",
                         {10000, 10000},
                         {10900, 10000},
                         {12000, 10000},
                         {13800, 10000},
                         TFS_NONE},
        ZoomGeometryCase{"BothOppositeSectors",
                         {10000, 10000},
                         {9100, 10000},
                         {12000, 10000},
                         {13800, 10000},
                         TFS_TWO_FINGERS_ZOOM_OUT},
        // Both below 800: nothing is judged, even a large relative change.
        ZoomGeometryCase{"BothBelow800",
                         {10000, 10000},
                         {9201, 10000},
                         {12000, 10000},
                         {12799, 10000},
                         TFS_NONE}),
    [](const testing::TestParamInfo<ZoomGeometryCase>& info) { return info.param.name; });

// Verify that a list of three contacts given to the two-finger handler ends at the first
// classifier when it finds nothing: TFS_NONE, paths kept, two-finger mode.
TEST(TwoFingerTransitions, ThreeContactsStopAfterRoll) {
    CGestureHarness h;
    CTouchPointInfo c0(1, 10000, 10000, 0, 0, 0), c1(2, 20000, 10000, 0, 0, 0),
        c2(3, 15000, 15000, 0, 0, 0);
    c0.Update(9000, 10000, 1);  // would be a zoom of two contacts
    c1.Update(20000, 10000, 1);
    EXPECT_EQ(h.container.TwoFingersTouchType({&c0, &c1, &c2}, true), TFS_NONE);
    EXPECT_EQ(CTouchPointDeal::TwoFingersZoomRotation({&c0, &c1}), TFS_TWO_FINGERS_ZOOM_OUT);
    EXPECT_EQ(c0.PathSize(), 2u);
    EXPECT_EQ(h.container.fingerMode, 2u);
    EXPECT_TRUE(h.TakeEvents().empty());
}

// Verify the lift log lines with the tick differences, in ticks.
TEST(TwoFingerTransitions, LiftLogsTickDifferences) {
    CGestureHarness h;
    CTouchPointInfo c0(1, 10000, 10000, 0, 0, 0);
    CTouchPointInfo c1(2, 14000, 10000, 0, 0, 0);
    c0.Update(10000, 10000, 1);
    c1.Update(14000, 10000, 1);
    h.container.fingerMode = 2;
    h.container.touchStartTick = h.Tick() - 20;
    h.container.twoFingerTick = h.Tick() - 3;
    h.TakeLogs();
    EXPECT_EQ(h.container.DealPoints({&c0, &c1}, false), TFS_TWO_FINGERS_TAP);
    const std::vector<std::string> lines = h.TakeLines(TLogChannel::System);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "currTime-twolastTickTime:20");
    EXPECT_EQ(lines[1], "currTime-lastTickTime:3");
    EXPECT_EQ(lines[2], "TFS_TWO_FINGERS_TAP");
    EXPECT_EQ(h.container.twoFingerTick, h.Tick());
    EXPECT_EQ(h.container.touchStartTick, h.Tick());
}

}  // namespace
