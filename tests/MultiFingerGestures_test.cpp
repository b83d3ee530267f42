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
    return std::all_of(contacts.begin(), contacts.end(), [](auto* c) { return c->PathEmpty(); });
}

const std::string kThreeDown = "down 1 10000 10000, 2 12000 10000, 3 14000 10000\n";
// Four fingers on the corners of a 4000-unit square.
const std::string kFourDown = "down 1 10000 10000, 2 14000 10000, 3 10000 14000, 4 14000 14000\n";

// ---------------------------------------------------------------------------------------------
// Three fingers

// Verify the three-finger latch: three fingers held still latch TFS_THREE_FINGERS_TAP (every
// further three-finger frame only empties the paths); a finger left alone afterwards posts
// nothing while it moves, and its lift is finished by toSingleClick (a click, for a touch
// longer than 49 ticks that moved less than 50 units).
TEST(ThreeFingers, StillHandLatchesAndSilencesTheLastFinger) {
    CGestureHarness h;
    std::vector<TELO_FINGER_STATUS> lastGesture;
    h.Play(kThreeDown + "hold 5\n"      // frames 1-5: latched
               "up 1, 2\n"                  // frame 6
               "move 3 14030 10000 in 3\n"  // frames 7-9: one finger, silent
               "hold 100\n",                // frames 10-109
           [&](size_t frame) {
               lastGesture.push_back(h.tracker.LastGesture());
               if (frame >= 1 && frame <= 5) {
                   EXPECT_TRUE(AllPathsEmpty(h.tracker.Tracked())) << "frame " << frame;
               }
           });
    for (size_t frame = 1; frame <= 109; ++frame) {
        EXPECT_EQ(lastGesture[frame], TFS_THREE_FINGERS_TAP) << "frame " << frame;
    }
    EXPECT_TRUE(h.TakeEvents().empty());

    h.Play("up 3\n");
    const TScreenPoint p = h.Scaled(14030, 10000);
    EXPECT_EQ(h.TakeEvents(),
              (Events{TInputEvent::Mouse(TInputEventType::LeftMouseUp, p.x, p.y, EVENT_FLAG_NONE),
                      h.Left(TInputEventType::MouseMoved, 14030, 10000, 1),
                      h.Left(TInputEventType::LeftMouseDown, 14030, 10000, 1),
                      h.Left(TInputEventType::LeftMouseUp, 14030, 10000, 1)}));
    EXPECT_EQ(h.container.lastClickX, 14030.0f);
    h.Play("hold 1\n");  // the empty frame ends the hand and the latch
    EXPECT_EQ(h.container.localGesture, TFS_NONE);
}

// Verify the still-hand limit: a hand whose fingers each moved less than 100 units latches (and
// stays silent while it then moves on), one that moved 100 does not; neither posts anything.
TEST(ThreeFingers, StillHandLimitIs100Units) {
    for (const int moved : {99, 100}) {
        CGestureHarness h;
        const std::string y = std::to_string(10000 - moved);
        h.Play(kThreeDown + "move 1 10000 " + y + ", 2 12000 " + y + ", 3 14000 " + y + " in 1\n"
               "move 1 10000 8000, 2 12000 8000, 3 14000 8000 in 5\n");
        EXPECT_EQ(h.tracker.LastGesture() == TFS_THREE_FINGERS_TAP, moved < 100) << moved;
        EXPECT_TRUE(h.TakeEvents().empty()) << moved;
    }
}

