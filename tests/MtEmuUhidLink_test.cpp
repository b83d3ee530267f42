// The uhid front of the emulated frame, with the test playing the kernel's side of /dev/uhid over
// a SOCK_SEQPACKET socketpair (one event per message, as the node reads and writes them).
#include "MtEmuUhidLink.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "MtDevCtrlInterface.h"

namespace {

// A bound on each read, so that a broken link fails the test instead of hanging it.
constexpr int kReadBoundMs = 30000;  // a bound on a wait for what comes, not a measurement

// The kernel's end of the uhid node.
class CFakeKernel {
public:
    CFakeKernel() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        linkEnd = pair[0];
        m_fd = pair[1];
    }
    ~CFakeKernel() { close(m_fd); }

    // The next event the link wrote; type 0xFFFFFFFF when none came.
    std::unique_ptr<uhid_event> Read() {
        auto event = std::make_unique<uhid_event>();
        std::memset(event.get(), 0, sizeof *event);
        event->type = 0xFFFFFFFFu;
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, kReadBoundMs) == 1) {
            lastBytes = recv(m_fd, event.get(), sizeof *event, 0);
        }
        return event;
    }

    void Write(const uhid_event& event, size_t bytes = sizeof(uhid_event)) {
        ASSERT_EQ(send(m_fd, &event, bytes, 0), static_cast<ssize_t>(bytes));
    }

    void Send(uint32_t type) {
        uhid_event event{};
        event.type = type;
        Write(event);
    }

    // An output report as hidraw hands it over: report number 0, then the report.
    void Output(const std::vector<uint8_t>& report, uint8_t reportNumber = 0) {
        auto event = std::make_unique<uhid_event>();
        std::memset(event.get(), 0, sizeof *event);
        event->type = UHID_OUTPUT;
        event->u.output.rtype = UHID_OUTPUT_REPORT;
        event->u.output.size = static_cast<uint16_t>(report.size() + 1);
        event->u.output.data[0] = reportNumber;
        std::memcpy(event->u.output.data + 1, report.data(), report.size());
        Write(*event);
    }

    int linkEnd = -1;  // handed to the link, which owns it
    ssize_t lastBytes = 0;

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
        ASSERT_TRUE(link.Adopt(kernel.linkEnd, identity, &error)) << error;
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
    auto event = std::make_unique<uhid_event>();
    std::memset(event.get(), 0, sizeof *event);
    event->type = UHID_OUTPUT;
    event->u.output.rtype = UHID_OUTPUT_REPORT;
    event->u.output.size = 4;
    const uint8_t bytes[4] = {0, 0xAA, 0xBB, 0xCC};
    std::memcpy(event->u.output.data, bytes, sizeof bytes);
    const uint8_t* report = nullptr;
    size_t length = 0;
    ASSERT_TRUE(UhidOutputReport(*event, sizeof *event, &report, &length));
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(report, event->u.output.data + 1);

    const size_t whole = offsetof(uhid_event, u) + sizeof(uhid_output_req);
    EXPECT_TRUE(UhidOutputReport(*event, whole, &report, &length));
    EXPECT_FALSE(UhidOutputReport(*event, whole - 1, &report, &length));  // cut short

    event->u.output.size = 1;  // the report number alone
    EXPECT_FALSE(UhidOutputReport(*event, whole, &report, &length));
    event->u.output.size = UHID_DATA_MAX + 1;
    EXPECT_FALSE(UhidOutputReport(*event, whole, &report, &length));
    event->u.output.size = UHID_DATA_MAX;
    EXPECT_TRUE(UhidOutputReport(*event, whole, &report, &length));
    EXPECT_EQ(length, static_cast<size_t>(UHID_DATA_MAX - 1));

    event->u.output.rtype = UHID_FEATURE_REPORT;
    EXPECT_FALSE(UhidOutputReport(*event, whole, &report, &length));
    event->u.output.rtype = UHID_OUTPUT_REPORT;
    event->u.output.data[0] = 1;  // a numbered report
    EXPECT_FALSE(UhidOutputReport(*event, whole, &report, &length));
    event->u.output.data[0] = 0;
    event->type = UHID_INPUT2;
    EXPECT_FALSE(UhidOutputReport(*event, whole, &report, &length));
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

    rig.kernel.Send(UHID_START);
    rig.kernel.Send(UHID_OPEN);
    ASSERT_TRUE(rig.link.WaitUntil([](const TUhidLinkState& s) { return s.open; }, kReadBoundMs));
    EXPECT_TRUE(rig.link.SendInput(report, sizeof report));
    const auto input = rig.kernel.Read();
    ASSERT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
    EXPECT_EQ(input->u.input2.data[0], 0x77);

    rig.kernel.Send(UHID_CLOSE);
    ASSERT_TRUE(rig.link.WaitUntil([](const TUhidLinkState& s) { return s.closes == 1; },
                                   kReadBoundMs));
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
    ASSERT_TRUE(rig.link.WaitUntil(twoDropped, kReadBoundMs));
    rig.link.SetAnswering(true);
    rig.kernel.Output(FramePoll());
    // The first thing written is the answer to the third report: the first two got none.
    const auto input = rig.kernel.Read();
    EXPECT_EQ(input->type, static_cast<uint32_t>(UHID_INPUT2));
    EXPECT_EQ(rig.emulator.RequestCount(), 1u);
    const std::vector<std::vector<uint8_t>> dropped = rig.link.UnansweredReports();
    ASSERT_EQ(dropped.size(), 2u);
    EXPECT_EQ(dropped[0], silent);
    EXPECT_EQ(rig.link.OutputReports(), 3u);
}

