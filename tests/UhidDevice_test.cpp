// The devices on /dev/uhid (the emulated frame's link, the scripted frame, the standard
// digitizer), with the test playing the kernel's side of the node over a SOCK_SEQPACKET
// socketpair (one event per message, as the node reads and writes them).
#include "MtEmuUhidFrame.h"
#include "MtEmuUhidLink.h"
#include "UhidDigitizer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "CCalibrateSystem.h"
#include "CalibrateCoordinate.h"
#include "MtDevCtrlInterface.h"

namespace {

// A bound on each wait for what comes, so that a fault fails a test instead of hanging it.
constexpr int kBoundMs = 30000;

// A zeroed event (too large for the stack of a test thread).
std::unique_ptr<uhid_event> Event(uint32_t type) {
    auto event = std::make_unique<uhid_event>();
    std::memset(event.get(), 0, sizeof *event);
    event->type = type;
    return event;
}

// The kernel's end of the uhid node.
class CFakeKernel {
public:
    CFakeKernel() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        deviceEnd = pair[0];
        m_fd = pair[1];
    }
    ~CFakeKernel() { close(m_fd); }

    // The next event the device wrote; type 0xFFFFFFFF when none came.
    std::unique_ptr<uhid_event> Read() {
        auto event = Event(0xFFFFFFFFu);
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, kBoundMs) == 1) (void)recv(m_fd, event.get(), sizeof *event, 0);
        return event;
    }

    void Write(const uhid_event& event, size_t bytes = sizeof(uhid_event)) {
        ASSERT_EQ(send(m_fd, &event, bytes, 0), static_cast<ssize_t>(bytes));
    }

    // An output report as hidraw hands it over: the report number, then the report.
    void Output(const std::vector<uint8_t>& report, uint8_t reportNumber = 0) {
        auto event = Event(UHID_OUTPUT);
        event->u.output.rtype = UHID_OUTPUT_REPORT;
        event->u.output.size = static_cast<uint16_t>(report.size() + 1);
        event->u.output.data[0] = reportNumber;
        std::memcpy(event->u.output.data + 1, report.data(), report.size());
        Write(*event);
    }

    // A UHID_GET_REPORT or UHID_SET_REPORT; checks that the reply has its id and `err`.
    void Request(uint32_t type, uint32_t id, uint8_t rnum, uint8_t rtype, uint16_t err) {
        auto request = Event(type);
        request->u.get_report = {id, rnum, rtype};  // both requests start alike
        Write(*request);
        const auto reply = Read();
        if (type == UHID_GET_REPORT) {
            ASSERT_EQ(reply->type, static_cast<uint32_t>(UHID_GET_REPORT_REPLY));
            EXPECT_EQ(reply->u.get_report_reply.id, id);
            EXPECT_EQ(reply->u.get_report_reply.err, err);
            lastFeature.assign(reply->u.get_report_reply.data,
                               reply->u.get_report_reply.data + reply->u.get_report_reply.size);
        } else {
            ASSERT_EQ(reply->type, static_cast<uint32_t>(UHID_SET_REPORT_REPLY));
            EXPECT_EQ(reply->u.set_report_reply.id, id);
            EXPECT_EQ(reply->u.set_report_reply.err, err);
        }
    }

    int deviceEnd = -1;  // handed to the device, which owns it
    std::vector<uint8_t> lastFeature;  // the last UHID_GET_REPORT_REPLY's data

private:
    int m_fd = -1;
};

// A 64-byte frame-poll request as the driver writes it.
std::vector<uint8_t> FramePoll() {
    std::vector<uint8_t> packet(64, 0);
    CMtDevController::MakeCommandPacketLoSpeed(packet.data(), MTDEV_PACKET_READ,
                                               MTDEV_CMD_FRAME_SDK, 0);
    return packet;
}

// ---------------------------------------------------------------------------------------------
// The emulated frame's link

struct CLinkRig {
    CLinkRig() {
        emulator.SetFrameSource([](TEmuFramePayload& payload) {
            payload.fill(0);
            payload[0] = 0x5A;  // a mark to recognise the frame by
            return true;
        });
    }
    void Start(const TUhidIdentity& identity = {}) {
        std::string error;
        ASSERT_TRUE(link.Adopt(kernel.deviceEnd, identity, &error)) << error;
        const auto create = kernel.Read();
        ASSERT_EQ(create->type, static_cast<uint32_t>(UHID_CREATE2));
        createEvent = *create;
    }
    CMtDevEmulator emulator;
    CMtEmuUhidLink link{emulator};
    CFakeKernel kernel;
    uhid_event createEvent{};
};

