#include "GestureScript.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<TScriptFrame> Frames(const char* text) {
    return CGestureScript::FromText(text).Frames();
}

TScriptContact C(int id, int status, int x, int y) {
    return TScriptContact{static_cast<uint8_t>(id), static_cast<uint8_t>(status), x, y};
}

// Verify that each command produces the frames, statuses and positions it documents.
TEST(GestureScript, CommandsProduceFrames) {
    const auto f = Frames(
        "# a two-finger touch\n"
        "down 1 1000 2000\n"
        "down 2 5000 2000   # second finger\n"
        "move 1 2000 2000, 2 5000 4000 in 2\n"
        "hold 1\n"
        "up 1 2100 2200\n"
        "gone 2 7\n"
        "hold 1\n");
    ASSERT_EQ(f.size(), 8u);
    EXPECT_EQ(f[0].contacts, (std::vector{C(1, 0, 1000, 2000)}));
    EXPECT_EQ(f[1].contacts, (std::vector{C(1, 1, 1000, 2000), C(2, 0, 5000, 2000)}));
    EXPECT_EQ(f[2].contacts, (std::vector{C(1, 1, 1500, 2000), C(2, 1, 5000, 3000)}));
    EXPECT_EQ(f[3].contacts, (std::vector{C(1, 1, 2000, 2000), C(2, 1, 5000, 4000)}));
    EXPECT_EQ(f[4].contacts, (std::vector{C(1, 1, 2000, 2000), C(2, 1, 5000, 4000)}));
    EXPECT_EQ(f[5].contacts, (std::vector{C(1, 2, 2100, 2200), C(2, 1, 5000, 4000)}));
    EXPECT_EQ(f[6].contacts, (std::vector{C(2, 7, 5000, 4000)}));
    EXPECT_TRUE(f[7].contacts.empty());  // nobody down: an empty frame
    EXPECT_EQ(f[2].line, 4);
}

// Verify that a straight move rounds each intermediate position to the nearest unit.
TEST(GestureScript, MoveInterpolatesAndRounds) {
    const auto f = Frames("down 1 100 100\nmove 1 101 200 in 3\n");
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(f[1].contacts[0], C(1, 1, 100, 133));
    EXPECT_EQ(f[2].contacts[0], C(1, 1, 101, 167));
    EXPECT_EQ(f[3].contacts[0], C(1, 1, 101, 200));
}

// Verify that raw frames are taken as written and leave the fingers as they were, and that
// vanish drops a finger without a frame.
TEST(GestureScript, RawAndVanish) {
    const auto f = Frames("down 4 10 10\nraw 5 1 100 200, 5 0 300 400\nvanish 4\nhold 1\n");
    ASSERT_EQ(f.size(), 3u);
    EXPECT_EQ(f[1].contacts, (std::vector{C(5, 1, 100, 200), C(5, 0, 300, 400)}));
    EXPECT_TRUE(f[2].contacts.empty());
}

// Verify the gaps: zero before the first frame, one period between frames, and a wait
// replacing the period (waits add up).
TEST(GestureScript, GapsFollowRateAndWait) {
    const auto f = Frames("rate 250\ndown 1 10 10\nhold 1\nwait 3999us\nhold 1\nwait 1ms\nwait 2s\nhold 1\nrate 3\nhold 1\n");
    ASSERT_EQ(f.size(), 5u);
    EXPECT_EQ(f[0].gapMicros, 0u);
    EXPECT_EQ(f[1].gapMicros, 4000u);
    EXPECT_EQ(f[2].gapMicros, 3999u);
    EXPECT_EQ(f[3].gapMicros, 2001000u);
    EXPECT_EQ(f[4].gapMicros, 333333u);
    EXPECT_EQ(CGestureScript::FromText("wait 5ms\nhold 1\n").Frames()[0].gapMicros, 5000u);
}

struct BadScript {
    const char* text;
    const char* message;
};

class GestureScriptErrors : public testing::TestWithParam<BadScript> {};

