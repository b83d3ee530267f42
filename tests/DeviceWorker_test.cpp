// The device worker in process, on a virtual clock: an emulated frame answers through a
// scripted HID port, so every retry, pause and close command is seen without timing anything.
#include <gtest/gtest.h>

#include "support/WorkerRig.h"

namespace {

struct TRetryCase {
    const char* name;
    uint8_t command;
    int failures;
    int skip;                 // messages answered before the failures: 3 reaches the polls
    const char* failureLine;  // logged when the worker gives up; empty: it goes on
};

class WorkerRetries : public testing::TestWithParam<TRetryCase> {};

// Verify that configuration reads and first frames are tried ten times 300 microseconds apart
// and polls six times back to back; that giving up sends the close command and an unplugged
// frame gets none.
TEST_P(WorkerRetries, GiveUpAtTheLimitWithTheCloseCommand) {
    const TRetryCase& c = GetParam();
    TWorkerRig rig;
    rig.FailNext(c.command, c.failures, c.skip);
    rig.UnplugAt(10);
    EXPECT_EQ(test(&rig.node), 0u);

    const size_t pausesTaken = c.skip > 0 ? 0 : static_cast<size_t>(std::min(c.failures, 10));
    EXPECT_EQ(rig.clock.pauses, std::vector<uint64_t>(pausesTaken, 300));
    const bool gaveUp = *c.failureLine != '\0';
    EXPECT_EQ(rig.Logged(c.failureLine), gaveUp);
    EXPECT_EQ(rig.Logged("STEP 5"), !gaveUp || c.skip > 0);
    EXPECT_EQ(rig.ended, 1);
    EXPECT_FALSE(rig.port.IsOpen());
    EXPECT_EQ(rig.CloseCommands(), gaveUp ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Worker, WorkerRetries,
    testing::Values(TRetryCase{"config9", MTDEV_CMD_DEV_CONFIG, 9, 0, ""},
                    TRetryCase{"config10", MTDEV_CMD_DEV_CONFIG, 10, 0, "GETCFG_ERR"},
                    TRetryCase{"frame9", MTDEV_CMD_FRAME_SDK, 9, 0, ""},
                    TRetryCase{"frame10", MTDEV_CMD_FRAME_SDK, 10, 0, "GETFRAME_ERR"},
                    TRetryCase{"poll5", MTDEV_CMD_FRAME_SDK, 5, 3, ""},
                    TRetryCase{"poll6", MTDEV_CMD_FRAME_SDK, 6, 3, "pDev->faildCount==0"}),
    [](const testing::TestParamInfo<TRetryCase>& info) { return info.param.name; });

// Verify that a frame unplugged with a finger resting on it gets no close command but gives its
// handle back, and that an orderly stop releases the held button and closes the frame.
TEST(Worker, UnplugAndOrderlyStopWithTheButtonHeld) {
    for (const bool unplug : {true, false}) {
        SCOPED_TRACE(unplug ? "unplugged" : "stopped");
        TWorkerRig rig;
        // One finger down, resting long enough to press the left button, and still down when
        // the worker ends.
        rig.emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 0, 8000, 8000}}));
        for (int i = 0; i < 30; ++i) {
            rig.emulator.QueueFrame(EmuCompactFrame(16384, 16384, {{1, 1, 8000, 8000}}));
        }
        unplug ? rig.UnplugAt(14) : rig.StopAt(14);
        const std::vector<TInputEvent> events = rig.Run();
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.front().type, TInputEventType::LeftMouseDown);
        // Released without a position: the pointer stays where the finger left it.
        EXPECT_EQ(events.back().type, TInputEventType::LeftMouseUp);
        EXPECT_EQ(rig.CloseCommands(), unplug ? 0 : 1);
        EXPECT_FALSE(rig.port.IsOpen());
        EXPECT_TRUE(rig.Logged("THREAD QUIT"));
        EXPECT_EQ(rig.ended, 1);
    }
}

}  // namespace
