// The transport: the HID path through the real hidraw port (a socketpair peer plays the device)
// and the bulk path through the in-process USB port on a virtual clock.
#include "MtDevComInterface.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "HidrawDevice.h"
#include "MtDevCtrlInterface.h"
#include "MtScriptedHidDevice.h"
#include "MultiPlatformAPI.h"
#include "support/MtDevLinkRig.h"

namespace {

constexpr unsigned kShortMs = 25;

// A hidraw port whose other end the test holds.
struct TPeerPort {
    std::unique_ptr<CHidrawDevice> port;
    int peer = -1;
    TMACDEVICEPATH path{};

    TPeerPort() {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        port = CHidrawDevice::Adopt(pair[0]);
        peer = pair[1];
        path = {port.get(), nullptr, MTDEV_TYPE_HID};
    }
    ~TPeerPort() {
        if (peer >= 0) close(peer);
    }
    void Send(std::vector<uint8_t> report) const {
        ASSERT_EQ(send(peer, report.data(), report.size(), 0), static_cast<ssize_t>(report.size()));
    }
    std::vector<uint8_t> Receive() const {
        std::vector<uint8_t> buffer(4200);
        const ssize_t n = recv(peer, buffer.data(), buffer.size(), MSG_DONTWAIT);
        buffer.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buffer;
    }
};

std::vector<uint8_t> Filled(size_t n, uint8_t first) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(first + i);
    return v;
}

// ---------------------------------------------------------------------------------------------
// HID path over the real hidraw port

class HidPath : public ::testing::Test {
protected:
    void SetUp() override {
        m_fds = CountOpenFds();
        m_peer = std::make_unique<TPeerPort>();
        m_com = std::make_unique<CMtDevCommunicator>();
    }
    void TearDown() override {
        m_com.reset();
        m_peer.reset();
        EXPECT_EQ(CountOpenFds(), m_fds) << "a descriptor was left open";
    }
    CMtDevCommunicator& Com() { return *m_com; }
    TPeerPort& Peer() { return *m_peer; }

    std::unique_ptr<TPeerPort> m_peer;
    std::unique_ptr<CMtDevCommunicator> m_com;
    int m_fds = 0;
};

// Verify that each packet goes out as one report of its own first byte's length, behind the
// report-number byte 0 that hidraw expects.
TEST_F(HidPath, WriteSendsReportOfFirstByteLengthBehindReportNumber) {
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    for (uint8_t length : {17, 27, 37, 64, 4}) {
        std::array<uint8_t, 64> packet{};
        for (int i = 0; i < 64; ++i) packet[i] = static_cast<uint8_t>(0xA0 + i);
        packet[0] = length;
        EXPECT_EQ(Com().WriteHidDevCom(packet.data(), 500), 64);
        const std::vector<uint8_t> sent = Peer().Receive();
        ASSERT_EQ(sent.size(), length + 1u) << int(length);
        EXPECT_EQ(sent[0], 0);
        EXPECT_TRUE(std::equal(sent.begin() + 1, sent.end(), packet.begin()));
    }
}

// Verify that reports waiting in the queue are handed out oldest first without waiting.
TEST_F(HidPath, QueuedReportsComeOldestFirstAtOnce) {
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    Peer().Send(Filled(64, 1));
    Peer().Send(Filled(64, 100));
    Peer().Send(Filled(10, 200));
    std::array<uint8_t, 64> buffer{};
    ASSERT_EQ(Com().ReadHidDevCom(buffer.data(), 1000), 64);  // one wait takes all three in
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(Com().HidQueuedReports(), 2u);
    CLogCapture log;
    ASSERT_EQ(Com().ReadHidDevCom(buffer.data(), 0), 64);
    EXPECT_EQ(buffer[0], 100);
    EXPECT_EQ(buffer[63], 163);
    buffer.fill(0xEE);
    ASSERT_EQ(Com().ReadHidDevCom(buffer.data(), 0), 64);
    EXPECT_EQ(buffer[0], 200);
    EXPECT_EQ(buffer[9], 209);
    EXPECT_EQ(buffer[10], 0xEE) << "a short report copies only its own bytes";
    EXPECT_TRUE(Com().LastHidReadDelivered());
    EXPECT_EQ(Com().HidQueuedReports(), 0u);
    EXPECT_EQ(log.Count(TLogChannel::System, "timeout_callback"), 0);
}

