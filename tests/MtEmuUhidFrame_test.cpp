// The scripted frame on uhid: what each poll is answered with, in what order, paced from the
// previous answer; the test plays the kernel's side of /dev/uhid over a socketpair.
#include "MtEmuUhidFrame.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "CCalibrateSystem.h"
#include "CalibrateCoordinate.h"
#include "MtDevCtrlInterface.h"

namespace {

constexpr int kBoundMs = 30000;  // a bound on each wait, so a fault fails instead of hanging

const CSimFrameEncoder& Encoder() {
    static const CSimFrameEncoder encoder;  // slow to build: shared by every test
    return encoder;
}

class CFrameRig {
public:
    explicit CFrameRig(uint64_t idleMicros = 1000) {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        m_kernel = pair[1];
        frame.SetIdlePeriodMicros(idleMicros);
        frame.SetFrameSentHook([this](size_t index, uint64_t nanos) {
            std::lock_guard<std::mutex> lock(m_mutex);
            sent.push_back(index);
            sentNanos.push_back(nanos);
        });
        std::string error;
        EXPECT_TRUE(frame.PlugFd(pair[0], &error)) << error;
        EXPECT_EQ(Read()->type, static_cast<uint32_t>(UHID_CREATE2));
    }
    ~CFrameRig() {
        frame.Unplug();
        close(m_kernel);
    }

    std::unique_ptr<uhid_event> Read() {
        auto event = std::make_unique<uhid_event>();
        std::memset(event.get(), 0, sizeof *event);
        event->type = 0xFFFFFFFFu;
        pollfd p{m_kernel, POLLIN, 0};
        if (poll(&p, 1, kBoundMs) == 1) (void)recv(m_kernel, event.get(), sizeof *event, 0);
        return event;
    }

    void SendPoll() {
        auto event = std::make_unique<uhid_event>();
        std::memset(event.get(), 0, sizeof *event);
        event->type = UHID_OUTPUT;
        event->u.output.rtype = UHID_OUTPUT_REPORT;
        event->u.output.size = 65;
        CMtDevController::MakeCommandPacketLoSpeed(event->u.output.data + 1, MTDEV_PACKET_READ,
                                                   MTDEV_CMD_FRAME_SDK, 0);
        ASSERT_EQ(send(m_kernel, event.get(), sizeof *event, 0),
                  static_cast<ssize_t>(sizeof *event));
    }

    // Polls once and returns the payload of the frame answered.
    TEmuFramePayload Poll() {
        SendPoll();
        const auto input = Read();
        TEmuFramePayload payload{};
        EXPECT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
        EXPECT_EQ(input->u.input2.data[0], MTDEV_REPLY_DATA);
        std::memcpy(payload.data(), input->u.input2.data + 1, payload.size());
        return payload;
    }

    std::vector<size_t> Sent() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return sent;
    }
    std::vector<uint64_t> SentNanos() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return sentNanos;
    }

    CMtEmuUhidFrame frame{Encoder(), TUhidIdentity{}};

private:
    int m_kernel = -1;
    std::mutex m_mutex;
    std::vector<size_t> sent;
    std::vector<uint64_t> sentNanos;
};

// Verify that polls get empty frames until a script is handed over, then its frames in order,
// Verify that the emulated frame's raw positions run straight across the frame, as a real
// sensor's do (no step at the centre, which would leave any calibration off on one side), and
// that the frame's own calibration brings every script position back within one value.
TEST(MtEmuUhidFrame, RawPositionsRunStraight) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    SimDevConfig(config.get());
    const _CS_CONFIG geometry{8191, 8191, kSimRawExtent, kSimRawExtent};
    CCalibrateSystem calibration;
    ASSERT_TRUE(calibration.InitCalibrateSys(config.get(), &geometry));
    int worstX = 0, worstY = 0, worstBack = 0;
    for (int v = 1; v <= 32766; ++v) {
        const int rawX = Encoder().RawX(v), rawY = Encoder().RawY(v);
        worstX = std::max(worstX, std::abs(rawX - (kSimRawExtent - v)));
        worstY = std::max(worstY, std::abs(rawY - v));
        _CAL_COORDINATE_INFO* area = calibration.UpdateCalCoords(rawX, rawY);
        ASSERT_NE(area, nullptr);
        GetShortCoords(area);
        worstBack = std::max({worstBack, std::abs(area->x.AsInt() - v), std::abs(area->y.AsInt() - v)});
    }
    EXPECT_LE(worstX, 1);
    EXPECT_LE(worstY, 1);
    EXPECT_LE(worstBack, 1);
}

