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

using TRead = std::pair<int, std::vector<uint8_t>>;

// A HID read into an 80-byte buffer filled with `fill`: its result and the buffer after it.
TRead ReadHid(CMtDevCommunicator& com, unsigned timeoutMs, uint8_t fill = 0xEE) {
    std::vector<uint8_t> buffer(80, fill);
    const int result = com.ReadHidDevCom(buffer.data(), timeoutMs);
    return {result, buffer};
}

// What that read gives when `bytes` came (none: a time-out).
TRead Got(std::vector<uint8_t> bytes, uint8_t fill = 0xEE) {
    bytes.resize(80, fill);
    return {64, bytes};
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

// Verify each packet goes out as a report of its first byte's length, behind report number 0.
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

// Verify queued reports come oldest first, cut to 64 bytes or copying only their own; a time-out
// gives 64 with the buffer untouched and one "timeout_callback" line; a vanished device, no line.
TEST_F(HidPath, QueueCutTimeOutAndVanishing) {
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    Peer().Send(Filled(80, 1));
    Peer().Send(Filled(64, 100));
    Peer().Send(Filled(10, 200));
    CLogCapture log;
    EXPECT_EQ(ReadHid(Com(), 1000), Got(Filled(64, 1)));
    EXPECT_EQ(ReadHid(Com(), 0), Got(Filled(64, 100)));
    EXPECT_EQ(ReadHid(Com(), 0), Got(Filled(10, 200)));
    EXPECT_TRUE(Com().LastHidReadDelivered());
    EXPECT_EQ(Com().HidQueuedReports(), 0u);
    EXPECT_EQ(log.Count(TLogChannel::System, "timeout_callback"), 0);

    EXPECT_EQ(ReadHid(Com(), kShortMs, 37), Got({}, 37));
    EXPECT_FALSE(Com().LastHidReadDelivered());
    EXPECT_EQ(log.Count(TLogChannel::System, "timeout_callback"), 1);
    // A report arriving after the time-out waits in the queue for the next read.
    Peer().Send(Filled(64, 9));
    EXPECT_EQ(ReadHid(Com(), 1000), Got(Filled(64, 9)));

    shutdown(Peer().peer, SHUT_RDWR);
    EXPECT_EQ(ReadHid(Com(), 60000, 27), Got({}, 27));  // would hang for a minute
    EXPECT_EQ(log.Count(TLogChannel::System, "timeout_callback"), 1);
    const uint8_t packet[64] = {17};
    EXPECT_EQ(Com().WriteHidDevCom(packet, 500), MTDEV_COM_WRITE);
}

// Verify the codes of a closed path and null buffers, failed opens, and opening after a close.
TEST_F(HidPath, CodesOpenFailureAndReopen) {
    std::array<uint8_t, 64> buffer{};
    buffer[0] = 17;
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 10), MTDEV_COM_NOT_OPENED);
    EXPECT_EQ(Com().WriteHidDevCom(buffer.data(), 10), MTDEV_COM_NOT_OPENED);
    TMACDEVICEPATH none{nullptr, nullptr, MTDEV_TYPE_HID};
    CHidrawDevice missing("/nonexistent/hidraw99");
    TMACDEVICEPATH bad{&missing, nullptr, MTDEV_TYPE_HID};
    for (TMACDEVICEPATH* path : {&none, static_cast<TMACDEVICEPATH*>(nullptr), &bad}) {
        EXPECT_FALSE(Com().OpenHidDevCom(path));
    }
    EXPECT_FALSE(Com().IsHidOpen());
    for (bool open : {false, true}) {
        if (open) {
            ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
        }
        EXPECT_EQ(Com().ReadHidDevCom(nullptr, 10), MTDEV_COM_NULLPTR);
        EXPECT_EQ(Com().WriteHidDevCom(nullptr, 10), MTDEV_COM_NULLPTR);
    }
    Com().CloseDevCom();
    EXPECT_EQ(Com().ReadHidDevCom(buffer.data(), 10), MTDEV_COM_NOT_OPENED);
    Com().CloseDevCom();  // a second close does nothing
    ASSERT_TRUE(Com().OpenHidDevCom(&Peer().path));
    Peer().Send(Filled(64, 5));
    EXPECT_EQ(ReadHid(Com(), 1000), Got(Filled(64, 5)));
    CMtDevCommunicator never;
    never.CloseDevCom();
    EXPECT_FALSE(never.IsHidOpen());
}