// Verify what UhidOutputReport accepts: only whole output events of an unnumbered output
// report, handed on without the report-number byte.
TEST(UhidOutputReport, StripsReportNumberAndRejectsTheRest) {
    const size_t whole = offsetof(uhid_event, u) + sizeof(uhid_output_req);
    struct Case {
        uint32_t type;
        uint8_t rtype, reportNumber;
        uint16_t size;
        size_t bytes;
        bool accepted;
    };
    const Case cases[] = {
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 0, 4, sizeof(uhid_event), true},
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 0, 4, whole, true},
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 0, 4, whole - 1, false},  // cut short
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 0, 1, whole, false},      // the report number alone
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 0, UHID_DATA_MAX + 1, whole, false},
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 0, UHID_DATA_MAX, whole, true},
        {UHID_OUTPUT, UHID_FEATURE_REPORT, 0, 4, whole, false},
        {UHID_OUTPUT, UHID_OUTPUT_REPORT, 1, 4, whole, false},  // a numbered report
        {UHID_INPUT2, UHID_OUTPUT_REPORT, 0, 4, whole, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << ", " << c.bytes << " bytes");
        auto event = Event(c.type);
        event->u.output.rtype = c.rtype;
        event->u.output.size = c.size;
        event->u.output.data[0] = c.reportNumber;
        const uint8_t* report = nullptr;
        size_t length = 0;
        ASSERT_EQ(UhidOutputReport(*event, c.bytes, &report, &length), c.accepted);
        if (c.accepted) {
            EXPECT_EQ(report, event->u.output.data + 1);
            EXPECT_EQ(length, c.size - 1u);
        }
    }
}

// Verify the round trip: a frame poll arrives without its report-number byte and its answer
// goes back as one UHID_INPUT2 that the sent hook saw first.
TEST(MtEmuUhidLink, AnswersOutputReportsWithInput2) {
    CLinkRig rig;
    std::mutex mutex;
    std::vector<std::vector<uint8_t>> hooked;
    rig.link.SetSentHook([&](const uint8_t* report, size_t length, uint64_t) {
        std::lock_guard<std::mutex> lock(mutex);
        hooked.emplace_back(report, report + length);
    });
    TUhidIdentity identity;
    identity.product = 0xC021;
    rig.Start(identity);
    EXPECT_EQ(rig.createEvent.u.create2.product, 0xC021u);

    rig.kernel.Output(FramePoll());
    const auto input = rig.kernel.Read();
    ASSERT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
    ASSERT_EQ(input->u.input2.size, 64u);
    EXPECT_EQ(input->u.input2.data[0], MTDEV_REPLY_DATA);
    EXPECT_EQ(input->u.input2.data[1], 0x5A);  // the frame source's payload

    // The emulator got exactly the 64 bytes the driver wrote.
    const std::vector<TEmuRequest> requests = rig.emulator.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, 64u);
    EXPECT_EQ(requests[0].command, MTDEV_CMD_FRAME_SDK);
    EXPECT_EQ(rig.link.OutputReports(), 1u);
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(hooked.size(), 1u);
    EXPECT_EQ(std::memcmp(hooked[0].data(), input->u.input2.data, 64), 0);
}

// Verify that input nobody asked for goes out only while the device is open.
TEST(MtEmuUhidLink, UnaskedInputOnlyWhileOpen) {
    CLinkRig rig;
    rig.Start();
    const uint8_t report[64] = {0x77};
    EXPECT_FALSE(rig.link.SendInput(report, sizeof report));

    rig.kernel.Write(*Event(UHID_START));
    rig.kernel.Write(*Event(UHID_OPEN));
    ASSERT_TRUE(rig.link.WaitUntil([](const TUhidLinkState& s) { return s.open; }, kBoundMs));
    EXPECT_TRUE(rig.link.SendInput(report, sizeof report));
    const auto input = rig.kernel.Read();
    ASSERT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
    EXPECT_EQ(input->u.input2.data[0], 0x77);

    rig.kernel.Write(*Event(UHID_CLOSE));
    ASSERT_TRUE(
        rig.link.WaitUntil([](const TUhidLinkState& s) { return s.closes == 1; }, kBoundMs));
    EXPECT_FALSE(rig.link.SendInput(report, sizeof report));
    const TUhidLinkState state = rig.link.State();
    EXPECT_FALSE(state.open);
    EXPECT_EQ(state.opens, 1u);
    EXPECT_EQ(state.closes, 1u);
    EXPECT_FALSE(rig.link.SendInput(report, 0));
}