// Verify that a report longer than 64 bytes is cut to 64.
TEST_F(HidPath, LongReportIsCutTo64) {
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    Peer().Send(Filled(80, 0));
    std::array<uint8_t, 80> buffer;
    buffer.fill(0xEE);
    ASSERT_EQ(Com().ReadHidDevCom(buffer.data(), 1000), 64);
    EXPECT_EQ(buffer[63], 63);
    EXPECT_EQ(buffer[64], 0xEE);
    EXPECT_EQ(buffer[79], 0xEE);
}

// Verify the time-out: 64 all the same, buffer untouched, one "timeout_callback" line.
TEST_F(HidPath, TimeOutReturns64AndLeavesBufferUntouched) {
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    CLogCapture log;
    std::array<uint8_t, 64> buffer;
    buffer.fill(37);
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), kShortMs), 64);
    EXPECT_FALSE(Com().LastHidReadDelivered());
    for (uint8_t b : buffer) ASSERT_EQ(b, 37);
    EXPECT_EQ(log.Count(TLogChannel::System, "timeout_callback"), 1);
    // A report arriving after the time-out waits in the queue for the next read.
    Peer().Send(Filled(64, 9));
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 1000), 64);
    EXPECT_EQ(buffer[0], 9);
}

// Verify that a device going away ends a wait at once like a time-out, without the time-out.
TEST_F(HidPath, VanishingDeviceEndsWaitWithBufferUntouched) {
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    shutdown(Peer().peer, SHUT_RDWR);
    CLogCapture log;
    std::array<uint8_t, 64> buffer;
    buffer.fill(27);
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 60000), 64);  // would hang for a minute
    for (uint8_t b : buffer) ASSERT_EQ(b, 27);
    EXPECT_EQ(log.Count(TLogChannel::System, "timeout_callback"), 0);
    buffer[0] = 17;
    EXPECT_EQ(Com().WriteHidDevCom(buffer.data(), 500), MTDEV_COM_WRITE);
}

// Verify the result codes of a closed path and of null buffers.
TEST_F(HidPath, ClosedPathAndNullBufferCodes) {
    std::array<uint8_t, 64> buffer{};
    buffer[0] = 17;
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 10), MTDEV_COM_NOT_OPENED);
    EXPECT_EQ(Com().WriteHidDevCom(buffer.data(), 10), MTDEV_COM_NOT_OPENED);
    EXPECT_EQ(Com().ReadHidDevCom(nullptr, 10), MTDEV_COM_NULLPTR);
    EXPECT_EQ(Com().WriteHidDevCom(nullptr, 10), MTDEV_COM_NULLPTR);
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    EXPECT_EQ(Com().ReadHidDevCom(nullptr, 10), MTDEV_COM_NULLPTR);
    EXPECT_EQ(Com().WriteHidDevCom(nullptr, 10), MTDEV_COM_NULLPTR);
    Com().CloseDevCom();
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 10), MTDEV_COM_NOT_OPENED);
    Com().CloseDevCom();  // a second close does nothing
    CMtDevCommunicator never;
    never.CloseDevCom();
    EXPECT_FALSE(never.IsHidOpen());
}

// Verify that a path without a device, or one that fails to open, leaves the channel closed,
// and that the same device can be opened again after a close.
TEST_F(HidPath, OpenFailureAndReopen) {
    TMACDEVICEPATH none{nullptr, nullptr, MTDEV_TYPE_HID};
    EXPECT_FALSE(Com().OpenHidDevCom(&none));
    EXPECT_FALSE(Com().OpenHidDevCom(nullptr));
    CHidrawDevice missing("/nonexistent/hidraw99");
    TMACDEVICEPATH bad{&missing, nullptr, MTDEV_TYPE_HID};
    EXPECT_FALSE(Com().OpenHidDevCom(&bad));
    EXPECT_FALSE(Com().IsHidOpen());
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    Com().CloseDevCom();
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    Peer().Send(Filled(64, 5));
    std::array<uint8_t, 64> buffer{};
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 1000), 64);
    EXPECT_EQ(buffer[0], 5);
}