// each encoded as the encoder encodes its contacts, then empty frames again.
TEST(MtEmuUhidFrame, EmptyFramesAroundTheScript) {
    CFrameRig rig;
    EXPECT_EQ(rig.Poll(), Encoder().IdleFrame());
    const CGestureScript script =
        CGestureScript::FromText("rate 1000\ndown 1 100 200\nmove 1 300 200 in 2\nup 1\n");
    ASSERT_TRUE(rig.frame.Play(script));
    EXPECT_TRUE(rig.frame.Playing());
    for (const TScriptFrame& frame : script.Frames()) {
        EXPECT_EQ(rig.Poll(), Encoder().Encode(frame.contacts)) << "script line " << frame.line;
    }
    EXPECT_TRUE(rig.frame.WaitPlayed(kBoundMs));
    EXPECT_FALSE(rig.frame.Playing());
    EXPECT_EQ(rig.frame.FramesSent(), script.Frames().size());
    EXPECT_EQ(rig.Poll(), Encoder().IdleFrame());
    EXPECT_EQ(rig.frame.Polls(), script.Frames().size() + 2);
    EXPECT_EQ(rig.Sent(), (std::vector<size_t>{0, 1, 2, 3}));
}

// Verify that a second script can follow the first, counted from its own first frame.
TEST(MtEmuUhidFrame, ScriptsFollowOneAnother) {
    CFrameRig rig;
    const CGestureScript first = CGestureScript::FromText("rate 1000\ndown 1 100 200\nup 1\n");
    const CGestureScript second = CGestureScript::FromText("rate 1000\ndown 2 900 800\nup 2\n");
    ASSERT_TRUE(rig.frame.Play(first));
    rig.Poll();
    EXPECT_FALSE(rig.frame.Play(second));  // the first still plays
    rig.Poll();
    ASSERT_TRUE(rig.frame.WaitPlayed(kBoundMs));
    ASSERT_TRUE(rig.frame.Play(second));
    EXPECT_EQ(rig.Poll(), Encoder().Encode(second.Frames()[0].contacts));
    EXPECT_EQ(rig.Poll(), Encoder().Encode(second.Frames()[1].contacts));
    EXPECT_EQ(rig.Sent(), (std::vector<size_t>{0, 1, 0, 1}));
    EXPECT_FALSE(rig.frame.Play(CGestureScript{}));  // nothing to play
}

// Verify when an answer is due: one gap after the previous answer for a poll in time, half a
// gap after a late poll, at once for the first poll; so the driver's stamps are at least as far
// apart as the script says when it keeps up, and never closer than half a gap when it does not.
TEST(MtEmuUhidFrame, AnswerDueOneGapAfterPreviousAnswer) {
    struct Case {
        uint64_t lastAnswer, arrived, gapMicros, due;
    };
    const Case cases[] = {
        {0, 5'000'000, 10'000, 0},                     // first poll
        {1'000'000, 1'000'000, 10'000, 11'000'000},    // polled at once: one gap
        {1'000'000, 7'000'000, 10'000, 12'000'000},    // polled late: half a gap after the poll
        {1'000'000, 6'000'000, 10'000, 11'000'000},    // exactly where both rules meet
        {1'000'000, 50'000'000, 10'000, 55'000'000},   // far behind
        {1'000'000, 2'000'000, 5'000, 6'000'000},      // another rate
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CMtEmuUhidFrame::AnswerDueNanos(c.lastAnswer, c.arrived, c.gapMicros), c.due)
            << c.lastAnswer << " " << c.arrived << " " << c.gapMicros;
    }
}

// Verify that unplugging releases an answer waiting for a frame an hour away (the test would
// hang otherwise), tells the kernel, and that nothing plays afterwards.
TEST(MtEmuUhidFrame, UnplugReleasesAWaitingAnswer) {
    CFrameRig rig;
    const CGestureScript script =
        CGestureScript::FromText("rate 1000\ndown 1 100 200\nwait 3600s\nhold 1\n");
    ASSERT_TRUE(rig.frame.Play(script));
    rig.Poll();
    rig.SendPoll();  // its answer is due in an hour
    for (int i = 0; i < kBoundMs && rig.frame.Link().OutputReports() < 2; ++i) usleep(1000);
    ASSERT_EQ(rig.frame.Link().OutputReports(), 2u);
    rig.frame.Unplug();
    // The waiting answer is dropped: the device went first.
    const auto event = rig.Read();
    EXPECT_EQ(event->type, static_cast<uint32_t>(UHID_DESTROY));
    EXPECT_FALSE(rig.frame.Playing());
    EXPECT_FALSE(rig.frame.WaitPlayed(10));
    EXPECT_FALSE(rig.frame.Play(script));
    EXPECT_EQ(rig.Sent(), (std::vector<size_t>{0}));
    std::string error;
    EXPECT_FALSE(rig.frame.PlugFd(-1, &error));  // one appearance per frame
}

}  // namespace
