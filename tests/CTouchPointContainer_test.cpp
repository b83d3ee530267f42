// One-finger mouse emulation and the dispatcher, driven by gesture scripts through contact
// matching into a container that posts to a recording sink.
#include "CTouchPointContainer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/GestureHarness.h"

namespace {

using T = TInputEventType;

std::string Str(int64_t v) { return std::to_string(v); }

Events DoubleClick(const CGestureHarness& h, float x, float y) {
    return {h.Left(T::MouseMoved, x, y, 2), h.Left(T::LeftMouseUp, x, y, 2),
            h.Left(T::LeftMouseDown, x, y, 2), h.Left(T::LeftMouseUp, x, y, 2)};
}

// The unflagged release that opens every click that toSingleClick posts.
TInputEvent PlainUp(const CGestureHarness& h, float x, float y) {
    const TScreenPoint p = h.Scaled(x, y);
    return TInputEvent::Mouse(T::LeftMouseUp, p.x, p.y, EVENT_FLAG_NONE);
}

// Verify the basic touch: the first frame only arms, the second presses, later frames drag,
// the lift releases; and what each frame leaves as the worker's last gesture. (That the next
// touch presses at once is seen by the two- and four-finger tests' second touches.)
TEST(OneFinger, PressDragRelease) {
    CGestureHarness h;
    std::vector<TELO_FINGER_STATUS> results;
    std::vector<size_t> eventsAfterFrame;
    h.Play(
        "down 1 1000 2000\n"
        "move 1 3000 2000 in 2\n"
        "up 1\n",
        [&](size_t) {
            results.push_back(h.tracker.LastGesture());
            eventsAfterFrame.push_back(h.sink.Count());
        });
    EXPECT_EQ(h.TakeEvents(), (Events{h.Left(T::LeftMouseDown, 2000, 2000),
                                      h.Left(T::LeftMouseDragged, 3000, 2000),
                                      h.Left(T::LeftMouseUp, 3000, 2000)}));
    EXPECT_EQ(results, (std::vector<TELO_FINGER_STATUS>{TFS_NONE, TFS_ONE_FINGER_DOWN,
                                                        TFS_ONE_FINGER_DRAG, TFS_ONE_FINGER_UP}));
    EXPECT_EQ(eventsAfterFrame, (std::vector<size_t>{0, 1, 2, 3}));
    EXPECT_EQ(h.container.buttonState, kButtonReleased);
    EXPECT_EQ(h.container.fingerMode, kFingerModeOne);
    EXPECT_TRUE(h.tracker.Tracked().empty());
}

// Verify the channels of the log lines of an arming frame, a pressing frame and a lift (the
// golden demo's trace holds their texts).
TEST(OneFinger, LogLines) {
    CGestureHarness h(32767.0f, 32767.0f);  // scaled positions equal device positions
    h.Play("down 1 1000 2000\n");
    EXPECT_EQ(h.TakeLogs(),
              (std::vector<TLoggedLine>{{TLogChannel::System, "new point add"},
                                        {TLogChannel::Stdout, "1"},
                                        {TLogChannel::Stdout, "x:1000.000000y:2000.000000"},
                                        {TLogChannel::Stdout, "point.x:1000.000000point.y:2000.000000"},
                                        {TLogChannel::System, "asdasd"}}));
    h.Play("hold 2\n");
    EXPECT_EQ(h.TakeLines(TLogChannel::Stdout),
              (std::vector<std::string>{"1", "x:1000.000000y:2000.000000",
                                        "point.x:1000.000000point.y:2000.000000", "down", "1",
                                        "x:1000.000000y:2000.000000",
                                        "point.x:1000.000000point.y:2000.000000", "drag"}));
    h.Play("up 1\n");
    EXPECT_EQ(h.TakeLines(TLogChannel::System),
              (std::vector<std::string>{"mouse up start", "mouse up end"}));
}

// A first tap at (1000, 2000), pressed and released; returns the tick of its release.
int64_t FirstTap(CGestureHarness& h) {
    h.Play("down 1 1000 2000\nhold 1\nup 1\n");
    h.TakeEvents();
    h.TakeLogs();
    return h.container.lastClickTick;
}

// A second tap that goes down at (downX, 2000) and lifts at (liftX, 2000) exactly at the
// start of tick `liftTick`.
void SecondTap(CGestureHarness& h, int downX, int liftX, int64_t liftTick) {
    const uint64_t untilLift = h.MicrosUntilTick(liftTick);
    ASSERT_GT(untilLift, 10000u);
    h.Play("wait " + Str(static_cast<int64_t>(untilLift) - 10000) + "us\ndown 1 " + Str(downX) +
           " 2000\nup 1 " + Str(liftX) + " 2000\n");
    EXPECT_EQ(h.Tick(), liftTick);
}

// Verify how a quick second tap ends: a double click when it lifts within 14 ticks, within
// 200 units of the first click and having moved at most 100 (logging both distances); otherwise
// the up goes on.
TEST(OneFinger, SecondTap) {
    const struct {
        int downX, liftX;
        int64_t ticks;  // after the first release
    } cases[] = {{1003, 1003, 14}, {1000, 1000, 15}, {1200, 1200, 5},
                 {1201, 1201, 5},  {1050, 1150, 5},  {1050, 1151, 5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.downX << " " << c.liftX << " " << c.ticks);
        CGestureHarness h;
        const int64_t first = FirstTap(h);
        SecondTap(h, c.downX, c.liftX, first + c.ticks);
        const float down = static_cast<float>(c.downX);
        const float lift = static_cast<float>(c.liftX);
        const Events pressAndUp{h.Left(T::LeftMouseDown, down, 2000),
                                h.Left(T::LeftMouseUp, lift, 2000)};
        const float nearClick = std::abs(lift - 1000.0f);
        if (c.ticks > 14) {
            EXPECT_EQ(h.TakeEvents(), pressAndUp);
            EXPECT_EQ(h.tracker.LastGesture(), TFS_ONE_FINGER_UP);
            EXPECT_EQ(h.container.lastClickTick, first + c.ticks);
            EXPECT_EQ(h.container.lastClickX, lift);
        } else if (nearClick <= 200 && std::abs(lift - down) <= 100) {
            EXPECT_EQ(h.TakeEvents(), Concat({pressAndUp, DoubleClick(h, lift, 2000)}));
            EXPECT_EQ(h.tracker.LastGesture(), TFS_ONE_FINGER_DBCLICK);
            EXPECT_EQ(h.container.buttonState, kButtonReleased);
            EXPECT_EQ(h.container.lastClickTick, first);
            const std::vector<TLoggedLine> logs = h.TakeLogs();
            char distances[2][64];
            std::snprintf(distances[0], sizeof distances[0], "distance:%f", nearClick);
            std::snprintf(distances[1], sizeof distances[1], "MYdistance:%f", std::abs(lift - down));
            EXPECT_EQ(std::vector<TLoggedLine>(logs.end() - 4, logs.end()),
                      (std::vector<TLoggedLine>{{TLogChannel::System, "mouse up start"},
                                                {TLogChannel::System, distances[0]},
                                                {TLogChannel::System, distances[1]},
                                                {TLogChannel::Stdout, "1-DBClick"}}));
        } else {
            // Not a double click: the button goes on to a drag and stays "held".
            EXPECT_EQ(h.TakeEvents(),
                      Concat({pressAndUp, Events{h.Left(T::LeftMouseDragged, lift, 2000)}}));
            EXPECT_EQ(h.tracker.LastGesture(), TFS_ONE_FINGER_DRAG);
            EXPECT_EQ(h.container.buttonState, kButtonDragging);
            EXPECT_EQ(h.container.lastClickTick, first);  // left as it was
            EXPECT_EQ(h.container.lastClickX, 1000.0f);
        }
    }
}

// Verify that short touches that start a new touch post Command-0, then Command-9, then
// Command-0 again, and no mouse event.
TEST(OneFinger, ShortTouchesToggleZoom) {
    CGestureHarness h;
    h.Play("down 1 1000 2000\nup 1\n");
    EXPECT_EQ(h.TakeEvents(), CGestureHarness::Shortcut("0", EVENT_FLAG_COMMAND));
    EXPECT_FALSE(h.container.zoomToggle);
    EXPECT_EQ(h.container.touchStartTick, 0);
    EXPECT_EQ(h.container.gestureSent, 1);
    for (const char* key : {"9", "0"}) {
        h.container.fingerMode = kFingerModeTwo;  // as a two-finger gesture leaves it
        h.Play("wait 1s\ndown 1 1000 2000\nup 1\n");
        EXPECT_EQ(h.TakeEvents(), CGestureHarness::Shortcut(key, EVENT_FLAG_COMMAND)) << key;
    }
    EXPECT_EQ(h.container.buttonState, kButtonNeverPressed);
}

// Verify how a long touch that ends before it pressed is finished: moved 50 units or more, it is
// replayed as a drag (press and release at unscaled device points, one drag per sample, all at
// the scaled end point); moved less, it ends with an unflagged up and, because the lift has
// just stamped the click time, a double click.
TEST(OneFinger, LongTouchEndsByDistanceMoved) {
    CGestureHarness moved;
    moved.Play("down 1 1000 2000\nwait 1s\nup 1 1050 2000\n");
    EXPECT_EQ(moved.TakeEvents(),
              (Events{CGestureHarness::LeftUnscaled(T::LeftMouseDown, 1000, 2000),
                      moved.Left(T::LeftMouseDragged, 1050, 2000),
                      moved.Left(T::LeftMouseDragged, 1050, 2000),
                      CGestureHarness::LeftUnscaled(T::LeftMouseUp, 1050, 2000)}));
    EXPECT_EQ(moved.TakeLines(TLogChannel::Stdout).back(), "3-up");
    EXPECT_EQ(moved.container.buttonState, kButtonReleased);

    CGestureHarness still;
    still.Play("down 1 1000 2000\nwait 1s\nup 1 1049 2000\n");
    EXPECT_EQ(still.TakeEvents(),
              Concat({Events{PlainUp(still, 1049, 2000)}, DoubleClick(still, 1049, 2000)}));
    EXPECT_EQ(still.TakeLines(TLogChannel::System),
              (std::vector<std::string>{"new point add", "asdasd", "mark1", "sigleclick start",
                                        "doubleclick", "sigleclick end"}));
}

// Verify releaseClick: a held button is released at (0, 0) once; otherwise nothing at all.
TEST(OneFinger, ReleaseClick) {
    CGestureHarness h;
    h.container.releaseClick();
    EXPECT_TRUE(h.TakeEvents().empty());
    EXPECT_TRUE(h.TakeLogs().empty());
    h.Play("down 1 1000 2000\nhold 1\n");
    h.TakeEvents();
    h.TakeLogs();
    h.container.releaseClick();
    EXPECT_EQ(h.TakeEvents(),
              (Events{TInputEvent::Mouse(T::LeftMouseUp, 0, 0, EVENT_FLAG_SECONDARY_FN)}));
    EXPECT_EQ(h.TakeLogs(), (std::vector<TLoggedLine>{{TLogChannel::System, "releaseclick"}}));
    EXPECT_EQ(h.container.buttonState, kButtonReleased);
    h.container.releaseClick();
    EXPECT_TRUE(h.TakeEvents().empty());
}

// Verify that a contact without samples yields TFS_NONE and posts nothing.
TEST(OneFinger, EmptyPathDoesNothing) {
    CGestureHarness h;
    CTouchPointInfo contact(1, 5.0f, 5.0f, 0, 0, 0);
    contact.Remove();
    EXPECT_EQ(h.container.OneFingerTouchType(&contact, true), TFS_NONE);
    h.container.toSingleClick(&contact);
    EXPECT_TRUE(h.TakeEvents().empty());
}

// Verify the dispatcher's finger counts: none and more than five do nothing and print
// nothing; one to five print their count.
TEST(Dispatcher, FingerCounts) {
    CGestureHarness h;
    std::vector<CTouchPointInfo> contacts;
    for (int i = 0; i < 6; ++i) contacts.emplace_back(i, 100.0f * (i + 1), 100.0f, 0, 0, 0);
    for (size_t n = 0; n <= 6; ++n) {
        CTouchPointList list;
        for (size_t i = 0; i < n; ++i) list.push_back(&contacts[i]);
        h.container.SetLocalGesture(TFS_ONE_FINGER_DRAG);
        const TELO_FINGER_STATUS result = h.container.DealPoints(list, true);
        const std::vector<std::string> out = h.TakeLines(TLogChannel::Stdout);
        if (n == 0 || n > 5) {
            EXPECT_EQ(result, TFS_NONE) << n;
            EXPECT_TRUE(out.empty()) << n;
        } else {
            ASSERT_FALSE(out.empty()) << n;
            EXPECT_EQ(out.front(), std::to_string(n));
        }
        EXPECT_EQ(h.container.localGesture, result) << n;
    }
    EXPECT_TRUE(h.TakeEvents().empty());
}

}  // namespace