// ---------------------------------------------------------------------------------------------
// Four-finger sweeps

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
// nothing, and the lift posts nothing. The next touch sweeps again: the last lift left
// one-finger mode, so it presses on its first frame, and its first four-finger frame releases
// the button (at the first contact's latest position) before any sweep is judged.
TEST(FourFingerSweep, PostsControlArrowOncePerTouch) {
    const struct {
        int dx, dy;
        const char* key;  // the crossed Control-arrow
    } cases[] = {{-1000, 0, "RIGHT"}, {1000, 0, "LEFT"}, {0, -1000, "UP"}, {0, 1000, "DOWN"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        CGestureHarness h;
        std::vector<TELO_FINGER_STATUS> lastGesture;
        const std::string touch = kFourDown + MoveAll(4, c.dx, c.dy, 10) + "hold 3\n" +
                                  MoveAll(4, -c.dx, -c.dy, 10) + "up 1, 2, 3, 4\nhold 1\n";
        h.Play(touch, [&](size_t) { lastGesture.push_back(h.tracker.LastGesture()); });
        EXPECT_EQ(h.TakeEvents(), Ctrl(c.key));
        // Moves of 100 per frame: three fingers beyond 300 at frame 4, where the sweep fires on
        // the third finger's update and the fourth finger's update already finds the latch.
        // Frames 4 to 23 (the sweep, the hold, the sweep back) stay latched; the lift frame ends
        // the latch.
        const std::vector<TELO_FINGER_STATUS> latched(20, TFS_ONE_FINGER_UP);
        EXPECT_EQ(std::vector(lastGesture.begin() + 4, lastGesture.begin() + 24), latched);
        EXPECT_FALSE(h.container.holdStatus);

        h.Play("wait 1s\n" + touch);
        const float x = 10000.0f + c.dx / 10, y = 10000.0f + c.dy / 10;
        EXPECT_EQ(h.TakeEvents(), Concat({{h.Left(TInputEventType::LeftMouseDown, 10000, 10000),
                                           h.Left(TInputEventType::LeftMouseUp, x, y)},
                                          Ctrl(c.key)}));
    }
}

// Verify the handler's latches on four contacts swept 1000 units left: with the left button
// held, only the release is posted (paths emptied, four-finger mode, no latch); then holdStatus
// follows isDown, so a sweep dealt as a lift does not latch and the next sweep posts again.
TEST(FourFingerSweepLatch, ReleaseFirstThenHoldStatusFollowsIsDown) {
    CGestureHarness h;
    std::vector<CTouchPointInfo> contacts;
    for (int i = 0; i < 4; ++i) contacts.emplace_back(i + 1, 20000.0f, 8000.0f + 1000 * i, 0, 0, 0);
    CTouchPointList hand;
    for (CTouchPointInfo& contact : contacts) hand.push_back(&contact);
    auto sweep = [&] {
        for (CTouchPointInfo& contact : contacts) {
            contact.Update(20000.0f, contact.GetY(), 0);
            contact.Update(19000.0f, contact.GetY(), 1);
        }
    };
    sweep();
    h.container.buttonState = kButtonPressed;
    EXPECT_EQ(h.container.DealPoints(hand, true), TFS_ONE_FINGER_UP);
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(TInputEventType::LeftMouseUp, 19000, 8000)}));
    EXPECT_TRUE(AllPathsEmpty(hand));
    EXPECT_EQ(h.container.fingerMode, kFingerModeFour);
    EXPECT_EQ(h.container.buttonState, kButtonReleased);
    EXPECT_FALSE(h.container.holdStatus);
    sweep();
    EXPECT_EQ(h.container.DealPoints(hand, false), TFS_FOUR_FINGERS_LEFT);
    EXPECT_FALSE(h.container.holdStatus);
    sweep();
    EXPECT_EQ(h.container.DealPoints(hand, true), TFS_FOUR_FINGERS_LEFT);
    EXPECT_TRUE(h.container.holdStatus);
    EXPECT_EQ(h.TakeEvents(), Concat({Ctrl("RIGHT"), Ctrl("RIGHT")}));
}

// Verify the sweep's limits: three of four fingers beyond 300 units (strictly), and every pair
// of bearings within 20 degrees.
TEST(FourFingerSweepLimits, MovementAndSpread) {
    struct {
        float to[4][2];
        TELO_FINGER_STATUS outcome;
    } const cases[] = {
        {{{9699, 10000}, {9699, 11000}, {9699, 12000}, {9700, 13000}}, TFS_FOUR_FINGERS_LEFT},
        {{{9699, 10000}, {9699, 11000}, {9700, 12000}, {9700, 13000}}, TFS_NONE},  // two beyond
        // One finger at bearing 245 against 270: 25 degrees off.
        {{{9000, 10000}, {9000, 11000}, {9000, 12000}, {9094, 13423}}, TFS_NONE},
    };
    for (const auto& c : cases) {
        std::vector<CTouchPointInfo> contacts;
        CTouchPointList list;
        for (int i = 0; i < 4; ++i) {
            contacts.emplace_back(i + 1, 10000.0f, 10000.0f + 1000 * i, 0, 0, 0);
            contacts.back().Update(c.to[i][0], c.to[i][1], 1);
        }
        for (CTouchPointInfo& contact : contacts) list.push_back(&contact);
        EXPECT_EQ(CTouchPointDeal::FourFingersRoll(list), c.outcome) << c.to[3][0];
    }
}

