// Three- and four-finger gestures (and five contacts, handled as four) played as gesture
// scripts through contact matching into the container, with the posted events recorded.
// Scripts run at 100 frames a second; every contact of a frame is dealt in turn, so the
// recognisers see the fingers of a frame move one after the other.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CTouchPointContainer.h"
#include "support/GestureHarness.h"

namespace {


Events Ctrl(const char* key) { return CGestureHarness::Shortcut(key, EVENT_FLAG_CONTROL); }
Events Fn(const char* key) { return CGestureHarness::Shortcut(key, EVENT_FLAG_SECONDARY_FN); }

bool AllPathsEmpty(const CTouchPointList& contacts) {
    for (const CTouchPointInfo* contact : contacts) {
        if (!contact->PathEmpty()) return false;
    }
    return true;
}

// Four fingers on the corners of a 4000-unit square.
const char* const kFourDown = "down 1 10000 10000, 2 14000 10000, 3 10000 14000, 4 14000 14000\n";

// ---------------------------------------------------------------------------------------------
// Three fingers

// Verify the three-finger latch: three fingers held still latch TFS_THREE_FINGERS_TAP (every
// further three-finger frame only empties the paths); a finger left alone afterwards posts
// nothing while it moves, and its lift is finished by toSingleClick (a click, for a touch
// longer than 49 ticks that moved less than 50 units).
TEST(ThreeFingers, StillHandLatchesAndSilencesTheLastFinger) {
    CGestureHarness h;
    std::vector<TELO_FINGER_STATUS> lastGesture;
    std::vector<bool> emptied;
    size_t eventsBeforeLift = 99;
    h.Play(std::string("down 1 10000 10000, 2 12000 10000, 3 14000 10000\n"
                       "hold 5\n"                   // frames 1-5: latched
                       "up 1, 2\n"                  // frame 6
                       "move 3 14030 10000 in 3\n"  // frames 7-9: one finger, silent
                       "hold 100\n"                 // frames 10-109
                       "up 3\n"),                   // frame 110
           [&](size_t frame) {
               lastGesture.push_back(h.tracker.LastGesture());
               emptied.push_back(AllPathsEmpty(h.tracker.Tracked()));
               if (frame == 109) eventsBeforeLift = h.sink.Count();
           });
    for (size_t frame = 1; frame <= 109; ++frame) {
        EXPECT_EQ(lastGesture[frame], TFS_THREE_FINGERS_TAP) << "frame " << frame;
    }
    for (size_t frame = 1; frame <= 5; ++frame) EXPECT_TRUE(emptied[frame]) << "frame " << frame;
    EXPECT_EQ(eventsBeforeLift, 0u);

    const TScreenPoint p = h.Scaled(14030, 10000);
    EXPECT_EQ(h.TakeEvents(),
              (Events{TInputEvent::Mouse(TInputEventType::LeftMouseUp, p.x, p.y, EVENT_FLAG_NONE),
                      h.Left(TInputEventType::MouseMoved, 14030, 10000, 1),
                      h.Left(TInputEventType::LeftMouseDown, 14030, 10000, 1),
                      h.Left(TInputEventType::LeftMouseUp, 14030, 10000, 1)}));
    // The silenced one-finger frames only logged "one".
    const std::vector<std::string> system = h.TakeLines(TLogChannel::System);
    EXPECT_GE(std::count(system.begin(), system.end(), "one"), 100);
}

// Verify that a short latched touch (49 ticks or less from its start) ends in the zoom toggle
// through toSingleClick instead of a click.
TEST(ThreeFingers, ShortLatchedTouchEndsInZoomToggle) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 10000, 2 12000 10000, 3 14000 10000\n"
        "hold 3\n"
        "up 1, 2\n"
        "hold 3\n"
        "up 3\n");
    EXPECT_EQ(h.TakeEvents(), CGestureHarness::Shortcut("0", EVENT_FLAG_COMMAND));
}

// Verify that three fingers that moved 100 units or more do not latch, and that three
// contacts post nothing.
TEST(ThreeFingers, MovingHandDoesNotLatch) {
    CGestureHarness h;
    h.Play(
        "down 1 10000 10000, 2 12000 10000, 3 14000 10000\n"
        "move 1 10000 9900, 2 12000 9900, 3 14000 9900 in 1\n"
        "move 1 10000 8000, 2 12000 8000, 3 14000 8000 in 5\n");
    EXPECT_NE(h.tracker.LastGesture(), TFS_THREE_FINGERS_TAP);
    EXPECT_TRUE(h.TakeEvents().empty());
}