// Verify that every kind of mistake is refused with its line and reason.
TEST_P(GestureScriptErrors, Refused) {
    std::string error;
    CGestureScript script;
    EXPECT_FALSE(CGestureScript::Parse(GetParam().text, &script, &error));
    EXPECT_EQ(error, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    All, GestureScriptErrors,
    testing::Values(
        BadScript{"jump 1", "line 1: unknown command \"jump\""},
        BadScript{"\ndown 1 0 5", "line 2: coordinate 0 is outside 1..32766"},
        BadScript{"down 1 5 32767", "line 1: coordinate 32767 is outside 1..32766"},
        BadScript{"down 256 5 5", "line 1: id 256 is outside 0..255"},
        BadScript{"down 1 5", "line 1: expected <id> <x> <y> in each comma-separated part"},
        BadScript{"down 1 5 5,", "line 1: expected <id> <x> <y> in each comma-separated part"},
        BadScript{"down 1 5 5\ndown 1 6 6", "line 2: finger 1 is already down"},
        BadScript{"up 3", "line 1: finger 3 is not down"},
        BadScript{"down 3 5 5\nup 3 5", "line 2: expected <id> or <id> <x> <y> in each comma-separated part"},
        BadScript{"down 3 5 5\nup 3 5 5,", "line 2: expected <id> or <id> <x> <y> in each comma-separated part"},
        BadScript{"down 1 5 5\nmove 1 6 6", "line 2: usage: move <id> <x> <y>[, ...] in <frames>"},
        BadScript{"down 1 5 5\nmove 1 6 6 in 0", "line 2: frame count 0 is outside 1..1000000"},
        BadScript{"down 1 5 5\ngone 1 2", "line 2: status 2 is outside 3..255"},
        BadScript{"wait 5", "line 1: duration expected (e.g. 250ms, 4000us, 2s), found \"5\""},
        BadScript{"wait 5xs", "line 1: duration expected (e.g. 250ms, 4000us, 2s), found \"5xs\""},
        BadScript{"rate 0", "line 1: rate 0 is outside 1..1000000"},
        BadScript{"hold x", "line 1: frame count expected, found \"x\""},
        BadScript{"down 0 1 1, 1 1 1, 2 1 1, 3 1 1, 4 1 1, 5 1 1, 6 1 1, 7 1 1, 8 1 1, 9 1 1",
                  "line 1: a frame holds at most 9 contacts"},
        BadScript{"hold 1000000\nhold 1000000\n\nhold 1",
                  "line 4: a script has at most 2000000 frames"}));

// Verify that FromText throws for a bad script (tests rely on it to fail loudly).
TEST(GestureScript, FromTextThrows) {
    EXPECT_THROW(CGestureScript::FromText("nonsense"), std::invalid_argument);
}

// Verify that the player moves the virtual clock by each gap, links the contacts in script
// order with calibrated fields, and ends with nullptr.
TEST(GestureScriptPlayer, PlaysFramesOnTheClock) {
    const CGestureScript script =
        CGestureScript::FromText("down 1 100 200, 2 300 400\nwait 1s\nup 2\n");
    TVirtualClock clock(5'000'000'000ull);
    CGestureScriptPlayer player(script, clock);

    const _HARDWARE_FRAME_SDK* f = player.NextFrame();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(clock.MonotonicNanos(), 5'000'000'000ull);
    ASSERT_NE(f->points, nullptr);
    EXPECT_EQ(f->points->id, 1);
    EXPECT_EQ(f->points->status, 0);
    EXPECT_EQ(f->points->x, 100);
    EXPECT_EQ(f->points->y, 200);
    EXPECT_EQ(f->points->rawX, 100);
    EXPECT_EQ(f->points->cell[0], 0);
    ASSERT_NE(f->points->next, nullptr);
    EXPECT_EQ(f->points->next->id, 2);
    EXPECT_EQ(f->points->next->next, nullptr);

    f = player.NextFrame();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(clock.MonotonicNanos(), 6'000'000'000ull);
    EXPECT_EQ(player.Current().line, 3);
    EXPECT_EQ(f->points->status, 1);
    EXPECT_EQ(f->points->next->status, 2);
    EXPECT_TRUE(player.Done());
    EXPECT_EQ(player.NextFrame(), nullptr);
    EXPECT_EQ(script.DurationMicros(), 1'000'000u);
}

// Verify that an empty scripted frame yields a record without contacts.
TEST(GestureScriptPlayer, EmptyFrameHasNoContacts) {
    const CGestureScript script = CGestureScript::FromText("hold 2\n");
    TVirtualClock clock;
    CGestureScriptPlayer player(script, clock);
    const _HARDWARE_FRAME_SDK* f = player.NextFrame();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->points, nullptr);
    EXPECT_EQ(clock.MonotonicNanos(), 0u);
    player.NextFrame();
    EXPECT_EQ(clock.MonotonicNanos(), 10'000'000u);  // default 100 reports per second
}

}  // namespace