// ---------------------------------------------------------------------------------------------
// Scripts judged by their events alone

const std::string kClose3 = "move 1 10700 10700, 2 13300 10700, 3 10700 13300";
const std::string kFiveDown =
    "down 1 10000 10000, 2 14000 10000, 3 10000 14000, 4 14000 14000, 5 12000 12000\n";
const std::string kFanDown4 = "down 1 20000 10000, 2 24000 10000, 3 20000 14000, 4 24000 14000";
const std::string kFan = "move 1 19060 9658, 2 23007 9878, 3 19007 14122, 4 23060 14342";
const std::string kLift = "hold 3\nup 1, 2, 3, 4\nhold 1\n";

// Verify four-finger zooms and five contacts by the exact events their scripts post. Five
// contacts are handled as four: the first four sweep; for the zoom four of the five must move,
// all ten bearing pairs count, and the areas come from the first four.
TEST(MultiFingerScripts, PostExactEvents) {
    const std::pair<std::string, Events> cases[] = {
        // Spreading; closing is the demo's (as is a short latched three-finger touch).
        {kFourDown + "move 1 9300 9300, 2 14700 9300, 3 9300 14700, 4 14700 14700 in 10\n"
                     "hold 3\n",
         Fn("F11")},
        // Only two of four moving, whether they sweep or spread: nothing, the lift neither.
        {kFourDown + "move 1 9000 10000, 2 13000 10000 in 10\n" + kLift, {}},
        {kFourDown + "move 1 9000 9000, 4 15000 15000 in 10\n" + kLift, {}},
        // Within 46 degrees of each other but too spread for a sweep (40 degrees): neither.
        {kFanDown4 + "\n" + kFan + " in 10\n", {}},
        {kFourDown + kClose3 + " in 10\nhold 3\n", Fn("F8")},  // three of four closing
        {kFiveDown + MoveAll(5, -1000, 0, 10) + "hold 3\n", Ctrl("RIGHT")},
        // The fifth goes the other way: the sweep looks at the first four only.
        {kFiveDown + "move 1 9000 10000, 2 13000 10000, 3 9000 14000, 4 13000 14000, "
                     "5 13000 12000 in 10\n",
         Ctrl("RIGHT")},
        // The fanning four alone are nothing; a fifth heading right makes a pair 46 degrees or
        // more apart, and the first four's box grew.
        {kFanDown4 + ", 5 22000 12000\n" + kFan + ", 5 23000 12000 in 10\n", Fn("F11")},
        // Four of five closing is enough, three of five not (three of four would be).
        {kFiveDown + kClose3 + ", 4 13300 13300 in 10\n", Fn("F8")},
        {kFiveDown + kClose3 + " in 10\nhold 3\n", {}},
        // First four closing while the fifth runs far out: the box of the first four shrank.
        {kFiveDown + kClose3 + ", 4 13300 13300, 5 20000 12000 in 10\n", Fn("F8")},
    };
    for (const auto& [script, expected] : cases) {
        CGestureHarness h;
        h.Play(script);
        EXPECT_EQ(h.TakeEvents(), expected) << script;
    }
}

// ---------------------------------------------------------------------------------------------
// Finger-count transitions after four fingers

// Verify that when a four-finger touch is lifted down to two fingers, the first two-finger
// frame only empties the paths (so 550 units counted from the lift frame are no swipe), and
// two-finger gestures then work as usual.
TEST(FourFingerTransitions, TwoFingerFrameAfterFourOnlyClears) {
    CGestureHarness h;
    // Fingers 3 and 4 end the sweep at (9000, 14000) and (13000, 14000), then go on left by 55
    // units a frame after fingers 1 and 2 lift (frame 11).
    std::string script = kFourDown + MoveAll(4, -1000, 0, 10) + "up 1, 2\n";
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
    EXPECT_EQ(fingerMode[11], kFingerModeFour);  // the lift frame: no two-finger frame yet
    EXPECT_EQ(fingerMode[12], kFingerModeTwo);  // the first two-finger frame
    // Counted from the lift frame, 550 units were reached at frame 21; only the four-finger
    // shortcut is there at frame 22...
    EXPECT_EQ(events[22], 2u);
    // ...and the swipe once both moved 500 from the restart (frame 13 on): frame 23.
    EXPECT_EQ(h.TakeEvents(),
              Concat({Ctrl("RIGHT"), CGestureHarness::Shortcut("RIGHT", EVENT_FLAG_COMMAND)}));
}

}  // namespace