// Verify the still-hand limit on its own: each of the first three contacts below 100.0 units.
TEST(ThreeFingers, TapClassifierLimit) {
    CTouchPointInfo a(1, 1000, 1000, 0, 0, 0), b(2, 3000, 1000, 0, 0, 0), c(3, 5000, 1000, 0, 0, 0);
    a.Update(1000, 1099.9f, 1);
    EXPECT_EQ(CTouchPointDeal::ThreeFingersTap({&a, &b, &c}), TFS_THREE_FINGERS_TAP);
    c.Update(5000, 1100, 1);
    EXPECT_EQ(CTouchPointDeal::ThreeFingersTap({&a, &b, &c}), TFS_NONE);
    EXPECT_EQ(CTouchPointDeal::ThreeFingersTap({&a, &b}), TFS_NONE);
}

// ---------------------------------------------------------------------------------------------
// Four-finger sweeps

struct SweepCase {
    const char* name;
    int dx;
    int dy;
    TELO_FINGER_STATUS outcome;
    const char* key;  // the crossed Control-arrow
};

class FourFingerSweep : public testing::TestWithParam<SweepCase> {};

std::string MoveAll(int count, int dx, int dy, int frames) {
    const int start[5][2] = {
        {10000, 10000}, {14000, 10000}, {10000, 14000}, {14000, 14000}, {12000, 12000}};
    std::string line = "move";
    for (int i = 0; i < count; ++i) {
        line += (i ? ", " : " ") + std::to_string(i + 1) + " " + std::to_string(start[i][0] + dx) +
                " " + std::to_string(start[i][1] + dy);
    }
    return line + " in " + std::to_string(frames) + "\n";
}

// Verify that four fingers sweeping together post their crossed Control-arrow once per touch;
// the frames after return TFS_ONE_FINGER_UP, a further sweep with the same fingers down posts
// nothing, and the lift posts nothing.
TEST_P(FourFingerSweep, PostsControlArrowOncePerTouch) {
    const SweepCase& c = GetParam();
    CGestureHarness h;
    std::vector<TELO_FINGER_STATUS> lastGesture;
    h.Play(kFourDown + MoveAll(4, c.dx, c.dy, 10) + "hold 3\n" + MoveAll(4, -c.dx, -c.dy, 10) +
               "up 1, 2, 3, 4\nhold 1\n",
           [&](size_t) { lastGesture.push_back(h.tracker.LastGesture()); });
    EXPECT_EQ(h.TakeEvents(), Ctrl(c.key));
    // Moves of 100 per frame: three fingers beyond 300 at frame 4, where the sweep fires on
    // the third finger's update and the fourth finger's update already finds the latch.
    EXPECT_EQ(h.container.holdStatus, false);  // released by the lift
    // Frames 4 to 23 (the sweep, the hold, the sweep back); the lift frame ends the latch.
    for (size_t frame = 4; frame <= 23; ++frame) {
        EXPECT_EQ(lastGesture[frame], TFS_ONE_FINGER_UP) << "frame " << frame;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Directions, FourFingerSweep,
    testing::Values(SweepCase{"Left", -1000, 0, TFS_FOUR_FINGERS_LEFT, "RIGHT"},
                    SweepCase{"Right", 1000, 0, TFS_FOUR_FINGERS_RIGHT, "LEFT"},
                    SweepCase{"Up", 0, -1000, TFS_FOUR_FINGERS_UP, "UP"},
                    SweepCase{"Down", 0, 1000, TFS_FOUR_FINGERS_DOWN, "DOWN"}),
    [](const testing::TestParamInfo<SweepCase>& info) { return info.param.name; });

// Verify the sweep classifier's outcome names and order on prepared contacts.
TEST_P(FourFingerSweep, ClassifierNamesTheDirection) {
    const SweepCase& c = GetParam();
    std::vector<CTouchPointInfo> contacts;
    for (int i = 0; i < 4; ++i) {
        contacts.emplace_back(i + 1, 10000.0f + 1000 * i, 10000.0f, 0, 0, 0);
    }
    CTouchPointList list;
    for (CTouchPointInfo& contact : contacts) {
        contact.Update(contact.GetFirstX() + static_cast<float>(c.dx),
                       contact.GetFisrtY() + static_cast<float>(c.dy), 1);
        list.push_back(&contact);
    }
    EXPECT_EQ(CTouchPointDeal::FourFingersRoll(list), c.outcome);
}

// Verify that the latch is per touch: after all fingers lift, the next sweep posts again. The
// last lift left one-finger mode, so the new touch presses on its first frame, and the first
// four-finger frame releases the button (at the first contact's latest position) before any
// sweep is judged.
TEST(FourFingerSweepLatch, NextTouchSweepsAgainAfterReleasingTheButton) {
    CGestureHarness h;
    const std::string sweepLeft = kFourDown + MoveAll(4, -1000, 0, 10) + "up 1, 2, 3, 4\nhold 1\n";
    h.Play(sweepLeft);
    EXPECT_EQ(h.TakeEvents(), Ctrl("RIGHT"));
    h.Play("wait 1s\n" + sweepLeft);
    EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(TInputEventType::LeftMouseDown, 10000, 10000),
                                       h.Left(TInputEventType::LeftMouseUp, 9900, 10000)},
                                      Ctrl("RIGHT")}));
}

