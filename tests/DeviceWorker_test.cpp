// The device worker in process, on a virtual clock: an emulated frame answers through a
// scripted HID port, so every retry, pause and close command is seen without timing anything.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "LoadEvent.h"
#include "MtDevEmulator.h"
#include "MtScriptedHidDevice.h"
#include "support/MtDevLinkRig.h"

namespace {

// The virtual clock, noting every pause the worker takes.
class CPauseClock final : public TClock {
public:
    uint64_t MonotonicNanos() override { return m_inner.MonotonicNanos(); }
    void TimeOfDay(timeval* tv) override { m_inner.TimeOfDay(tv); }
    void SleepMicros(uint64_t micros) override {
        pauses.push_back(micros);
        m_inner.AdvanceMicros(micros);
    }
    // Time passing between two frames, not a pause of the worker.
    void Pass(uint64_t micros) { m_inner.AdvanceMicros(micros); }
    std::vector<uint64_t> pauses;

private:
    TVirtualClock m_inner{1'000'000'000};
};

struct TWorkerRig {
    CPauseClock clock;
    TScopedClock scopedClock{clock};
    CMtDevEmulator emulator;
    CMtScriptedHidDevice port;
    TMACDEVICEPATH path{&port, nullptr, MTDEV_TYPE_HID};
    MtDevNode node;
    std::atomic<bool> stopping{false};
    CRecordingEventSink sink;
    TShellPorts ports;
    int ended = 0;
    // Runs before each poll is answered, with the number of polls answered so far.
    std::function<void(uint64_t served)> beforePoll;
    CLogCapture log;

    TWorkerRig() {
        port.SetResponder([this](const uint8_t* report, long length,
                                 std::vector<TScriptedInput>* inputs) {
            if (length > 5 && report[0] == MTDEV_PACKET_READ) {
                clock.Pass(10'000);  // a frame every 10 ms
                if (beforePoll) beforePoll(emulator.FramesServed());
            }
            std::vector<TEmuReply> replies;
            emulator.OnHidOutput(report, static_cast<size_t>(length), &replies);
            for (TEmuReply& reply : replies) inputs->push_back({std::move(reply.bytes)});
        });
        node.devPath = &path;
        node.hidDevice = &port;
        node.deviceNumber = 1;
        node.container.SetEventSink(&sink);
        node.worker.stopping = &stopping;
        node.worker.ports = &ports;
        node.worker.ended = [this] { ++ended; };
    }
    ~TWorkerRig() { node.devPath = nullptr; }

    void FailNext(uint8_t command, int count, int skip = 0) {
        // Each fault counts the skipped messages itself, so the failures come in a row.
        for (int i = 0; i < count; ++i) {
            emulator.InjectFault({TEmuFaultKind::WrongCode, command, TEmuStage::Any, skip});
        }
    }
    bool Logged(const std::string& line) const { return log.Count(TLogChannel::System, line) > 0; }
    int CloseCommands() const {
        int n = 0;
        for (const TEmuRequest& r : emulator.Requests()) n += r.command == MTDEV_CMD_CLOSE;
        return n;
    }
    // Ends the run from inside the worker's poll, as the main thread would.
    void UnplugAt(uint64_t served) {
        beforePoll = [this, served](uint64_t n) {
            if (n < served) return;
            node.removed.store(true);
            node.isRunning.store(false);
        };
    }
    void StopAt(uint64_t served) {
        beforePoll = [this, served](uint64_t n) {
            if (n < served) return;
            stopping.store(true);
            node.isRunning.store(false);
        };
    }
};

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