// Verify that numbered reports are refused without reaching the emulator, and that the link
// answers the kernel's feature-report requests with an error at once.
TEST(MtEmuUhidLink, RejectsNumberedReportsAndRefusesFeatureRequests) {
    CLinkRig rig;
    rig.Start();
    rig.kernel.Output(FramePoll(), 3);
    uhid_event get{};
    get.type = UHID_GET_REPORT;
    get.u.get_report.id = 41;
    rig.kernel.Write(get);
    const auto reply = rig.kernel.Read();
    ASSERT_EQ(reply->type, static_cast<uint32_t>(UHID_GET_REPORT_REPLY));
    EXPECT_EQ(reply->u.get_report_reply.id, 41u);
    EXPECT_NE(reply->u.get_report_reply.err, 0);

    uhid_event set{};
    set.type = UHID_SET_REPORT;
    set.u.set_report.id = 42;
    rig.kernel.Write(set);
    const auto setReply = rig.kernel.Read();
    ASSERT_EQ(setReply->type, static_cast<uint32_t>(UHID_SET_REPORT_REPLY));
    EXPECT_EQ(setReply->u.set_report_reply.id, 42u);
    EXPECT_NE(setReply->u.set_report_reply.err, 0);

    EXPECT_EQ(rig.link.Rejected(), 1u);
    EXPECT_EQ(rig.emulator.RequestCount(), 0u);
}

// Verify that a request cut before its id gets no answer, and the link goes on.
TEST(MtEmuUhidLink, IgnoresCutRequests) {
    CLinkRig rig;
    rig.Start();
    uhid_event get{};
    get.type = UHID_GET_REPORT;
    rig.kernel.Write(get, sizeof get.type + 2);
    rig.kernel.Output(FramePoll());
    EXPECT_EQ(rig.kernel.Read()->type, static_cast<uint32_t>(UHID_INPUT2));
}

// Verify that Destroy tells the kernel the device is gone, once.
TEST(MtEmuUhidLink, DestroySendsDestroyOnce) {
    CLinkRig rig;
    rig.Start();
    rig.link.Destroy();
    EXPECT_EQ(rig.kernel.Read()->type, static_cast<uint32_t>(UHID_DESTROY));
    EXPECT_FALSE(rig.link.Created());
    rig.link.Destroy();
    const uint8_t report[1] = {1};
    EXPECT_FALSE(rig.link.SendInput(report, sizeof report));
}

// Verify that a uhid node that cannot be opened is reported, and that a second device on the
// same link is refused.
TEST(MtEmuUhidLink, CreateFailures) {
    CMtDevEmulator emulator;
    CMtEmuUhidLink link(emulator);
    std::string error;
    EXPECT_FALSE(link.Create("/nonexistent/uhid", {}, &error));
    EXPECT_NE(error.find("/nonexistent/uhid"), std::string::npos);

    CLinkRig rig;
    rig.Start();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_FALSE(rig.link.Adopt(pair[0], {}, &error));
    close(pair[1]);
}

}  // namespace