// Verify that waiting is per device: a report for one device neither wakes nor feeds another
// device's reader.
TEST(HidWaiting, ReportForOneDeviceNeverReachesAnother) {
    TPeerPort a, b;
    CMtDevCommunicator comA, comB;
    ASSERT_TRUE(comA.OpenHidDevCom(&a.path));
    ASSERT_TRUE(comB.OpenHidDevCom(&b.path));
    b.Send(Filled(64, 0x42));
    std::array<uint8_t, 64> buffer;
    buffer.fill(0);
    EXPECT_EQ(comA.ReadHidDevCom(buffer.data(), kShortMs), 64);
    EXPECT_FALSE(comA.LastHidReadDelivered());
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(comB.ReadHidDevCom(buffer.data(), 1000), 64);
    EXPECT_EQ(buffer[0], 0x42);
}

// ---------------------------------------------------------------------------------------------
// What the input callback keeps (scripted device, which can lie about sender and result)

// Verify that reports from another device, with an error result or empty are dropped, and the
// good one among them is kept.
TEST(HidInput, ForeignFailedAndEmptyReportsAreIgnored) {
    TVirtualClock clock;
    TScopedClock scoped(clock);
    CMtScriptedHidDevice device;
    TMACDEVICEPATH path{&device, nullptr, MTDEV_TYPE_HID};
    CMtDevCommunicator com;
    ASSERT_TRUE(com.OpenHidDevCom(&path));
    device.QueueInput({Filled(64, 1), kMtHidSuccess, true});
    device.QueueInput({Filled(64, 2), kMtHidError, false});
    device.QueueInput({{}, kMtHidSuccess, false});
    device.QueueInput({Filled(64, 3), kMtHidSuccess, false});
    std::array<uint8_t, 64> buffer{};
    EXPECT_EQ(com.ReadHidDevCom(buffer.data(), 500), 64);
    EXPECT_EQ(buffer[0], 3);
    EXPECT_EQ(com.HidQueuedReports(), 0u);

    // Only a foreign report: the reader goes on waiting and times out.
    device.QueueInput({Filled(64, 4), kMtHidSuccess, true});
    buffer.fill(0);
    const unsigned long before = TGetTickCount();
    EXPECT_EQ(com.ReadHidDevCom(buffer.data(), 500), 64);
    EXPECT_FALSE(com.LastHidReadDelivered());
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(TGetTickCount() - before, 500u);
}

// Verify that the queue keeps any number of reports in order.
TEST(HidInput, QueueGrowsWithoutLosingOrder) {
    TVirtualClock clock;
    TScopedClock scoped(clock);
    CMtScriptedHidDevice device;
    TMACDEVICEPATH path{&device, nullptr, MTDEV_TYPE_HID};
    CMtDevCommunicator com;
    ASSERT_TRUE(com.OpenHidDevCom(&path));
    std::array<uint8_t, 64> buffer{};
    int next = 0;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 11; ++i) device.QueueInput({Filled(64, static_cast<uint8_t>(next + i))});
        for (int i = 0; i < 11; ++i) {
            ASSERT_EQ(com.ReadHidDevCom(buffer.data(), 500), 64);
            ASSERT_EQ(buffer[0], static_cast<uint8_t>(next + i));
        }
        next += 11;
    }
}

// ---------------------------------------------------------------------------------------------
// Bulk path

TEmuUsbInterface Interface(std::vector<TEmuUsbPipe> pipes) {
    TEmuUsbInterface itf;
    itf.pipes = std::move(pipes);
    return itf;
}

