// The device worker in process, on a virtual clock: an emulated frame answers through a
// scripted HID port, so every retry, pause and close command is seen without timing anything.
#include <gtest/gtest.h>

#include "support/WorkerRig.h"

namespace {

struct TRetryCase {
    const char* name;
    uint8_t command;
    int failures;
    const char* failureLine;  // logged when the worker gives up; empty: it goes on
};

class WorkerRetries : public testing::TestWithParam<TRetryCase> {};

TEST_P(WorkerRetries, TriesTenTimesThreeHundredMicrosecondsApart) {
    const TRetryCase& c = GetParam();
    TWorkerRig rig;
    rig.FailNext(c.command, c.failures);
    rig.UnplugAt(3);
    EXPECT_EQ(test(&rig.node), 0u);

    const int pausesTaken = std::min(c.failures, 10);
    EXPECT_EQ(rig.clock.pauses, std::vector<uint64_t>(static_cast<size_t>(pausesTaken), 300));
    const bool gaveUp = *c.failureLine != '\0';
    EXPECT_EQ(rig.Logged(c.failureLine), gaveUp);
    EXPECT_EQ(rig.Logged("STEP 5"), !gaveUp);
    EXPECT_EQ(rig.ended, 1);
    EXPECT_FALSE(rig.port.IsOpen());
    // Giving up sends the close command; an unplugged frame gets none.
    EXPECT_EQ(rig.CloseCommands(), gaveUp ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Worker, WorkerRetries,
    testing::Values(TRetryCase{"config9", MTDEV_CMD_DEV_CONFIG, 9, ""},
                    TRetryCase{"config10", MTDEV_CMD_DEV_CONFIG, 10, "GETCFG_ERR"},
                    TRetryCase{"frame9", MTDEV_CMD_FRAME_SDK, 9, ""},
                    TRetryCase{"frame10", MTDEV_CMD_FRAME_SDK, 10, "GETFRAME_ERR"}),
    [](const testing::TestParamInfo<TRetryCase>& info) { return info.param.name; });

TEST(Worker, SixFailedPollsEndTheWorkerFiveDoNot) {
    for (const int failures : {5, 6}) {
        SCOPED_TRACE(failures);
        TWorkerRig rig;
        rig.FailNext(MTDEV_CMD_FRAME_SDK, failures, /*skip=*/3);
        rig.UnplugAt(10);
        test(&rig.node);
        EXPECT_EQ(rig.Logged("pDev->faildCount==0"), failures == 6);
        EXPECT_EQ(rig.CloseCommands(), failures == 6 ? 1 : 0);
        EXPECT_TRUE(rig.clock.pauses.empty());  // polls are retried back to back
        EXPECT_FALSE(rig.port.IsOpen());
        EXPECT_EQ(rig.ended, 1);
    }
}

// One finger down and resting long enough to press the left button.
void HoldOneFinger(CMtDevEmulator& emulator) {
    emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 0, 8000, 8000}}));
    for (int i = 0; i < 12; ++i) {
        emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 1, 8000, 8000}}));
    }
}

bool Pressed(const std::vector<TInputEvent>& events) {
    return std::any_of(events.begin(), events.end(), [](const TInputEvent& e) {
        return e.type == TInputEventType::LeftMouseDown;
    });
}

TEST(Worker, UnplugSendsNoCloseCommandButGivesTheHandleBack) {
    TWorkerRig rig;
    HoldOneFinger(rig.emulator);
    rig.UnplugAt(14);
    test(&rig.node);
    EXPECT_TRUE(Pressed(rig.sink.Events()));
    EXPECT_EQ(rig.CloseCommands(), 0);
    EXPECT_FALSE(rig.port.IsOpen());
    EXPECT_TRUE(rig.Logged("THREAD QUIT"));
}

TEST(Worker, OrderlyStopReleasesTheButtonAndClosesTheFrame) {
    TWorkerRig rig;
    HoldOneFinger(rig.emulator);
    rig.StopAt(14);
    test(&rig.node);
    const std::vector<TInputEvent> events = rig.sink.Events();
    ASSERT_TRUE(Pressed(events));
    EXPECT_EQ(events.back().type, TInputEventType::LeftMouseUp);
    EXPECT_EQ(rig.CloseCommands(), 1);
    EXPECT_FALSE(rig.port.IsOpen());
    EXPECT_TRUE(rig.Logged("THREAD QUIT"));
    EXPECT_EQ(rig.ended, 1);
}

}  // namespace