// Verify that a report for one device neither wakes nor feeds another device's reader.
TEST(HidWaiting, ReportForOneDeviceNeverReachesAnother) {
    TPeerPort a, b;
    CMtDevCommunicator comA, comB;
    ASSERT_TRUE(comA.OpenHidDevCom(&a.path));
    ASSERT_TRUE(comB.OpenHidDevCom(&b.path));
    b.Send(Filled(64, 0x42));
    EXPECT_EQ(ReadHid(comA, kShortMs), Got({}));
    EXPECT_FALSE(comA.LastHidReadDelivered());
    EXPECT_EQ(ReadHid(comB, 1000), Got(Filled(64, 0x42)));
}

// ---------------------------------------------------------------------------------------------
// What the input callback keeps (scripted device, which can lie about sender and result)

// Verify foreign, failed and empty reports are dropped (a foreign one alone times out), and the
// queue keeps any number of reports in order.
TEST(HidInput, ForeignFailedAndEmptyReportsAreIgnoredAndOrderKept) {
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
    EXPECT_EQ(ReadHid(com, 500), Got(Filled(64, 3)));
    EXPECT_EQ(com.HidQueuedReports(), 0u);

    device.QueueInput({Filled(64, 4), kMtHidSuccess, true});
    const unsigned long before = TGetTickCount();
    EXPECT_EQ(ReadHid(com, 500), Got({}));
    EXPECT_FALSE(com.LastHidReadDelivered());
    EXPECT_EQ(TGetTickCount() - before, 500u);

    for (int round = 0, next = 0; round < 3; ++round, next += 11) {
        for (int i = 0; i < 11; ++i) device.QueueInput({Filled(64, static_cast<uint8_t>(next + i))});
        for (int i = 0; i < 11; ++i) {
            ASSERT_EQ(ReadHid(com, 500), Got(Filled(64, static_cast<uint8_t>(next + i))));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Bulk path

TEmuUsbLayout Layout(std::vector<std::vector<TEmuUsbPipe>> interfaces) {
    TEmuUsbLayout layout;
    layout.interfaces.resize(interfaces.size());
    for (size_t i = 0; i < interfaces.size(); ++i) layout.interfaces[i].pipes = interfaces[i];
    return layout;
}

constexpr TEmuUsbPipe kBulkIn{kMtUsbIn, kMtUsbBulk};
constexpr TEmuUsbPipe kBulkOut{kMtUsbOut, kMtUsbBulk};
constexpr TEmuUsbPipe kIntIn{kMtUsbIn, kMtUsbInterrupt};
constexpr uint32_t kNone = CMtDevCommunicator::kNoPipe;

class BulkPath : public ::testing::Test {
protected:
    TVirtualClock m_clock{1'000'000'000};
    TScopedClock m_scoped{m_clock};
};

// Verify the interface search on several layouts, and the 1 s settle after a successful open.
TEST_F(BulkPath, InterfaceSearch) {
    CMtDevCommunicator none;
    TMACDEVICEPATH noService{nullptr, nullptr, MTDEV_TYPE_BULK};
    EXPECT_FALSE(none.OpenBulkDevCom(&noService));
    EXPECT_FALSE(none.OpenBulkDevCom(nullptr));
    EXPECT_FALSE(none.IsBulkOpen());

    TEmuUsbLayout failingOpen = Layout({{kBulkIn, kBulkOut}, {kBulkOut, kBulkIn}});
    failingOpen.interfaces[0].openFails = true;
    TEmuUsbLayout vendorClass = Layout({{kBulkIn, kBulkOut}});
    vendorClass.interfaces[0].interfaceClass = 0xFF;
    TEmuUsbLayout endpointsFail = Layout({{kBulkIn}, {kBulkIn, kBulkOut}});
    endpointsFail.interfaces[0].endpointsFail = true;
    TEmuUsbLayout noDevice;
    noDevice.deviceInterfaceFails = true;
    TEmuUsbLayout noOpen = TEmuUsbLayout::Default();
    noOpen.deviceOpenFails = true;

    const struct {
        const char* name;
        TEmuUsbLayout layout;
        bool found;
        uint32_t pipeIn, pipeOut;
        int interfaceOpens;
        int held;  // interfaces open until the channel closes, rejected ones included
    } cases[] = {
        {"default", TEmuUsbLayout::Default(), true, 1, 2, 1, 1},
        {"only IN pipes", Layout({{kBulkIn}, {kIntIn, kBulkIn}}), false, 2, kNone, 2, 2},
        {"later IN replaces earlier", Layout({{kBulkIn, kBulkOut, kBulkIn}}), true, 3, 2, 1, 1},
        {"pipes add up across interfaces", Layout({{kBulkIn}, {kBulkOut}}), true, 1, 1, 2, 2},
        {"interface that fails to open is skipped", failingOpen, true, 2, 1, 2, 1},
        {"class other than 0 is not searched", vendorClass, false, kNone, kNone, 0, 0},
        {"endpoint count failure ends the search", endpointsFail, false, kNone, kNone, 1, 0},
        {"no device interface", noDevice, false, kNone, kNone, 0, 0},
        {"device open fails", noOpen, false, kNone, kNone, 0, 0},
    };
    for (const auto& c : cases) {
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
            auto calls = [&](const char* prefix) {
                int n = 0;
                for (const std::string& call : service.Calls()) n += call.rfind(prefix, 0) == 0;
                return n;
            };
            EXPECT_EQ(calls("USBInterfaceOpen"), c.interfaceOpens);
            // The device settles for one second after a successful open, not after a failure.
            EXPECT_EQ(m_clock.MonotonicNanos() - before, c.found ? 1'000'000'000ull : 0ull);
            // The device interface is closed again; the interfaces held are closed once each,
            // when the channel closes.
            if (c.interfaceOpens > 0) {
                EXPECT_EQ(service.CountCalls("USBDeviceClose"), 1);
            }
            EXPECT_EQ(service.OpenInterfaces(), c.held);
            const int closes = calls("USBInterfaceClose");
            if (c.found) {  // opening again is harmless: no platform call, no pause
                const size_t calls0 = service.Calls().size();
                const uint64_t now = m_clock.MonotonicNanos();
                EXPECT_TRUE(com.OpenBulkDevCom(&path));
                EXPECT_EQ(service.Calls().size(), calls0);
                EXPECT_EQ(m_clock.MonotonicNanos(), now);
            }
            com.CloseDevCom();
            com.CloseDevCom();
            EXPECT_EQ(service.OpenInterfaces(), 0);
            EXPECT_EQ(calls("USBInterfaceClose"), closes + c.held);
            EXPECT_EQ(com.PipeIn(), c.found ? kNone : c.pipeIn);
        }
        EXPECT_EQ(service.LiveObjects(), 0) << "every port object is released";
    }
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

    TRecordedBulkRig m_rig;
    CMtDevCommunicator m_com;
};

// Verify the stall recovery's asymmetry: a failed read asks the pipe status and only a stall is
// cleared and retried after 200 ms; a failed write clears blindly and retries at once.
TEST_F(BulkTransfer, StallRecoveryAndCodes) {
    const std::vector<std::string> readStalled{"ReadPipeTO 1", "GetPipeStatus 1",
                                               "ClearPipeStallBothEnds 1", "ReadPipeTO 1"};
    const std::vector<std::string> writeStalled{"WritePipeTO 2", "ClearPipeStallBothEnds 2",
                                                "WritePipeTO 2"};
    const struct {
        const char* name;
        bool write;
        int stalls;  // 0: nothing answers the read
        int result;
        uint64_t elapsedMs;
        std::vector<std::string> calls;
    } cases[] = {  // in this order: a failed read leaves its answer queued
        {"read times out", false, 0, -1, 1000, {"ReadPipeTO 1", "GetPipeStatus 1"}},
        {"read stalls once", false, 1, 8, 200, readStalled},
        {"read stalls again after the clear", false, 2, -1, 200, readStalled},
        {"write stalls once", true, 1, 0, 0, writeStalled},
        {"write stalls again after the clear", true, 2, MTDEV_COM_WRITE, 0, writeStalled},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.stalls > 0) {
            m_rig.emulator.InjectFault(
                {TEmuFaultKind::StallPipe, 0, TEmuStage::Any, 0, c.write ? 1 : 0, c.stalls});
        }
        // For a read, the request that queues the answer takes the fault: the IN pipe stalls
        // at the next read.
        if (!c.write && c.stalls > 0) QueueStatusAnswer();
        m_rig.service.ClearCalls();
        std::array<uint8_t, 64> buffer{};
        const uint64_t before = m_clock.MonotonicNanos();
        EXPECT_EQ(c.write ? m_com.WriteBulkDevCom(buffer.data(), 28, 1000)
                          : m_com.ReadBulkDevCom(buffer.data(), 64, 1000),
                  c.result);
        EXPECT_EQ(Elapsed(before), c.elapsedMs * 1'000'000ull);
        EXPECT_EQ(m_rig.service.Calls(), c.calls);
    }

    // The codes for a null buffer and a closed channel.
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
