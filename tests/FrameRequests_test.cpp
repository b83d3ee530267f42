// A tool's requests carried out by the frame's worker between two polls, in process on a virtual
// clock: the emulated frame answers through a scripted HID port, and requests are handed to the
// frame slot from inside a poll, as the main thread would between two of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>

#include "TuioOutput.h"
#include "support/WorkerRig.h"

namespace {

using testing::HasSubstr;

std::shared_ptr<_HARDWARE_DEV_CONFIG> ConfigOf(const std::vector<uint8_t>& block) {
    auto config = std::make_shared<_HARDWARE_DEV_CONFIG>();
    EXPECT_EQ(DecodeDevConfig(block.data(), static_cast<int>(block.size()), config.get()),
              DEV_CONFIG_DECODE_OK);
    return config;
}

// The default configuration with its area mapped onto the left half of the output.
std::shared_ptr<_HARDWARE_DEV_CONFIG> HalfWidthConfig() {
    auto config = ConfigOf(EmuDefaultConfigBlock());
    config->areas[0].targetRect.width /= 2;
    return config;
}

TFrameRequest WriteConfig(std::shared_ptr<_HARDWARE_DEV_CONFIG> config) {
    TFrameRequest request;
    request.operation = TFrameOperation::WriteConfig;
    request.config = std::move(config);
    return request;
}

// The events of a tap at raw (9000, 7000) on a frame that `prepare` set up.
std::vector<TInputEvent> Tap(const std::function<void(TWorkerRig&)>& prepare) {
    TWorkerRig rig;
    prepare(rig);
    rig.TapAt(4, 9000, 7000);
    return rig.Run();
}

// Verify that a configuration written through the worker is what the frame's next touch is
// calibrated with: the same events as when the frame held it from the start, and not the ones
// of the configuration it had before.
TEST(FrameRequests, WrittenConfigurationCalibratesTheNextTouch) {
    const auto before = Tap([](TWorkerRig&) {});
    const auto fromStart = Tap([](TWorkerRig& rig) {
        const auto config = HalfWidthConfig();
        std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
        EncodeDevConfig(config.get(), block.data());
        rig.emulator.SetConfigBlock(block);
    });
    TWorkerRig rig;
    rig.SubmitAt(2, WriteConfig(HalfWidthConfig()));
    rig.TapAt(4, 9000, 7000);
    const auto written = rig.Run();
    ASSERT_EQ(rig.results.size(), 1u);
    EXPECT_EQ(rig.results[0].outcome, TFrameOutcome::Done) << rig.results[0].message;
    ASSERT_TRUE(rig.results[0].config);
    // Read by value: the record is packed.
    const int32_t readBack = rig.results[0].config->areas[0].targetRect.width;
    const int32_t asWritten = HalfWidthConfig()->areas[0].targetRect.width;
    EXPECT_EQ(readBack, asWritten);
    EXPECT_EQ(rig.node.frame.Summary(), "1 area, 0 panels");
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(written, fromStart);
    EXPECT_NE(written, before);
}

// Records what a TUIO output sends, by target: the count of datagrams that set a cursor.
struct TTuioCapture {
    std::map<std::string, int> cursorUpdates;

