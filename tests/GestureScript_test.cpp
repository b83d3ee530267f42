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

// Verify that each command produces the frames, statuses and positions it documents: a move
// rounds each intermediate position to the nearest unit, a raw frame is taken as written and
// leaves the fingers as they were, vanish drops a finger without a frame.
TEST(GestureScript, CommandsProduceFrames) {
    const auto f = Frames(
        "# a two-finger touch\n"
        "down 1 1000 2000\n"
        "down 2 5000 2000   # second finger\n"
        "move 1 2000 2000, 2 5001 4000 in 3\n"
        "hold 1\n"
        "up 1 2100 2200\n"
        "gone 2 7\n"
        "hold 1\n"
        "down 4 10 10\n"
        "raw 5 1 100 200, 5 0 300 400\n"
        "vanish 4\n"
        "hold 1\n");
    std::vector<std::vector<TScriptContact>> contacts;
    for (const TScriptFrame& frame : f) contacts.push_back(frame.contacts);
    EXPECT_EQ(contacts, (std::vector<std::vector<TScriptContact>>{
                            {C(1, 0, 1000, 2000)},
                            {C(1, 1, 1000, 2000), C(2, 0, 5000, 2000)},
                            {C(1, 1, 1333, 2000), C(2, 1, 5000, 2667)},
                            {C(1, 1, 1667, 2000), C(2, 1, 5001, 3333)},
                            {C(1, 1, 2000, 2000), C(2, 1, 5001, 4000)},
                            {C(1, 1, 2000, 2000), C(2, 1, 5001, 4000)},
                            {C(1, 2, 2100, 2200), C(2, 1, 5001, 4000)},
                            {C(2, 7, 5001, 4000)},
                            {},  // nobody down: an empty frame
                            {C(4, 0, 10, 10)},
                            {C(5, 1, 100, 200), C(5, 0, 300, 400)},
                            {},
                        }));
    EXPECT_EQ(f[2].line, 4);
}

// Verify the gaps: zero before the first frame, one period between frames, and a wait
// replacing the period (waits add up).
TEST(GestureScript, GapsFollowRateAndWait) {
    std::vector<uint64_t> gaps;
    const char* script = "rate 250\ndown 1 10 10\nhold 1\nwait 3999us\nhold 1\nwait 1ms\n"
                         "wait 2s\nhold 1\nrate 3\nhold 1\n";
    for (const TScriptFrame& f : Frames(script)) gaps.push_back(f.gapMicros);
    EXPECT_EQ(gaps, (std::vector<uint64_t>{0, 4000, 3999, 2001000, 333333}));
    EXPECT_EQ(Frames("wait 5ms\nhold 1\n")[0].gapMicros, 5000u);
}

// Verify that every kind of mistake is refused with its line and reason, and that FromText
// throws for it (tests rely on it to fail loudly).
TEST(GestureScript, MistakesRefused) {
    const char* const kParts = "expected <id> <x> <y> in each comma-separated part";
    const char* const kUpParts = "expected <id> or <id> <x> <y> in each comma-separated part";
    const char* const kDuration = "duration expected (e.g. 250ms, 4000us, 2s), found ";
    const std::pair<const char*, std::string> cases[] = {
        {"jump 1", "line 1: unknown command \"jump\""},
        {"\ndown 1 0 5", "line 2: coordinate 0 is outside 1..32766"},
        {"down 1 5 32767", "line 1: coordinate 32767 is outside 1..32766"},
        {"down 256 5 5", "line 1: id 256 is outside 0..255"},
        {"down 1 5", std::string("line 1: ") + kParts},
        {"down 1 5 5,", std::string("line 1: ") + kParts},
        {"down 1 5 5\ndown 1 6 6", "line 2: finger 1 is already down"},
        {"up 3", "line 1: finger 3 is not down"},
        {"down 3 5 5\nup 3 5", std::string("line 2: ") + kUpParts},
        {"down 3 5 5\nup 3 5 5,", std::string("line 2: ") + kUpParts},
        {"down 1 5 5\nmove 1 6 6", "line 2: usage: move <id> <x> <y>[, ...] in <frames>"},
        {"down 1 5 5\nmove 1 6 6 in 0", "line 2: frame count 0 is outside 1..1000000"},
        {"down 1 5 5\ngone 1 2", "line 2: status 2 is outside 3..255"},
        {"wait 5", std::string("line 1: ") + kDuration + "\"5\""},
        {"wait 5xs", std::string("line 1: ") + kDuration + "\"5xs\""},
        {"rate 0", "line 1: rate 0 is outside 1..1000000"},
        {"hold x", "line 1: frame count expected, found \"x\""},
        {"down 0 1 1, 1 1 1, 2 1 1, 3 1 1, 4 1 1, 5 1 1, 6 1 1, 7 1 1, 8 1 1, 9 1 1",
         "line 1: a frame holds at most 9 contacts"},
        {"hold 1000000\nhold 1000000\n\nhold 1", "line 4: a script has at most 2000000 frames"},
    };
    for (const auto& [text, message] : cases) {
        std::string error;
        CGestureScript script;
        EXPECT_FALSE(CGestureScript::Parse(text, &script, &error));
        EXPECT_EQ(error, message);
        EXPECT_THROW(CGestureScript::FromText(text), std::invalid_argument) << text;
    }
}

std::vector<int> Fields(const _HARDWARE_SDK_POINT& p) {
    return {p.id, p.status, p.x, p.y, p.rawX, p.rawY, p.cell[0], p.cell[1]};
}

// Verify that the player moves the virtual clock by each gap (one period of the default 100
// reports a second, or the wait), gives an empty frame no contacts, links the contacts in
// script order with calibrated fields, and ends with nullptr.
TEST(GestureScriptPlayer, PlaysFramesOnTheClock) {
    const CGestureScript script =
        CGestureScript::FromText("hold 1\ndown 1 100 200, 2 300 400\nwait 1s\nup 2\n");
    TVirtualClock clock(5'000'000'000ull);
    CGestureScriptPlayer player(script, clock);

    const _HARDWARE_FRAME_SDK* f = player.NextFrame();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->points, nullptr);
    EXPECT_EQ(clock.MonotonicNanos(), 5'000'000'000ull);
    f = player.NextFrame();
    ASSERT_TRUE(f != nullptr && f->points != nullptr && f->points->next != nullptr);
    EXPECT_EQ(clock.MonotonicNanos(), 5'010'000'000ull);
    EXPECT_EQ(Fields(*f->points), (std::vector<int>{1, 0, 100, 200, 100, 200, 0, 0}));
    EXPECT_EQ(Fields(*f->points->next), (std::vector<int>{2, 0, 300, 400, 300, 400, 0, 0}));
    EXPECT_EQ(f->points->next->next, nullptr);

    f = player.NextFrame();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(clock.MonotonicNanos(), 6'010'000'000ull);
    EXPECT_EQ(player.Current().line, 4);
    EXPECT_EQ(f->points->status, 1);
    EXPECT_EQ(f->points->next->status, 2);
    EXPECT_TRUE(player.Done());
    EXPECT_EQ(player.NextFrame(), nullptr);
    EXPECT_EQ(script.DurationMicros(), 1'010'000u);
}

}  // namespace
