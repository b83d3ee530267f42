#include "GestureRecorder.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ContactMatching.h"
#include "GestureScript.h"

namespace {

constexpr int64_t kSecond = 4'000'000;  // one second in time-stamp units

// A time stamp at `micros` microseconds after second 1,700,000,000.
int64_t Stamp(int64_t micros) {
    return (1'700'000'000 + micros / 1'000'000) * kSecond + micros % 1'000'000;
}

// rawX is not written: the player makes its own.
TMonitoredContact C(int id, int status, int32_t x, int32_t y, bool retired = false) {
    return {.id = static_cast<uint8_t>(id), .status = static_cast<uint8_t>(status),
            .retired = retired, .x = x, .y = y, .rawX = 1};
}

std::string Record(const std::vector<TMonitoredFrame>& frames, const std::string& header = "") {
    std::ostringstream out;
    CGestureRecorder recorder(out, header);
    for (const TMonitoredFrame& f : frames) recorder.Add(f);
    recorder.Finish();
    return out.str();
}

TEST(IrframectlGestureRecorder, WritesHeaderFramesTimesAndEmptyRuns) {
    struct {
        const char* name;
        std::vector<TMonitoredFrame> frames;
        const char* script;
    } const cases[] = {
        {"a whole second needs no wait; the period needs none",
         {{Stamp(0), {C(1, 0, 100, 200)}}, {Stamp(10'000), {C(1, 2, 100, 200)}}},
         "raw 1 0 100 200\nraw 1 2 100 200\n"},
        {"the place within the second and other gaps are waited for",
         {{Stamp(250), {C(3, 0, 5, 6), C(4, 0, 7, 8)}}, {Stamp(8'250), {C(3, 1, 5, 9)}}},
         "wait 250us\nraw 3 0 5 6, 4 0 7 8\nwait 8000us\nraw 3 1 5 9\n"},
        {"empty frames a period apart become one hold",
         {{Stamp(0), {C(1, 2, 9, 9)}}, {Stamp(10'000), {}}, {Stamp(20'000), {}},
          {Stamp(30'000), {C(2, 0, 9, 9)}}},
         "raw 1 2 9 9\nhold 2\nraw 2 0 9 9\n"},
        {"a wait splits a run of empty frames",
         {{Stamp(0), {}}, {Stamp(10'000), {}}, {Stamp(35'000), {}}, {Stamp(45'000), {}}},
         "hold 2\nwait 25000us\nhold 2\n"},
        {"retired contacts are left out; positions kept within the script's range",
         {{Stamp(0), {C(1, 1, 0, 40000), C(2, 1, 50, 50, true)}}, {Stamp(10'000), {C(2, 1, 1, 1, true)}}},
         "raw 1 1 1 32766\nhold 1\n"},
        {"a clock that steps back plays as no gap; long gaps are split into hours",
         {{Stamp(1'000'000), {}}, {Stamp(999'995), {}}, {Stamp(7'300'999'995), {}}},
         "hold 1\nwait 0us\nhold 1\nwait 3600000000us\nwait 3600000000us\nwait 100000000us\nhold 1\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(Record(c.frames), c.script) << c.name;
    EXPECT_EQ(Record({}, "from frame 1\nsecond line"), "# from frame 1\n# second line\n");
}

// Whatever is recorded plays back to the same contacts at the same times within the second
// (the player starts on a whole second, as a simulated frame does).
TEST(IrframectlGestureRecorder, PlaysBackToTheRecordedFrames) {
    std::mt19937 random(7);
    std::vector<TMonitoredFrame> frames;
    int64_t t = 123'456;
    for (int i = 0; i < 300; ++i) {
        TMonitoredFrame f;
        f.timeStamp = Stamp(t);
        const int n = static_cast<int>(random() % 4);
        for (int k = 0; k < n; ++k) {
            f.contacts.push_back(C(k * 7, static_cast<int>(random() % 4),
                                   static_cast<int32_t>(1 + random() % 32766),
                                   static_cast<int32_t>(1 + random() % 32766)));
        }
        frames.push_back(f);
        t += random() % 3 == 0 ? 10'000 : static_cast<int64_t>(random() % 40'000);
    }
    CGestureScript script;
    std::string error;
    ASSERT_TRUE(CGestureScript::Parse(Record(frames), &script, &error)) << error;

    TVirtualClock clock(50'000'000'000ull, 1'700'000'000);  // a whole second
    CGestureScriptPlayer player(script, clock);
    for (size_t i = 0; i < frames.size(); ++i) {
        const _HARDWARE_FRAME_SDK* played = player.NextFrame();
        ASSERT_NE(played, nullptr) << "frame " << i;
        timeval now{};
        clock.TimeOfDay(&now);
        const int64_t playedMicros = (now.tv_sec - 1'700'000'000) * 1'000'000 + now.tv_usec;
        EXPECT_EQ(playedMicros, StampToMicros(frames[i].timeStamp) - 1'700'000'000'000'000)
            << "frame " << i;
        std::vector<std::array<int32_t, 4>> seen, want;
        for (const _HARDWARE_SDK_POINT* p = played->points; p != nullptr; p = p->next) {
            seen.push_back({p->id, p->status, p->x, p->y});
        }
        for (const TMonitoredContact& c : frames[i].contacts) want.push_back({c.id, c.status, c.x, c.y});
        EXPECT_EQ(seen, want) << "frame " << i;
    }
    EXPECT_EQ(player.NextFrame(), nullptr);
}

}  // namespace