// Verify that a silent link keeps what it drops, and answers again once told to.
TEST(MtEmuUhidLink, StopsAnsweringAndResumes) {
    CLinkRig rig;
    rig.Start();
    rig.link.SetAnswering(false);
    std::vector<uint8_t> silent = FramePoll();
    silent[63] = 0x42;
    rig.kernel.Output(silent);
    rig.kernel.Output(silent);
    auto twoDropped = [&](const TUhidLinkState&) { return rig.link.Unanswered() == 2; };
    ASSERT_TRUE(rig.link.WaitUntil(twoDropped, kBoundMs));
    rig.link.SetAnswering(true);
    rig.kernel.Output(FramePoll());
    // The first thing written is the answer to the third report: the first two got none.
    EXPECT_EQ(rig.kernel.Read()->type, static_cast<uint32_t>(UHID_INPUT2));
    EXPECT_EQ(rig.emulator.RequestCount(), 1u);
    const std::vector<std::vector<uint8_t>> dropped = rig.link.UnansweredReports();
    ASSERT_EQ(dropped.size(), 2u);
    EXPECT_EQ(dropped[0], silent);
    EXPECT_EQ(rig.link.OutputReports(), 3u);
}

// Verify that numbered reports are refused without reaching the emulator, that the link
// answers the kernel's feature-report requests with an error at once, and that a request cut
// before its id gets no answer while the link goes on.
TEST(MtEmuUhidLink, RefusesNumberedReportsAndFeatureRequests) {
    CLinkRig rig;
    rig.Start();
    rig.kernel.Output(FramePoll(), 3);
    rig.kernel.Request(UHID_GET_REPORT, 41, 0, UHID_FEATURE_REPORT, EIO);
    rig.kernel.Request(UHID_SET_REPORT, 42, 0, UHID_FEATURE_REPORT, EIO);
    EXPECT_EQ(rig.link.Rejected(), 1u);
    EXPECT_EQ(rig.emulator.RequestCount(), 0u);

    const auto cut = Event(UHID_GET_REPORT);
    rig.kernel.Write(*cut, sizeof cut->type + 2);
    rig.kernel.Output(FramePoll());
    EXPECT_EQ(rig.kernel.Read()->type, static_cast<uint32_t>(UHID_INPUT2));
}