// Verify the release branch on its own: with the left button held, four swept contacts post
// only the release, empty the paths and enter four-finger mode.
TEST(FourFingerSweepLatch, HeldButtonIsReleasedFirst) {
    CGestureHarness h;
    std::vector<CTouchPointInfo> contacts;
    for (int i = 0; i < 4; ++i) contacts.emplace_back(i + 1, 20000.0f, 8000.0f + 1000 * i, 0, 0, 0);
    CTouchPointList list;
    for (CTouchPointInfo& contact : contacts) {
        contact.Update(18000.0f, contact.GetY(), 1);
        list.push_back(&contact);
    }
    h.container.buttonState = 1;
    EXPECT_EQ(h.container.DealPoints(list, true), TFS_ONE_FINGER_UP);
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(TInputEventType::LeftMouseUp, 18000, 8000)}));
    EXPECT_TRUE(AllPathsEmpty(list));
    EXPECT_EQ(h.container.fingerMode, 4u);
    EXPECT_EQ(h.container.buttonState, 3u);
    EXPECT_FALSE(h.container.holdStatus);
}

// Verify that holdStatus follows isDown: a sweep dealt as a lift does not latch, so the next
// sweep posts again; a sweep dealt while touching latches until SetHoldStatus(false).
TEST(FourFingerSweepLatch, HoldStatusFollowsIsDown) {
    CGestureHarness h;
    std::vector<CTouchPointInfo> contacts;
    for (int i = 0; i < 4; ++i) contacts.emplace_back(i + 1, 20000.0f, 8000.0f + 1000 * i, 0, 0, 0);
    CTouchPointList list;
    for (CTouchPointInfo& contact : contacts) list.push_back(&contact);
    auto sweep = [&] {
        for (CTouchPointInfo& contact : contacts) {
            contact.Update(20000.0f, contact.GetY(), 0);
            contact.Update(19000.0f, contact.GetY(), 1);
        }
    };
    sweep();
    EXPECT_EQ(h.container.DealPoints(list, false), TFS_FOUR_FINGERS_LEFT);
    EXPECT_FALSE(h.container.holdStatus);
    sweep();
    EXPECT_EQ(h.container.DealPoints(list, true), TFS_FOUR_FINGERS_LEFT);
    EXPECT_TRUE(h.container.holdStatus);
    sweep();
    EXPECT_EQ(h.container.DealPoints(list, true), TFS_ONE_FINGER_UP);
    h.container.SetHoldStatus(false);
    sweep();
    EXPECT_EQ(h.container.DealPoints(list, true), TFS_FOUR_FINGERS_LEFT);
    EXPECT_EQ(h.TakeEvents(), Concat({Ctrl("RIGHT"), Ctrl("RIGHT"), Ctrl("RIGHT")}));
    EXPECT_EQ(h.container.gestureSent, 1);
}