constexpr TEmuUsbPipe kBulkIn{kMtUsbIn, kMtUsbBulk};
constexpr TEmuUsbPipe kBulkOut{kMtUsbOut, kMtUsbBulk};
constexpr TEmuUsbPipe kIntIn{kMtUsbIn, kMtUsbInterrupt};

class BulkPath : public ::testing::Test {
protected:
    TVirtualClock m_clock{1'000'000'000};
    TScopedClock m_scoped{m_clock};
};

// Verify that a path without a USB service opens nothing.
TEST_F(BulkPath, NoServiceGivesFalse) {
    CMtDevCommunicator com;
    TMACDEVICEPATH path{nullptr, nullptr, MTDEV_TYPE_BULK};
    EXPECT_FALSE(com.OpenBulkDevCom(&path));
    EXPECT_FALSE(com.OpenBulkDevCom(nullptr));
    EXPECT_FALSE(com.IsBulkOpen());
}

// Verify the interface search on several layouts.
TEST_F(BulkPath, InterfaceSearch) {
    struct Case {
        const char* name;
        TEmuUsbLayout layout;
        bool found;
        uint32_t pipeIn, pipeOut;
        int interfaceOpens;
    };
    TEmuUsbLayout onlyIn;
    onlyIn.interfaces = {Interface({kBulkIn}), Interface({kIntIn, kBulkIn})};
    TEmuUsbLayout twoIns;
    twoIns.interfaces = {Interface({kBulkIn, kBulkOut, kBulkIn})};
    TEmuUsbLayout split;  // IN on the first interface, OUT on the second
    split.interfaces = {Interface({kBulkIn}), Interface({kBulkOut})};
    TEmuUsbLayout failingOpen;
    failingOpen.interfaces = {Interface({kBulkIn, kBulkOut}), Interface({kBulkOut, kBulkIn})};
    failingOpen.interfaces[0].openFails = true;
    TEmuUsbLayout vendorClass;
    vendorClass.interfaces = {Interface({kBulkIn, kBulkOut})};
    vendorClass.interfaces[0].interfaceClass = 0xFF;
    TEmuUsbLayout endpointsFail;
    endpointsFail.interfaces = {Interface({kBulkIn}), Interface({kBulkIn, kBulkOut})};
    endpointsFail.interfaces[0].endpointsFail = true;
    TEmuUsbLayout noDevice;
    noDevice.deviceInterfaceFails = true;
    TEmuUsbLayout noOpen = TEmuUsbLayout::Default();
    noOpen.deviceOpenFails = true;

    const Case cases[] = {
        {"default", TEmuUsbLayout::Default(), true, 1, 2, 1},
        {"only IN pipes", onlyIn, false, 2, CMtDevCommunicator::kNoPipe, 2},
        {"later IN replaces earlier", twoIns, true, 3, 2, 1},
        {"pipes add up across interfaces", split, true, 1, 1, 2},
        {"interface that fails to open is skipped", failingOpen, true, 2, 1, 2},
        {"class other than 0 is not searched", vendorClass, false, CMtDevCommunicator::kNoPipe,
         CMtDevCommunicator::kNoPipe, 0},
        {"endpoint count failure ends the search", endpointsFail, false,
         CMtDevCommunicator::kNoPipe, CMtDevCommunicator::kNoPipe, 1},
        {"no device interface", noDevice, false, CMtDevCommunicator::kNoPipe,
         CMtDevCommunicator::kNoPipe, 0},
        {"device open fails", noOpen, false, CMtDevCommunicator::kNoPipe,
         CMtDevCommunicator::kNoPipe, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CMtDevEmulator emulator;
        CMtEmuUsbService service(emulator, c.layout);
        TMACDEVICEPATH path{nullptr, &service, MTDEV_TYPE_BULK};
        {
            CMtDevCommunicator com;
            const uint64_t before = m_clock.MonotonicNanos();
            EXPECT_EQ(com.OpenBulkDevCom(&path), c.found);
            EXPECT_EQ(com.IsBulkOpen(), c.found);
            EXPECT_EQ(com.PipeIn(), c.pipeIn);
            EXPECT_EQ(com.PipeOut(), c.pipeOut);
            int opens = 0;
            for (const std::string& call : service.Calls()) opens += call.rfind("USBInterfaceOpen", 0) == 0;
            EXPECT_EQ(opens, c.interfaceOpens);
            // The device settles for one second after a successful open, not after a failure.
            EXPECT_EQ(m_clock.MonotonicNanos() - before, c.found ? 1'000'000'000ull : 0ull);
            // The device interface is closed again; rejected interfaces stay open until the
            // channel closes.
            if (c.interfaceOpens > 0) {
                EXPECT_EQ(service.CountCalls("USBDeviceClose"), 1);
            }
            com.CloseDevCom();
            EXPECT_EQ(service.OpenInterfaces(), 0);
            EXPECT_EQ(com.PipeIn(), c.found ? CMtDevCommunicator::kNoPipe : c.pipeIn);
        }
        EXPECT_EQ(service.LiveObjects(), 0) << "every port object is released";
    }
}

// Verify that a rejected interface stays open while the channel is open.
TEST_F(BulkPath, RejectedInterfaceStaysOpenUntilClose) {
    TEmuUsbLayout layout;
    layout.interfaces = {Interface({kBulkIn}), Interface({kBulkOut})};
    CMtDevEmulator emulator;
    CMtEmuUsbService service(emulator, layout);
    TMACDEVICEPATH path{nullptr, &service, MTDEV_TYPE_BULK};
    CMtDevCommunicator com;
    ASSERT_TRUE(com.OpenBulkDevCom(&path));
    EXPECT_EQ(service.OpenInterfaces(), 2);
    // Opening again is harmless: no platform call, no pause.
    service.ClearCalls();
    const uint64_t before = m_clock.MonotonicNanos();
    EXPECT_TRUE(com.OpenBulkDevCom(&path));
    EXPECT_TRUE(service.Calls().empty());
    EXPECT_EQ(m_clock.MonotonicNanos(), before);
    com.CloseDevCom();
    EXPECT_EQ(service.OpenInterfaces(), 0);
    EXPECT_EQ(service.CountCalls("USBInterfaceClose 0"), 1);
    EXPECT_EQ(service.CountCalls("USBInterfaceClose 1"), 1);
    com.CloseDevCom();
}

class BulkTransfer : public BulkPath {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_com.OpenBulkDevCom(&m_rig.path));
        m_rig.service.ClearCalls();
    }
    // Queues one IN transfer (the 8-byte status block) by writing a read request for it.
    void QueueStatusAnswer() {
        uint8_t packet[28];
        CMtDevController::MakeCommandPacketHiSpeed(packet, MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS,
                                                   MTDEV_SIZE_QUERY);
        ASSERT_EQ(m_rig.emulator.BulkWrite(packet, 28), kMtUsbSuccess);
    }
    uint64_t Elapsed(uint64_t since) { return m_clock.MonotonicNanos() - since; }

    TBulkRig m_rig;
    CMtDevCommunicator m_com;
};

// Verify a stalled read: status asked, stall cleared, 200 ms pause, one retry that succeeds.
TEST_F(BulkTransfer, StalledReadIsClearedAndRetriedOnceAfter200ms) {
    // The request that queues the answer takes the fault: the IN pipe stalls at the next read.
    m_rig.emulator.InjectFault({TEmuFaultKind::StallPipe, 0, TEmuStage::Any, 0, 0});
    QueueStatusAnswer();
    std::array<uint8_t, 64> buffer{};
    const uint64_t before = m_clock.MonotonicNanos();
    EXPECT_EQ(m_com.ReadBulkDevCom(buffer.data(), 64, 1000), 8);
    EXPECT_EQ(Elapsed(before), 200'000'000ull);
    EXPECT_EQ(m_rig.service.Calls(),
              (std::vector<std::string>{"ReadPipeTO 1", "GetPipeStatus 1",
                                        "ClearPipeStallBothEnds 1", "ReadPipeTO 1"}));
}

// Verify that a second stall in a row fails the read.
TEST_F(BulkTransfer, StallAgainAfterClearFailsRead) {
    m_rig.emulator.InjectFault({TEmuFaultKind::StallPipe, 0, TEmuStage::Any, 0, 0, 2});
    QueueStatusAnswer();
    std::array<uint8_t, 64> buffer{};
    EXPECT_EQ(m_com.ReadBulkDevCom(buffer.data(), 64, 1000), -1);
    EXPECT_EQ(m_rig.service.CountCalls("ReadPipeTO 1"), 2);
}

// Verify that a read failing for another reason is not retried, and waits its time-out.
TEST_F(BulkTransfer, ReadTimeOutIsNotRetried) {
    std::array<uint8_t, 64> buffer{};
    const uint64_t before = m_clock.MonotonicNanos();
    EXPECT_EQ(m_com.ReadBulkDevCom(buffer.data(), 64, 1000), -1);
    EXPECT_EQ(Elapsed(before), 1'000'000'000ull);
    EXPECT_EQ(m_rig.service.Calls(),
              (std::vector<std::string>{"ReadPipeTO 1", "GetPipeStatus 1"}));
}

// Verify the write: a failure clears the stall blindly and retries exactly once, at once.
TEST_F(BulkTransfer, FailedWriteIsRetriedOnceWithoutPause) {
    std::array<uint8_t, 28> packet{};
    m_rig.emulator.InjectFault({TEmuFaultKind::StallPipe, 0, TEmuStage::Any, 0, 1});
    const uint64_t before = m_clock.MonotonicNanos();
    EXPECT_EQ(m_com.WriteBulkDevCom(packet.data(), 28, 1000), 0);
    EXPECT_EQ(Elapsed(before), 0u);
    EXPECT_EQ(m_rig.service.Calls(), (std::vector<std::string>{"WritePipeTO 2",
                                                               "ClearPipeStallBothEnds 2",
                                                               "WritePipeTO 2"}));
    m_rig.service.ClearCalls();
    m_rig.emulator.InjectFault({TEmuFaultKind::StallPipe, 0, TEmuStage::Any, 0, 1, 2});
    EXPECT_EQ(m_com.WriteBulkDevCom(packet.data(), 28, 1000), MTDEV_COM_WRITE);
    EXPECT_EQ(m_rig.service.CountCalls("WritePipeTO 2"), 2);
}

// Verify the codes for a null buffer and a closed channel.
TEST_F(BulkTransfer, NullBufferAndClosedCodes) {
    std::array<uint8_t, 28> packet{};
    EXPECT_EQ(m_com.ReadBulkDevCom(nullptr, 64, 1000), -1);
    EXPECT_EQ(m_com.WriteBulkDevCom(nullptr, 28, 1000), MTDEV_COM_NULLPTR);
    m_com.CloseDevCom();
    EXPECT_EQ(m_com.ReadBulkDevCom(packet.data(), 28, 1000), -1);
    EXPECT_EQ(m_com.WriteBulkDevCom(packet.data(), 28, 1000), MTDEV_COM_NOT_OPENED);
}

// ---------------------------------------------------------------------------------------------
// Device paths and lists

TEST(DevicePath, TypeAndLists) {
    TMACDEVICEPATH path{nullptr, nullptr, 7};
    EXPECT_EQ(GetTouchDeviceType(&path), 7);
    EXPECT_EQ(GetTouchDeviceType(nullptr), MTDEV_TYPE_NONE);
    EXPECT_EQ(GetTouchDeviceList(), nullptr);
    FreeTouchDeviceList(nullptr);
    // A list of three nodes, one without a data block: all of it is freed (ASan would see a leak).
    TOUCH_DEVICE_PATH* head = nullptr;
    for (int i = 0; i < 3; ++i) {
        auto* node = static_cast<TOUCH_DEVICE_PATH*>(std::malloc(sizeof(TOUCH_DEVICE_PATH)));
        node->data = i == 1 ? nullptr : std::malloc(16);
        node->next = head;
        head = node;
    }
    FreeTouchDeviceList(head);
}

}  // namespace