// Verify that Destroy tells the kernel the device is gone, once; that a uhid node that cannot
// be opened is reported; and that a second device on the same link is refused.
TEST(MtEmuUhidLink, DestroyAndCreateFailures) {
    CLinkRig rig;
    rig.Start();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    std::string error;
    EXPECT_FALSE(rig.link.Adopt(pair[0], {}, &error));
    close(pair[1]);

    rig.link.Destroy();
    EXPECT_EQ(rig.kernel.Read()->type, static_cast<uint32_t>(UHID_DESTROY));
    EXPECT_FALSE(rig.link.Created());
    rig.link.Destroy();
    const uint8_t report[1] = {1};
    EXPECT_FALSE(rig.link.SendInput(report, sizeof report));

    CMtDevEmulator emulator;
    CMtEmuUhidLink link(emulator);
    EXPECT_FALSE(link.Create("/nonexistent/uhid", {}, &error));
    EXPECT_NE(error.find("/nonexistent/uhid"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// The scripted frame: what each poll is answered with, in what order, paced from the previous
// answer

const CSimFrameEncoder& Encoder() {
    static const CSimFrameEncoder encoder;  // slow to build: shared by every test
    return encoder;
}

class CFrameRig {
public:
    CFrameRig() {
        frame.SetIdlePeriodMicros(1000);
        frame.SetFrameSentHook([this](size_t index, uint64_t) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_sent.push_back(index);
        });
        std::string error;
        EXPECT_TRUE(frame.PlugFd(kernel.deviceEnd, &error)) << error;
        EXPECT_EQ(kernel.Read()->type, static_cast<uint32_t>(UHID_CREATE2));
    }
    ~CFrameRig() { frame.Unplug(); }

    // Polls once and returns the payload of the frame answered.
    TEmuFramePayload Poll() {
        kernel.Output(FramePoll());
        const auto input = kernel.Read();
        TEmuFramePayload payload{};
        EXPECT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
        EXPECT_EQ(input->u.input2.data[0], MTDEV_REPLY_DATA);
        std::memcpy(payload.data(), input->u.input2.data + 1, payload.size());
        return payload;
    }

    // The index in its script of each scripted frame sent.
    std::vector<size_t> Sent() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent;
    }

    CFakeKernel kernel;
    CMtEmuUhidFrame frame{Encoder(), TUhidIdentity{}};

private:
    std::mutex m_mutex;
    std::vector<size_t> m_sent;
};

// Verify that the emulated frame's raw positions run straight across the frame, as a real
// sensor's do (no step at the centre, which would leave any calibration off on one side), and
// that the frame's own calibration brings every script position back within one value.
TEST(MtEmuUhidFrame, RawPositionsRunStraight) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    SimDevConfig(config.get());
    const _CS_CONFIG geometry{8191, 8191, kSimRawExtent, kSimRawExtent};
    CCalibrateSystem calibration;
    ASSERT_TRUE(calibration.InitCalibrateSys(config.get(), &geometry));
    int worstX = 0;
    int worstY = 0;
    int worstBack = 0;
    for (int v = 1; v <= 32766; ++v) {
        const int rawX = Encoder().RawX(v);
        const int rawY = Encoder().RawY(v);
        worstX = std::max(worstX, std::abs(rawX - (kSimRawExtent - v)));
        worstY = std::max(worstY, std::abs(rawY - v));
        _CAL_COORDINATE_INFO* area = calibration.UpdateCalCoords(rawX, rawY);
        ASSERT_NE(area, nullptr);
        GetShortCoords(area);
        worstBack = std::max(
            {worstBack, std::abs(area->x.AsInt() - v), std::abs(area->y.AsInt() - v)});
    }
    EXPECT_LE(worstX, 1);
    EXPECT_LE(worstY, 1);
    EXPECT_LE(worstBack, 1);
}