// Verify that a sweep needs three of four fingers beyond 300 units and bearings within 20
// degrees of each other.
TEST(FourFingerSweepClassifier, MovementAndSpreadLimits) {
    auto make = [](const float(*to)[2], CTouchPointInfo* out) {
        CTouchPointList list;
        for (int i = 0; i < 4; ++i) {
            out[i] = CTouchPointInfo(i + 1, 10000.0f, 10000.0f + 1000 * i, 0, 0, 0);
            out[i].Update(to[i][0], to[i][1], 1);
            list.push_back(&out[i]);
        }
        return list;
    };
    CTouchPointInfo c[4];
    // Three at 301, one at 300 (not beyond): still three.
    const float three[4][2] = {{9699, 10000}, {9699, 11000}, {9699, 12000}, {9700, 13000}};
    EXPECT_EQ(CTouchPointDeal::FourFingersRoll(make(three, c)), TFS_FOUR_FINGERS_LEFT);
    // Two beyond 300 only.
    const float two[4][2] = {{9699, 10000}, {9699, 11000}, {9700, 12000}, {9700, 13000}};
    EXPECT_EQ(CTouchPointDeal::FourFingersRoll(make(two, c)), TFS_NONE);
    // One finger 25 degrees off the others (bearing 245 against 270).
    const float spread[4][2] = {{9000, 10000}, {9000, 11000}, {9000, 12000}, {9094, 13423}};
    EXPECT_EQ(CTouchPointDeal::FourFingersRoll(make(spread, c)), TFS_NONE);
}

// ---------------------------------------------------------------------------------------------
// Four-finger zoom

// Verify that four fingers closing post Fn-F8 and spreading post Fn-F11, once per touch.
TEST(FourFingerZoom, ClosingAndSpreading) {
    CGestureHarness closing;
    closing.Play(std::string(kFourDown) +
                 "move 1 10700 10700, 2 13300 10700, 3 10700 13300, 4 13300 13300 in 10\n"
                 "hold 3\n");
    EXPECT_EQ(closing.TakeEvents(), Fn("F8"));
    EXPECT_EQ(closing.container.localGesture, TFS_ONE_FINGER_UP);

    CGestureHarness spreading;
    spreading.Play(std::string(kFourDown) +
                   "move 1 9300 9300, 2 14700 9300, 3 9300 14700, 4 14700 14700 in 10\n"
                   "hold 3\n");
    EXPECT_EQ(spreading.TakeEvents(), Fn("F11"));
}

// Verify that only two of four fingers moving post nothing, whether they sweep or spread, and
// that the lift posts nothing either.
TEST(FourFingerZoom, OnlyTwoOfFourMovingPostsNothing) {
    CGestureHarness sweep;
    sweep.Play(std::string(kFourDown) + "move 1 9000 10000, 2 13000 10000 in 10\n" +
               "hold 3\nup 1, 2, 3, 4\nhold 1\n");
    EXPECT_TRUE(sweep.TakeEvents().empty());

    CGestureHarness spread;
    spread.Play(std::string(kFourDown) + "move 1 9000 9000, 4 15000 15000 in 10\n" +
                "hold 3\nup 1, 2, 3, 4\nhold 1\n");
    EXPECT_TRUE(spread.TakeEvents().empty());
}

// Verify that four fingers moving the same way within 46 degrees but too spread for a sweep
// (40 degrees) post nothing: they are neither a sweep nor a zoom.
TEST(FourFingerZoom, FanningHandIsNeitherSweepNorZoom) {
    CGestureHarness h;
    h.Play(
        "down 1 20000 10000, 2 24000 10000, 3 20000 14000, 4 24000 14000\n"
        "move 1 19060 9658, 2 23007 9878, 3 19007 14122, 4 23060 14342 in 10\n");
    EXPECT_TRUE(h.TakeEvents().empty());
}

// ---------------------------------------------------------------------------------------------
// Five contacts

struct FiveCase {
    const char* name;
    std::string script;
    Events (*expected)();
};

class FiveContacts : public testing::TestWithParam<FiveCase> {};

// Verify that five contacts are handled as four: the first four sweep; for the zoom four of
// the five must move, all ten bearing pairs count, and the areas come from the first four.
TEST_P(FiveContacts, HandledAsFour) {
    CGestureHarness h;
    h.Play(GetParam().script);
    EXPECT_EQ(h.TakeEvents(), GetParam().expected());
}

const std::string kFiveDown =
    "down 1 10000 10000, 2 14000 10000, 3 10000 14000, 4 14000 14000, 5 12000 12000\n";