    TTuioSocketFactory Factory() {
        return [this](const TTuioTarget& target, std::string*) -> std::unique_ptr<ITuioSocket> {
            return std::make_unique<Socket>(this, FormatTuioTarget(target));
        };
    }

private:
    struct Socket : ITuioSocket {
        Socket(TTuioCapture* c, std::string t) : capture(c), target(std::move(t)) {}
        bool Send(std::span<const uint8_t> bytes, std::string*) override {
            static constexpr char kSet[] = {'s', 'e', 't', '\0'};
            if (std::search(bytes.begin(), bytes.end(), std::begin(kSet), std::end(kSet)) !=
                bytes.end()) {
                ++capture->cursorUpdates[target];
            }
            return true;
        }
        bool Loopback() const override { return true; }
        TTuioCapture* capture;
        std::string target;
    };
};

// The default area shrunk to the left half of the frame, and a new area on the right half that
// sends its cursors to port 4001.
std::shared_ptr<_HARDWARE_DEV_CONFIG> SplitAreasConfig() {
    auto config = ConfigOf(EmuDefaultConfigBlock());
    config->flags |= DEV_FLAG_AREAS_ENABLED;
    _HCRECT_CONFIG_FILE left = config->areas[0];
    left.center.x = 8192;
    left.axisH.x = -8192;
    _HCRECT_CONFIG_FILE right = left;
    right.center.x = 24576;
    right.id = 1;
    right.port = 4001;
    config->areas[0] = left;
    config->areas[1] = right;
    config->areaCount = 2;
    return config;
}

// Verify that TUIO routes by the areas of a configuration written through the worker from the
// next frame on: the same touch on the right half goes to the frame's target before the write
// and to the new area's target after it.
TEST(FrameRequests, TuioFollowsAWrittenArea) {
    const auto Run = [](bool write) {
        TWorkerRig rig;
        TTuioSettings settings;
        std::atomic<int32_t> sessions{0};
        TTuioCapture capture;
        CTuioOutput tuio(settings, sessions, capture.Factory(), "test");
        rig.node.worker.listeners = {&tuio};
        if (write) rig.SubmitAt(2, WriteConfig(SplitAreasConfig()));
        rig.TapAt(4, 12000, 8192);
        rig.Run();
        return capture.cursorUpdates;
    };
    const std::map<std::string, int> before = Run(false);
    const std::map<std::string, int> after = Run(true);
    EXPECT_GT(before.count("127.0.0.1:3333"), 0u);
    EXPECT_EQ(before.count("127.0.0.1:4001"), 0u);
    EXPECT_GT(after.count("127.0.0.1:4001"), 0u);
    EXPECT_EQ(after.count("127.0.0.1:3333"), 0u);
}

struct TFailureCase {
    const char* name;
    int failedPolls;         // polls failing after the failed transfer
    TFrameOutcome outcome;   // what the tool hears
    const char* message;
};

class FailedTransfer : public testing::TestWithParam<TFailureCase> {};

// Verify that a failed transfer is answered Failed when the frame still answers, and Gone when
// it stopped answering right after.
TEST_P(FailedTransfer, NextPollTellsFailedFromGone) {
    const TFailureCase& c = GetParam();
    TWorkerRig rig;
    rig.beforePoll = [&](uint64_t polls) {
        if (polls == 2) {
            rig.emulator.InjectFault({TEmuFaultKind::WrongCode, MTDEV_CMD_DEV_INFO, TEmuStage::Any});
            for (int i = 0; i < c.failedPolls; ++i) {
                rig.emulator.InjectFault(
                    {TEmuFaultKind::WrongCode, MTDEV_CMD_FRAME_SDK, TEmuStage::Any, 1});
            }
            rig.Submit(TFrameRequest{});  // ReadInfo
        }
    };
    rig.UnplugAt(12);
    rig.Run();
    ASSERT_EQ(rig.results.size(), 1u);
    EXPECT_EQ(rig.results[0].outcome, c.outcome);
    EXPECT_THAT(rig.results[0].message, HasSubstr(c.message));
    EXPECT_EQ(rig.results[0].deviceError, DE_ERROR);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FailedTransfer,
    testing::Values(TFailureCase{"StillAnswers", 0, TFrameOutcome::Failed, "ReadInfo failed"},
                    TFailureCase{"StoppedAnswering", 6, TFrameOutcome::Gone,
                                 "frame 1 stopped answering during the request"}),
    [](const auto& info) { return std::string(info.param.name); });

// Verify that a tool may ask as soon as it hears the frame is being configured or runs: the
// request waits for the first poll, or is answered when the frame never comes to run.
TEST(FrameRequests, TakenFromTheMomentTheFrameIsConfigured) {
    struct TCase {
        TFrameState askAt;
        int failedConfigReads;
        TFrameOutcome outcome;
    };
    for (const TCase& c : {TCase{TFrameState::Configuring, 0, TFrameOutcome::Done},
                           TCase{TFrameState::Running, 0, TFrameOutcome::Done},
                           TCase{TFrameState::Configuring, 10, TFrameOutcome::Failed}}) {
        SCOPED_TRACE(FrameStateName(c.askAt) + std::string(" ") +
                     std::to_string(c.failedConfigReads));
        TWorkerRig rig;
        struct TAskOnce final : IDriverEvents {
            TAskOnce(TWorkerRig& r, TFrameState s) : rig(r), askAt(s) {}
            void OnFrameAdded(int) override {}
            void OnFrameRemoved(int) override {}
            void OnFrameChanged(int) override {
                if (asked || rig.node.frame.State() != askAt) return;
                asked = true;
                const auto done = [this](TFrameResult r) { rig.results.push_back(std::move(r)); };
                rig.node.frame.Accept(TFrameRequest{}, done, &refusal);
            }
            TWorkerRig& rig;
            const TFrameState askAt;
            bool asked = false;
            std::string refusal;
        } asker(rig, c.askAt);
        // Without a main loop the change is heard on the worker, the moment it is made.
        CShellState shell(rig.ports);
        shell.SetEvents(&asker);
        rig.node.frame.shell = &shell;
        rig.FailNext(MTDEV_CMD_DEV_CONFIG, c.failedConfigReads);
        rig.UnplugAt(3);
        rig.Run();
        EXPECT_EQ(asker.refusal, "");
        ASSERT_EQ(rig.results.size(), 1u);
        EXPECT_EQ(rig.results[0].outcome, c.outcome) << rig.results[0].message;
    }
}

// Verify that the writes reach the frame as they are.
TEST(FrameRequests, WritesOnTheController) {
    THidRig rig;
    CMtDevController controller(ShortHidTimeouts());
    ASSERT_EQ(controller.OpenDevice(&rig.path), DE_OK);
    const std::atomic<bool> cancelled{false};
    auto run = [&](TFrameOperation operation, std::vector<uint8_t> bytes = {}) {
        TFrameRequest request;
        request.operation = operation;
        request.bytes = std::move(bytes);
        return RunFrameRequest(controller, request, cancelled);
    };
    std::vector<uint8_t> pattern(100, 0x5A);
    pattern[2] = 100, pattern[3] = pattern[4] = pattern[5] = 0;
    EXPECT_EQ(run(TFrameOperation::WriteScanPattern, pattern).outcome, TFrameOutcome::Done);
    EXPECT_EQ(rig.emulator.ScanPattern(), pattern);

    TFrameRequest override;
    override.operation = TFrameOperation::WriteOverride;
    override.override.flags = 0x101F05;
    override.override.option1 = 7;
    override.override.edgeAdjust[2] = -3;
    const TFrameResult overridden = RunFrameRequest(controller, override, cancelled);
    ASSERT_EQ(overridden.outcome, TFrameOutcome::Done) << overridden.message;
    EXPECT_EQ(overridden.config->option1, 7);
    EXPECT_EQ(overridden.config->areas[0].edgeAdjust[2], -3);

    EXPECT_EQ(run(TFrameOperation::WriteTouchSystemFile, std::vector<uint8_t>(1024, 1)).outcome,
              TFrameOutcome::Done);
    TEmuWrite last;
    ASSERT_TRUE(rig.emulator.LastWrite(MTDEV_CMD_TOUCH_SYSTEM, &last));
    EXPECT_EQ(last.data.size(), 1024u);
    controller.CloseDevice(MTDEV_CLOSE_SILENT);
}

// Verify that a cancel before a request's next step stops it there.
TEST(FrameRequests, CancelledBetweenSteps) {
    THidRig rig;
    CMtDevController controller(ShortHidTimeouts());
    ASSERT_EQ(controller.OpenDevice(&rig.path), DE_OK);
    const std::atomic<bool> cancelled{true};
    TFrameRequest request;
    request.operation = TFrameOperation::ReadConfig;
    const TFrameResult result = RunFrameRequest(controller, request, cancelled);
    EXPECT_EQ(result.outcome, TFrameOutcome::Failed);
    EXPECT_THAT(result.message, HasSubstr("stopped"));
    EXPECT_EQ(rig.emulator.RequestCount(), 0u);
    controller.CloseDevice(MTDEV_CLOSE_SILENT);
}

}  // namespace