// Verify that polls get empty frames until a script is handed over, then its frames in order,
// each encoded as the encoder encodes its contacts, then empty frames again; and that a second
// script may follow once the first has played, counted from its own first frame.
TEST(MtEmuUhidFrame, PlaysScriptsBetweenEmptyFrames) {
    CFrameRig rig;
    EXPECT_EQ(rig.Poll(), Encoder().IdleFrame());
    const CGestureScript first =
        CGestureScript::FromText("rate 1000\ndown 1 100 200\nmove 1 300 200 in 2\nup 1\n");
    const CGestureScript second = CGestureScript::FromText("rate 1000\ndown 2 900 800\nup 2\n");
    ASSERT_TRUE(rig.frame.Play(first));
    EXPECT_TRUE(rig.frame.Playing());
    EXPECT_FALSE(rig.frame.Play(second));  // the first still plays
    for (const TScriptFrame& frame : first.Frames()) {
        EXPECT_EQ(rig.Poll(), Encoder().Encode(frame.contacts)) << "script line " << frame.line;
    }
    EXPECT_TRUE(rig.frame.WaitPlayed(kBoundMs));
    EXPECT_FALSE(rig.frame.Playing());
    EXPECT_EQ(rig.frame.FramesSent(), first.Frames().size());
    EXPECT_EQ(rig.Poll(), Encoder().IdleFrame());
    EXPECT_EQ(rig.frame.Polls(), first.Frames().size() + 2);

    ASSERT_TRUE(rig.frame.Play(second));
    for (const TScriptFrame& frame : second.Frames()) {
        EXPECT_EQ(rig.Poll(), Encoder().Encode(frame.contacts)) << "script line " << frame.line;
    }
    EXPECT_EQ(rig.Sent(), (std::vector<size_t>{0, 1, 2, 3, 0, 1}));
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
        {0, 5'000'000, 10'000, 0},                    // first poll
        {1'000'000, 1'000'000, 10'000, 11'000'000},   // polled at once: one gap
        {1'000'000, 7'000'000, 10'000, 12'000'000},   // polled late: half a gap after the poll
        {1'000'000, 6'000'000, 10'000, 11'000'000},   // exactly where both rules meet
        {1'000'000, 50'000'000, 10'000, 55'000'000},  // far behind
        {1'000'000, 2'000'000, 5'000, 6'000'000},     // another rate
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
    rig.kernel.Output(FramePoll());  // its answer is due in an hour
    for (int i = 0; i < kBoundMs && rig.frame.Link().OutputReports() < 2; ++i) usleep(1000);
    ASSERT_EQ(rig.frame.Link().OutputReports(), 2u);
    rig.frame.Unplug();
    // The waiting answer is dropped: the device went first.
    EXPECT_EQ(rig.kernel.Read()->type, static_cast<uint32_t>(UHID_DESTROY));
    EXPECT_FALSE(rig.frame.Playing());
    EXPECT_FALSE(rig.frame.WaitPlayed(10));
    EXPECT_FALSE(rig.frame.Play(script));
    EXPECT_EQ(rig.Sent(), (std::vector<size_t>{0}));
    std::string error;
    EXPECT_FALSE(rig.frame.PlugFd(-1, &error));  // one appearance per frame
}

// ---------------------------------------------------------------------------------------------
// The standard digitizer

// Verify the device the digitizer creates, its answers to feature requests (the contact count
// maximum only), its input reports and its going away.
TEST(UhidDigitizer, CreatesAnswersAndSends) {
    CFakeKernel kernel;
    CUhidDigitizer digitizer;
    std::string error;
    ASSERT_TRUE(digitizer.Adopt(kernel.deviceEnd, "native digitizer", &error)) << error;
    const auto create = kernel.Read();
    ASSERT_EQ(create->type, static_cast<uint32_t>(UHID_CREATE2));
    EXPECT_STREQ(reinterpret_cast<const char*>(create->u.create2.name), "native digitizer");
    EXPECT_EQ(std::vector<uint8_t>(create->u.create2.rd_data,
                                   create->u.create2.rd_data + create->u.create2.rd_size),
              DigitizerReportDescriptor());

    kernel.Request(UHID_GET_REPORT, 41, kDigitizerMaxCountId, UHID_FEATURE_REPORT, 0);
    EXPECT_EQ(kernel.lastFeature, (std::vector<uint8_t>{kDigitizerMaxCountId, kDigitizerFingers}));
    kernel.Request(UHID_GET_REPORT, 42, 7, UHID_FEATURE_REPORT, EIO);
    kernel.Request(UHID_GET_REPORT, 43, kDigitizerMaxCountId, UHID_INPUT_REPORT, EIO);
    kernel.Request(UHID_SET_REPORT, 44, 3, UHID_FEATURE_REPORT, EIO);
    EXPECT_EQ(digitizer.FeatureRequests(), 1u);

    uint64_t sent = 0;
    ASSERT_TRUE(digitizer.Send({{true, 5, 0x1234, 0x0102}}, &sent));
    EXPECT_GT(sent, 0u);
    const auto input = kernel.Read();
    ASSERT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
    EXPECT_EQ(std::vector<uint8_t>(input->u.input2.data,
                                   input->u.input2.data + input->u.input2.size),
              DigitizerInputReport({{true, 5, 0x1234, 0x0102}}));

    digitizer.Destroy();
    EXPECT_EQ(kernel.Read()->type, static_cast<uint32_t>(UHID_DESTROY));
}

TEST(UhidDigitizer, InputReportLayout) {
    // Per finger: tip byte, contact id, X and Y little-endian; then the contact count. Values
    // beyond the axis are clamped and contacts beyond the finger collections left out.
    const std::vector<uint8_t> report = DigitizerInputReport(
        {{true, 3, 0x1234, 0x0102}, {false, 0xFF, 0xFFFF, 7}, {true, 9, 1, 1}});
    const std::vector<uint8_t> expected = {kDigitizerInputId,
                                           1, 3, 0x34, 0x12, 0x02, 0x01,
                                           0, 0x7F, 0xFF, 0x7F, 7, 0,
                                           2};
    EXPECT_EQ(report, expected);
    EXPECT_EQ(DigitizerInputReport({}).back(), 0);
}

}  // namespace