const std::string kFanDown =
    "down 1 20000 10000, 2 24000 10000, 3 20000 14000, 4 24000 14000, 5 22000 12000\n";
const std::string kFan = "1 19060 9658, 2 23007 9878, 3 19007 14122, 4 23060 14342";

INSTANTIATE_TEST_SUITE_P(
    Cases, FiveContacts,
    testing::Values(
        FiveCase{"AllFiveSweepLeft", kFiveDown + MoveAll(5, -1000, 0, 10) + "hold 3\n",
                 [] { return Ctrl("RIGHT"); }},
        // The fifth goes the other way: the sweep looks at the first four only.
        FiveCase{"FirstFourSweepLeftFifthRight",
                 kFiveDown + "move 1 9000 10000, 2 13000 10000, 3 9000 14000, 4 13000 14000, "
                             "5 13000 12000 in 10\n",
                 [] { return Ctrl("RIGHT"); }},
        // The fanning four alone are nothing; a fifth heading right makes a pair 46 degrees or
        // more apart, and the first four's box grew: Fn-F11.
        FiveCase{"FifthMakesTheFanAZoom", kFanDown + "move " + kFan + ", 5 23000 12000 in 10\n",
                 [] { return Fn("F11"); }},
        // First four closing, the fifth still: four of five moved.
        FiveCase{
            "FourOfFiveClosing",
            kFiveDown + "move 1 10700 10700, 2 13300 10700, 3 10700 13300, 4 13300 13300 in 10\n",
            [] { return Fn("F8"); }},
        // Three of five closing: not enough (three of four would be, see below).
        FiveCase{"ThreeOfFiveClosing",
                 kFiveDown + "move 1 10700 10700, 2 13300 10700, 3 10700 13300 in 10\nhold 3\n",
                 [] { return Events{}; }},
        FiveCase{"ThreeOfFourClosing",
                 std::string(kFourDown) +
                     "move 1 10700 10700, 2 13300 10700, 3 10700 13300 in 10\nhold 3\n",
                 [] { return Fn("F8"); }},
        // First four closing while the fifth runs far out: the box of the first four shrank.
        FiveCase{"AreaFromFirstFour",
                 kFiveDown + "move 1 10700 10700, 2 13300 10700, 3 10700 13300, 4 13300 13300, "
                             "5 20000 12000 in 10\n",
                 [] { return Fn("F8"); }}),
    [](const testing::TestParamInfo<FiveCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Finger-count transitions after four fingers

// Verify that when a four-finger touch is lifted down to two fingers, the first two-finger
// frame only empties the paths (so 550 units counted from the lift frame are no swipe), and
// two-finger gestures then work as usual.
TEST(FourFingerTransitions, TwoFingerFrameAfterFourOnlyClears) {
    CGestureHarness h;
    // Fingers 3 and 4 end the sweep at (9000, 14000) and (13000, 14000), then go on left by 55
    // units a frame after fingers 1 and 2 lift (frame 11).
    std::string script = std::string(kFourDown) + MoveAll(4, -1000, 0, 10) + "up 1, 2\n";
    for (int k = 1; k <= 12; ++k) {
        script += "raw 3 1 " + std::to_string(9000 - 55 * k) + " 14000, 4 1 " +
                  std::to_string(13000 - 55 * k) + " 14000\n";
    }
    std::vector<uint32_t> fingerMode;
    std::vector<size_t> events;
    h.Play(script, [&](size_t) {
        fingerMode.push_back(h.container.fingerMode);
        events.push_back(h.sink.Count());
    });
    ASSERT_EQ(fingerMode.size(), 24u);
    EXPECT_EQ(fingerMode[11], 4u);  // the lift frame: no two-finger frame yet
    EXPECT_EQ(fingerMode[12], 2u);  // the first two-finger frame
    // Counted from the lift frame, 550 units were reached at frame 21; only the four-finger
    // shortcut is there at frame 22...
    EXPECT_EQ(events[22], 2u);
    // ...and the swipe once both moved 500 from the restart (frame 13 on): frame 23.
    EXPECT_EQ(h.TakeEvents(),
              Concat({Ctrl("RIGHT"), CGestureHarness::Shortcut("RIGHT", EVENT_FLAG_COMMAND)}));
}

}  // namespace
