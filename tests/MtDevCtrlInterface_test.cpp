// The controller in both dialects: packet builders, error names and progress; every device
// operation through the real hidraw port against the emulated touch frame (on a socketpair),
// and the hi-speed dialect through the emulator's in-process bulk port, with the faults the
// frame can be made to commit.
#include "MtDevCtrlInterface.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <cwchar>
#include <functional>
#include <string>
#include <thread>

#include "MtScriptedHidDevice.h"
#include "MultiPlatformAPI.h"
#include "support/ConfigBlockBuilder.h"
#include "support/MtDevLinkRig.h"

namespace {

using K = TEmuFaultKind;
using S = TEmuStage;

uint32_t Le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0] | p[1] << 8 | p[2] << 16) | static_cast<uint32_t>(p[3]) << 24;
}

std::vector<uint8_t> Pattern(size_t bytes, unsigned factor) {
    std::vector<uint8_t> out(bytes);
    for (size_t i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(i * factor + (i >> 16) + 1);
    return out;
}

// A frame record with its own contact storage.
struct TFrame {
    std::vector<_HARDWARE_SDK_POINT> storage = std::vector<_HARDWARE_SDK_POINT>(32);
    _HARDWARE_FRAME_SDK frame{};
    TFrame() {
        frame.pointBufferBytes = static_cast<uint16_t>(storage.size() * sizeof(_HARDWARE_SDK_POINT));
        frame.pointBuffer = reinterpret_cast<uint8_t*>(storage.data());
    }
    std::vector<int> Ids() const {
        std::vector<int> ids;
        for (const _HARDWARE_SDK_POINT* p = frame.points; p != nullptr; p = p->next) ids.push_back(p->id);
        return ids;
    }
};

// A raw frame record over the caller's storage.
_HARDWARE_FRAME_DATA RawFrame(std::vector<uint8_t>& storage, uint16_t capacity) {
    _HARDWARE_FRAME_DATA raw{};
    raw.capacity = capacity;
    raw.storage = storage.data();
    return raw;
}

std::vector<TEmuRequest> RequestsOf(const CMtDevEmulator& emulator, uint8_t command) {
    std::vector<TEmuRequest> out;
    for (const TEmuRequest& r : emulator.Requests()) {
        if (r.command == command) out.push_back(r);
    }
    return out;
}

// A 28-byte hi-speed command packet: its type, parameter and command, the command's position
// 8..27 and filler 5..27 everywhere else, no terminator.
void ExpectHiBytes(const std::vector<uint8_t>& p, uint8_t type, uint8_t command, uint32_t parameter) {
    ASSERT_EQ(p.size(), 28u);
    EXPECT_EQ(p[0], type);
    EXPECT_EQ(Le32(&p[1]), parameter);
    const int position = p[5];
    ASSERT_GE(position, 8);
    ASSERT_LE(position, 27);
    EXPECT_EQ(p[position], command);
    for (int i = 6; i < 28; ++i) {
        if (i == position) continue;
        EXPECT_GE(p[i], 5) << i;
        EXPECT_LE(p[i], 27) << i;
    }
}

// The same packet as written to the OUT pipe, with 1000 ms.
void ExpectHiPacket(const TBulkTransfer& t, uint8_t type, uint8_t command, uint32_t parameter) {
    ASSERT_TRUE(t.write);
    EXPECT_EQ(t.size, 28u);
    ExpectHiBytes(t.bytes, type, command, parameter);
    EXPECT_EQ(t.noDataTimeoutMs, 1000u);
    EXPECT_EQ(t.completionTimeoutMs, 1000u);
}

// Close mode and the parameter its close command carries (mode 255 sends nothing).
const std::pair<unsigned char, uint32_t> kCloseModes[] = {{0, 1}, {1, 0},   {2, 4}, {3, 6},
                                                          {6, 189}, {7, 6}, {254, 6}};

// ---------------------------------------------------------------------------------------------
// Packets, names and progress

class PacketBuilder : public ::testing::TestWithParam<int> {
protected:
    TVirtualClock m_clock{0};
    TScopedClock m_scoped{m_clock};
};

// Verify the lo-speed packet over many seeds: length byte, terminator, command position,
// parameter and filler range, nothing beyond the packet.
TEST_P(PacketBuilder, LoSpeedLayout) {
    const int length = GetParam();
    for (int tick = 0; tick < 300; ++tick) {
        m_clock.AdvanceMillis(1);
        std::array<uint8_t, 64> p{};
        CMtDevController::MakeCommandPacketLoSpeed(p.data(), length, 0xB6, 0x12345678);
        ASSERT_EQ(p[0], length);
        ASSERT_EQ(p[length - 1], 0xFF);
        const int position = p[5];
        ASSERT_GE(position, 10);
        ASSERT_LE(position, length - 2);
        ASSERT_EQ(p[position], 0xB6);
        ASSERT_EQ(Le32(&p[1]), 0x12345678u);
        for (int i = 6; i <= length - 2; ++i) {
            if (i == position) continue;
            ASSERT_GE(p[i], 5) << i;
            ASSERT_LE(p[i], length - 1) << i;
        }
        for (int i = length; i < 64; ++i) ASSERT_EQ(p[i], 0) << "nothing beyond the packet";
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, PacketBuilder, ::testing::Values(17, 27, 37, 64));

// Verify the hi-speed packet over many seeds.
TEST_F(PacketBuilder, HiSpeedLayout) {
    for (int tick = 0; tick < 300; ++tick) {
        m_clock.AdvanceMillis(1);
        std::vector<uint8_t> p(28);
        CMtDevController::MakeCommandPacketHiSpeed(p.data(), MTDEV_PACKET_COMMAND, 0xB6, 0xA1B2C3D4);
        ExpectHiBytes(p, MTDEV_PACKET_COMMAND, 0xB6, 0xA1B2C3D4);
        if (HasFailure()) return;
    }
}

// Verify the 4-byte packet (position 2, overwritten by the parameter, byte 3 then 0xFF), that a
// refused length or type or a null buffer leaves the buffer untouched, and that the filler
// depends only on the millisecond clock.
TEST_F(PacketBuilder, ShortPacketRefusalsAndSeed) {
    std::array<uint8_t, 64> p{};
    CMtDevController::MakeCommandPacketLoSpeed(p.data(), 4, 0xB6, 0x11223344);
    EXPECT_EQ((std::vector<uint8_t>(p.begin(), p.begin() + 6)),
              (std::vector<uint8_t>{4, 0x44, 0x33, 0xFF, 0x11, 2}));

    for (int bad : {0, 3, 5, 16, 28, 63, 65}) {
        p.fill(0xEE);
        CMtDevController::MakeCommandPacketLoSpeed(p.data(), bad, 0xB6, 1);
        CMtDevController::MakeCommandPacketHiSpeed(p.data(), static_cast<uint8_t>(bad), 0xB6, 1);
        for (uint8_t b : p) ASSERT_EQ(b, 0xEE) << bad;
    }
    CMtDevController::MakeCommandPacketLoSpeed(nullptr, 37, 0xB6, 1);
    CMtDevController::MakeCommandPacketHiSpeed(nullptr, 37, 0xB6, 1);

    std::array<uint8_t, 64> a{}, b{};
    CMtDevController::MakeCommandPacketLoSpeed(a.data(), 37, 0xB3, 7);
    std::srand(12345);  // whatever happened to the generator in between
    CMtDevController::MakeCommandPacketLoSpeed(b.data(), 37, 0xB3, 7);
    EXPECT_EQ(a, b);
    int differing = 0;
    for (int i = 0; i < 20; ++i) {
        m_clock.AdvanceMillis(1);
        CMtDevController::MakeCommandPacketLoSpeed(b.data(), 37, 0xB3, 7);
        differing += a != b;
    }
    EXPECT_GE(differing, 19);
}

// Verify the name of every code, the copy into the caller's text, unknown codes, and that each
// thread has its own name buffer.
TEST(ErrorNames, EveryCode) {
    const std::pair<DEV_ERR, const wchar_t*> names[] = {
        {0, L"DE_OK"},           {1, L"DE_ERROR"},           {2, L"DE_UNSUPPORT"},
        {3, L"DE_DEV_NOT_OPENED"}, {4, L"DE_DEV_READ"},      {5, L"DE_DEV_WRITE"},
        {6, L"DE_NULLPTR"},      {7, L"DE_DEV_FLASH"},       {8, L"DE_RW_LENGTH"},
        {9, L"DE_BAD_PARAM"},    {10, L"DE_UNEXPECTED_READ"}, {11, L"DE_BAD_VERSION"},
        {12, L"DE_BAD_USB_MODE"}, {13, L"DE_BAD_DATA_SIZE"}, {14, L"DE_SW_READ_TIMEOUT"},
        {1000, L"DE_ERROR_BY_FMW"}, {15, L"DE_UNKNOWN"},     {999, L"DE_UNKNOWN"},
        {1005, L"DE_UNKNOWN"},   {0xFFFFFFFFu, L"DE_UNKNOWN"},
    };
    for (const auto& [code, name] : names) {
        wchar_t text[MTDEV_ERROR_NAME_CHARS];
        std::wmemset(text, L'x', MTDEV_ERROR_NAME_CHARS);
        EXPECT_STREQ(FormatMtDevError(code, text), name) << code;
        EXPECT_STREQ(text, name) << code;
        EXPECT_STREQ(FormatMtDevError(code, nullptr), name);
    }
    EXPECT_STREQ(MtDevErrorName(DE_BAD_USB_MODE), "DE_BAD_USB_MODE");

    const wchar_t* mine = FormatMtDevError(DE_OK, nullptr);
    std::thread([] { FormatMtDevError(DE_DEV_FLASH, nullptr); }).join();
    EXPECT_STREQ(mine, L"DE_OK");
}

// Verify GetCmdProcess, the reset and the abort flag on a controller without a device, and
// every operation's code without a device and without a record.
TEST(WithoutDevice, ProgressAndCodes) {
    CMtDevController controller;
    EXPECT_EQ(controller.GetCmdProcess(), 100);  // nothing expected yet
    int length = 200;
    std::array<uint8_t, 200> buffer{};
    EXPECT_EQ(controller.GetDevStatus(buffer.data(), length), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.ProgressTotal(), 200u);
    EXPECT_EQ(controller.GetCmdProcess(), 0);
    controller.BreakOffCmdProcess();
    EXPECT_EQ(controller.AbortFlag(), 0xFF);
    controller.ResetCmdProcess();
    EXPECT_EQ(controller.AbortFlag(), 0);
    EXPECT_EQ(controller.ProgressDone(), 0u);
    EXPECT_EQ(controller.ProgressTotal(), 200u);

    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    EXPECT_EQ(controller.GetDeviceConfig(config.get()), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.GetDeviceConfig(nullptr), DE_NULLPTR);
    EXPECT_EQ(controller.SetDeviceConfig(config.get()), DE_DEV_NOT_OPENED);
    _HARDWARE_DEV_INFO info{};
    EXPECT_EQ(controller.GetDeviceInfo(&info), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.SetDeviceInfo(&info), DE_DEV_NOT_OPENED);
    length = 10;
    EXPECT_EQ(controller.GetScanPatternFile(nullptr, length), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.SetScanPatternFile(buffer.data(), 10), DE_DEV_NOT_OPENED);
    _HARDWARE_CONFIG_OVERRIDE override{};
    EXPECT_EQ(controller.SetDeviceConfigOverride(&override), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.ProgressTotal(), 18u);
    std::vector<uint8_t> file(1024);
    EXPECT_EQ(controller.SetTouchSystemFile(file.data(), 1024), DE_DEV_NOT_OPENED);
    _HARDWARE_FRAME_DATA raw = RawFrame(file, 16);
    EXPECT_EQ(controller.GetFrameData(&raw), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.ClearCache(), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.CmdProcess(1), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.CmdProtect(1), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.ReadDate(buffer.data()), DE_DEV_NOT_OPENED);
}

// ---------------------------------------------------------------------------------------------
// Operations over the real hidraw port

class HidController : public ::testing::Test {
protected:
    // Pauses run on a virtual clock; HID waits are real (short) poll time-outs.
    TVirtualClock m_clock{0};
    TScopedClock m_scoped{m_clock};

    void SetUp() override {
        m_fds = CountOpenFds();
        m_rig = std::make_unique<THidRig>();
        ASSERT_TRUE(m_rig->link.Ok());
        m_ctl = std::make_unique<CMtDevController>(ShortHidTimeouts());
        ASSERT_EQ(m_ctl->OpenDevice(&m_rig->path), DE_OK);
        ASSERT_EQ(m_ctl->DeviceType(), MTDEV_TYPE_HID);
    }
    void TearDown() override {
        m_ctl.reset();
        m_rig.reset();
        EXPECT_EQ(CountOpenFds(), m_fds) << "a descriptor was left open";
    }
    CMtDevEmulator& Emu() { return m_rig->emulator; }
    CMtDevController& Ctl() { return *m_ctl; }
    const std::vector<unsigned>& Waits() { return m_rig->recorder->Waits(); }

    std::unique_ptr<THidRig> m_rig;
    std::unique_ptr<CMtDevController> m_ctl;
    int m_fds = 0;
};

// Verify opening: a null path or type 0 gives 1 and opens nothing; a node that cannot be
// opened gives 1.
TEST_F(HidController, OpenDeviceFailures) {
    CMtDevController other;
    EXPECT_EQ(other.OpenDevice(nullptr), DE_ERROR);
    TMACDEVICEPATH none = m_rig->path;
    none.deviceType = MTDEV_TYPE_NONE;
    EXPECT_EQ(other.OpenDevice(&none), DE_ERROR);
    EXPECT_FALSE(other.Communicator().IsHidOpen());
    CHidrawDevice missing("/nonexistent/hidraw7");
    TMACDEVICEPATH bad{&missing, nullptr, 5};  // any type other than 0 and 3 is HID
    EXPECT_EQ(other.OpenDevice(&bad), DE_ERROR);
    EXPECT_EQ(other.DeviceType(), 5);
    EXPECT_EQ(other.SetDeviceType(&none), MTDEV_TYPE_NONE);
}

// Verify the frame poll (a 37-byte request, the reply time-out): a queued frame, then the idle
// frame without contacts, then a reply that is not a frame (11). Decoding is MtDevFrame_test's.
TEST_F(HidController, GetFrameSdkDecodesQueuedFrames) {
    Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{1, 1, 100, 200}, {2, 1, 300, 400}}));
    TFrame f;
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.Ids(), (std::vector<int>{2, 1}));
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.frame.points, nullptr);
    for (const TEmuRequest& r : RequestsOf(Emu(), MTDEV_CMD_FRAME_SDK)) {
        EXPECT_EQ(r.kind, 37);
        EXPECT_EQ(r.parameter, 0u);
        EXPECT_EQ(r.bytes, 37u);
    }
    EXPECT_EQ(Waits(), (std::vector<unsigned>(2, kTestReplyMs)));

    TEmuFramePayload notAFrame{};
    notAFrame[0] = 0x55;
    Emu().QueueFrame(notAFrame);
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_BAD_VERSION);
    EXPECT_EQ(Ctl().GetFrameSdk(nullptr), DE_NULLPTR);
}

struct TFrameFault {
    const char* name;
    TEmuFaultKind kind;
    int value;
    DEV_ERR expected;
};

class GetFrameSdkFault : public HidController, public ::testing::WithParamInterface<TFrameFault> {};

// Verify each fault of the frame poll yields its code and waits no longer than the reply
// time-out.
TEST_P(GetFrameSdkFault, YieldsCode) {
    const TFrameFault& c = GetParam();
    Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{1, 1, 100, 200}}));
    Emu().InjectFault({c.kind, MTDEV_CMD_FRAME_SDK, S::Any, 0, c.value});
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), c.expected);
    EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestReplyMs}));
    EXPECT_EQ(f.frame.points, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, GetFrameSdkFault,
    ::testing::Values(TFrameFault{"Dropped", K::DropReply, 0, DE_UNSUPPORT},
                      TFrameFault{"Garbage", K::Garbage, 0, DE_UNSUPPORT},
                      TFrameFault{"WrongCode", K::WrongCode, 0, DE_UNSUPPORT},
                      // Only the reply code arrives: the payload is the request's parameter 0.
                      TFrameFault{"Short", K::ShortReply, 1, DE_BAD_VERSION},
                      TFrameFault{"Vanished", K::Vanish, 0, DE_UNSUPPORT}),
    [](const ::testing::TestParamInfo<TFrameFault>& info) { return info.param.name; });

// Verify that a late reply gives 2 after the reply time-out, stays queued and is taken by the
// next poll: only the reply code guards against stale replies.
TEST_F(HidController, LateReplyIsTakenByTheNextPoll) {
    Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{9, 1, 100, 200}}));
    Emu().InjectFault({K::LateReply, MTDEV_CMD_FRAME_SDK, S::Any, 0, 400});
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_UNSUPPORT);  // gives up first
    EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestReplyMs}));
    TMtDevTimeouts patient = Ctl().Timeouts();
    patient.hidReplyMs = 5000;
    Ctl().SetTimeouts(patient);
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.Ids(), (std::vector<int>{9})) << "the first poll's reply, come late";
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);  // the second poll's own (idle) reply
    EXPECT_EQ(f.frame.points, nullptr);
}

// Verify that after the device vanished every poll fails at once with a write error.
TEST_F(HidController, VanishedDeviceFailsWrites) {
    m_rig->link.Unplug();
    TFrame f;
    DEV_ERR first = Ctl().GetFrameSdk(&f.frame);
    EXPECT_TRUE(first == DE_UNSUPPORT || first == DE_DEV_WRITE) << first;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_DEV_WRITE);
}

// Verify the close command and the close-mode table; mode 255 sends nothing. Each close also
// closes the transport and forgets the device type; closing a closed device is harmless.
TEST_F(HidController, CloseDeviceModes) {
    for (const auto& [mode, parameter] : kCloseModes) {
        SCOPED_TRACE(static_cast<int>(mode));
        if (Ctl().DeviceType() == MTDEV_TYPE_NONE) {
            ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
        }
        const size_t before = Emu().RequestCount();
        EXPECT_EQ(Ctl().CloseDevice(mode), DE_OK);
        Emu().WaitForRequests(before + 1);
        const TEmuRequest r = Emu().Requests().back();
        EXPECT_EQ(r.kind, 17);
        EXPECT_EQ(r.bytes, 17u);
        EXPECT_EQ(r.command, MTDEV_CMD_CLOSE);
        EXPECT_EQ(r.parameter, parameter);
        EXPECT_EQ(Ctl().DeviceType(), MTDEV_TYPE_NONE);
        EXPECT_FALSE(Ctl().Communicator().IsHidOpen());
    }
    ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
    Ctl().CloseDevice(MTDEV_CLOSE_SILENT);
    EXPECT_FALSE(Ctl().Communicator().IsHidOpen());
    // A poll after the close: no device. The silent close sent nothing the poll could follow.
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_DEV_NOT_OPENED);
    EXPECT_EQ(Ctl().CloseDevice(0), DE_OK);
}

// Verify the plain commands: process mode (mode & 7) | 8 and protect value, 17-byte packets.
TEST_F(HidController, ProcessAndProtectCommands) {
    EXPECT_EQ(Ctl().CmdProcess(0xFF), DE_OK);
    EXPECT_EQ(Ctl().CmdProcess(2), DE_OK);
    EXPECT_EQ(Ctl().CmdProtect(0xDEADBEEF), DE_OK);
    Emu().WaitForRequests(3);
    const std::vector<TEmuRequest> r = Emu().Requests();
    EXPECT_EQ(r[0].command, MTDEV_CMD_PROCESS);
    EXPECT_EQ(r[0].parameter, 15u);
    EXPECT_EQ(r[1].parameter, 10u);
    EXPECT_EQ(r[2].command, MTDEV_CMD_PROTECT);
    EXPECT_EQ(r[2].parameter, 0xDEADBEEFu);
    EXPECT_EQ(r[2].kind, 17);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
}

// Verify reading the configuration: a 4-byte head, then the whole block in 58-byte pieces,
// decoded into the record; and that a device answering in smaller pieces is read whole.
TEST_F(HidController, GetDeviceConfigReadsHeadThenBlock) {
    const std::vector<uint8_t> block = Emu().ConfigBlock();
    ASSERT_GT(block.size(), 58u);
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(config.get()), DE_OK);
    EXPECT_EQ(config->areaCount, 1);
    EXPECT_EQ(config->port, 3333);
    EXPECT_EQ(static_cast<int>(config->areas[0].outputRect.width), 1920);  // a packed field: by value
    const std::vector<TEmuRequest> reads = RequestsOf(Emu(), MTDEV_CMD_DEV_CONFIG);
    const size_t pieces = (block.size() + 57) / 58;
    ASSERT_EQ(reads.size(), 1 + pieces);
    EXPECT_EQ(reads[0].parameter, 0u);
    for (size_t i = 0; i < pieces; ++i) EXPECT_EQ(reads[1 + i].parameter, i);
    EXPECT_EQ(Ctl().ProgressTotal(), block.size());
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    Emu().SetPieceBytes(5);
    auto small = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(small.get()), DE_OK);
    EXPECT_EQ(std::memcmp(small.get(), config.get(), sizeof *config), 0);
}

using TArrange = std::function<void(CMtDevEmulator&)>;
TArrange Fault(TEmuFault f) {
    return [f](CMtDevEmulator& e) { e.InjectFault(f); };
}
TArrange Block(std::vector<uint8_t> b) {
    return [b](CMtDevEmulator& e) { e.SetConfigBlock(b); };
}
std::vector<uint8_t> DefaultBlockWith(size_t offset, uint8_t value) {
    std::vector<uint8_t> block = EmuDefaultConfigBlock();
    block[offset] = value;
    return block;
}

struct TConfigCase {
    const char* name;
    TArrange arrange;
    DEV_ERR expected;
};

class GetDeviceConfigCase : public HidController, public ::testing::WithParamInterface<TConfigCase> {};

// Verify each way the configuration read can fail, the decoder's verdicts, and the head-only
// block; the record is zeroed first.
TEST_P(GetDeviceConfigCase, YieldsCode) {
    GetParam().arrange(Emu());
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0xAB, sizeof *config);
    EXPECT_EQ(Ctl().GetDeviceConfig(config.get()), GetParam().expected);
    EXPECT_EQ(config->text[0], 0) << "the record is zeroed first";
    for (unsigned w : Waits()) EXPECT_EQ(w, kTestReplyMs);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GetDeviceConfigCase,
    ::testing::Values(
        TConfigCase{"HeadDropped", Fault({K::DropReply}), DE_ERROR},
        TConfigCase{"HeadGarbage", Fault({K::Garbage}), DE_ERROR},
        TConfigCase{"BlockPieceWrongCode", Fault({K::WrongCode, 0, S::Any, 2}), DE_ERROR},
        TConfigCase{"VanishedInTheMiddle", Fault({K::Vanish, 0, S::Any, 2}), DE_ERROR},
        TConfigCase{"NotAConfigurationBlock", Block(DefaultBlockWith(2, 0xB1)), DE_BAD_VERSION},
        TConfigCase{"DeclaredSizeBelowFour", Block({3, 0, 0xB2, 0, 0, 0}), DE_BAD_PARAM},
        TConfigCase{"HeadShorterThanFour", Block({3, 0, 0xB2}), DE_RW_LENGTH},
        TConfigCase{"HeadOnlyBlock", Block({4, 0, 0xB2, 0}), DE_OK},
        TConfigCase{"UndecodableBlock", Block(DefaultBlockWith(25, 33)), DE_BAD_PARAM}),
    [](const ::testing::TestParamInfo<TConfigCase>& info) { return info.param.name; });

// Verify writing and reading back the information block, and the lo-speed write's shape:
// no size announced, pieces of 64 bytes with the sequence and count, then "EOD".
TEST_F(HidController, DeviceInfoRoundTrip) {
    _HARDWARE_DEV_INFO info{};
    for (int i = 0; i < 43; ++i) info.bytes[i] = static_cast<uint8_t>(200 - i);
    ASSERT_EQ(Ctl().SetDeviceInfo(&info), DE_OK);
    TEmuWrite write{};
    ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_DEV_INFO, &write));
    EXPECT_EQ(write.data, std::vector<uint8_t>(info.bytes, info.bytes + 43));
    EXPECT_EQ(write.pieces, 1u);
    const std::vector<TEmuRequest> r = Emu().Requests();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].kind, 27);
    EXPECT_EQ(r[0].parameter, 0u) << "the lo-speed write does not announce its size";
    EXPECT_EQ(r[1].stage, S::Data);
    EXPECT_EQ(r[1].bytes, 64u);
    EXPECT_EQ(r[2].stage, S::End);
    EXPECT_EQ(r[2].bytes, 4u);
    EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestWriteAckMs, kTestReplyMs, kTestEndAckMs}));

    _HARDWARE_DEV_INFO back{};
    ASSERT_EQ(Ctl().GetDeviceInfo(&back), DE_OK);
    EXPECT_EQ(std::memcmp(back.bytes, info.bytes, 43), 0);
    EXPECT_EQ(Ctl().ProgressTotal(), 43u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
}

struct TWriteFault {
    const char* name;
    TEmuFaultKind kind;
    TEmuStage stage;
    int value;
    DEV_ERR expected;
    unsigned lastWaitMs;  // the time-out of the wait the failure came from
    bool stored;          // the device took the data (only its acknowledgement went wrong)
};

class SetDeviceInfoFault : public HidController, public ::testing::WithParamInterface<TWriteFault> {};

// Verify each fault of a lo-speed write yields its code, from the step the fault hit, and
// that a failed write is not taken.
TEST_P(SetDeviceInfoFault, YieldsCode) {
    const TWriteFault& c = GetParam();
    Emu().InjectFault({c.kind, 0, c.stage, 0, c.value});
    _HARDWARE_DEV_INFO info{};
    EXPECT_EQ(Ctl().SetDeviceInfo(&info), c.expected);
    ASSERT_FALSE(Waits().empty());
    EXPECT_EQ(Waits().back(), c.lastWaitMs);
    EXPECT_EQ(Emu().LastWrite(MTDEV_CMD_DEV_INFO, nullptr), c.stored);
}

constexpr unsigned kAck = kTestWriteAckMs, kPiece = kTestReplyMs, kEnd = kTestEndAckMs;
INSTANTIATE_TEST_SUITE_P(
    Faults, SetDeviceInfoFault,
    ::testing::Values(
        TWriteFault{"RequestDropped", K::DropReply, S::Request, 0, DE_UNEXPECTED_READ, kAck, false},
        TWriteFault{"RequestGarbage", K::Garbage, S::Request, 0, DE_UNEXPECTED_READ, kAck, false},
        TWriteFault{"RequestWrongCode", K::WrongCode, S::Request, 0, DE_ERROR, kAck, false},
        TWriteFault{"RequestRefused", K::RefuseWrite, S::Request, 0, DE_DEV_FLASH, kAck, false},
        TWriteFault{"RequestShort", K::ShortReply, S::Request, 1, DE_ERROR, kAck, false},
        TWriteFault{"RequestVanished", K::Vanish, S::Request, 0, DE_UNEXPECTED_READ, kAck, false},
        TWriteFault{"PieceDropped", K::DropReply, S::Data, 0, DE_ERROR, kPiece, false},
        TWriteFault{"PieceWrongCode", K::WrongCode, S::Data, 0, DE_ERROR, kPiece, false},
        TWriteFault{"PieceRefused", K::RefuseWrite, S::Data, 0, DE_DEV_FLASH, kPiece, false},
        TWriteFault{"PieceVanished", K::Vanish, S::Data, 0, DE_ERROR, kPiece, false},
        TWriteFault{"EndDropped", K::DropReply, S::End, 0, DE_ERROR, kEnd, true},
        TWriteFault{"EndGarbage", K::Garbage, S::End, 0, DE_ERROR, kEnd, true},
        TWriteFault{"EndWrongCode", K::WrongCode, S::End, 0, DE_DEV_FLASH, kEnd, true},
        TWriteFault{"FirmwareStatus", K::FirmwareStatus, S::End, 3, DE_DEV_FLASH, kEnd, false}),
    [](const ::testing::TestParamInfo<TWriteFault>& info) { return info.param.name; });

// A controller opened on a scripted HID device on a virtual clock.
struct TScripted {
    TVirtualClock clock;
    TScopedClock scoped{clock};
    CMtScriptedHidDevice device;
    TMACDEVICEPATH path{&device, nullptr, MTDEV_TYPE_HID};
    CMtDevController controller;
    explicit TScripted(CMtScriptedHidDevice::Responder responder) {
        device.SetResponder(std::move(responder));
    }
};

// Verify the acknowledgement of a piece must echo its sequence number or-ed with 0xF00000:
// for piece 3 exactly 0x06 0xE5 0x03 0x00 0xF0 0x00; the pieces carry 0x40, the sequence and
// the count; the first piece follows the acknowledged request by 200 ms.
TEST(LoSpeedEcho, PieceAcknowledgementEchoesSequence) {
    for (bool exactEcho : {true, false}) {
        SCOPED_TRACE(exactEcho);
        std::vector<std::vector<uint8_t>> pieceAcks;
        TScripted s([&](const uint8_t* r, long, std::vector<TScriptedInput>* inputs) {
            std::vector<uint8_t> reply(64, 0);
            reply[0] = 0x06;
            if (r[0] == 27) {
                reply[1] = 0xE4;
                reply[2] = 4;
            } else if (r[0] == 0x40) {
                reply[1] = 0xE5;
                std::memcpy(&reply[2], r + 1, 4);
                reply[4] = 0xF0;
                if (!exactEcho && r[1] == 3) reply[4] = 0x00;
                pieceAcks.push_back(reply);
            } else {
                reply[1] = 0xE7;
            }
            inputs->push_back({reply});
        });
        ASSERT_EQ(s.controller.OpenDevice(&s.path), DE_OK);
        std::vector<uint8_t> data(58 * 5);
        EXPECT_EQ(s.controller.SetLoSpeed(0xBE, data.data(), static_cast<int>(data.size())),
                  exactEcho ? DE_OK : DE_DEV_FLASH);
        ASSERT_GE(pieceAcks.size(), 4u);
        const std::vector<uint8_t> expected = {0x06, 0xE5, 0x03, 0x00, exactEcho ? uint8_t{0xF0} : uint8_t{0}, 0x00};
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), pieceAcks[3].begin()));
        const std::vector<std::vector<uint8_t>>& out = s.device.Outputs();
        ASSERT_GE(out.size(), 5u);
        for (size_t i = 1; i < out.size() - (exactEcho ? 1 : 0); ++i) {
            ASSERT_EQ(out[i].size(), 64u);
            EXPECT_EQ(out[i][0], 0x40);
            EXPECT_EQ(Le32(&out[i][1]), i - 1);
            EXPECT_EQ(out[i][63], 58);
        }
        if (exactEcho) {
            EXPECT_EQ(out.back(), (std::vector<uint8_t>{4, 'E', 'O', 'D'}));
        }
        EXPECT_EQ(TGetTickCount(), 200u);
    }
}

// Verify the lo-speed read of 100 bytes: pieces 0 and 1 of 58 and 42 bytes; a piece claiming
// 59 bytes is an error.
TEST(LoSpeedRead, PiecesAndTheirLimit) {
    for (int claimed : {42, 59}) {
        SCOPED_TRACE(claimed);
        std::vector<uint32_t> indexes;
        TScripted s([&](const uint8_t* r, long, std::vector<TScriptedInput>* inputs) {
            const uint32_t index = Le32(r + 1);
            indexes.push_back(index);
            std::vector<uint8_t> reply(64, 0);
            reply[0] = 0xD1;
            for (int i = 0; i < 58; ++i) reply[5 + i] = static_cast<uint8_t>(index * 58 + i);
            reply[63] = static_cast<uint8_t>(index == 0 ? 58 : claimed);
            inputs->push_back({reply});
        });
        ASSERT_EQ(s.controller.OpenDevice(&s.path), DE_OK);
        std::vector<uint8_t> buffer(100, 0);
        int length = 100;
        const DEV_ERR result = s.controller.GetLoSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), length);
        EXPECT_EQ(indexes, (std::vector<uint32_t>{0, 1}));
        EXPECT_EQ(result, claimed == 42 ? DE_OK : DE_ERROR);
        if (claimed == 42) {
            EXPECT_EQ(length, 100);
            for (int i = 0; i < 100; ++i) ASSERT_EQ(buffer[i], i);
        }
    }
}

// Verify a lo-speed read ends at the device's end marker with the length it reached, the size
// query, and that a length of 0 sends nothing.
TEST_F(HidController, ReadEndsAtEndMarker) {
    Emu().SetStatus({1, 2, 3, 4, 5});
    std::array<uint8_t, 64> buffer{};
    int length = 64;
    ASSERT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_OK);
    EXPECT_EQ(length, 5);
    EXPECT_EQ(buffer[4], 5);
    int size = 0;
    ASSERT_EQ(Ctl().GetDevStatus(nullptr, size), DE_OK);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(RequestsOf(Emu(), MTDEV_CMD_DEV_STATUS).back().parameter, MTDEV_SIZE_QUERY);
    const size_t before = Emu().RequestCount();
    int none = 0;
    EXPECT_EQ(Ctl().GetLoSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), none), DE_OK);
    EXPECT_EQ(Emu().RequestCount(), before);
}

// Verify that an abort from another thread ends a read that the device keeps feeding with
// empty pieces (the host never gives up on its own), and that the percentage read meanwhile
// stays within 0..100.
TEST_F(HidController, AbortFromAnotherThreadEndsEndlessRead) {
    Emu().SetPieceBytes(0);
    std::atomic<bool> done{false};
    std::atomic<int> badPercent{0};
    std::thread watcher([&] {
        Emu().WaitForRequests(20);
        while (!done.load()) {
            if (Ctl().GetCmdProcess() > 100) badPercent.fetch_add(1);
            Ctl().BreakOffCmdProcess();
            std::this_thread::yield();
        }
    });
    std::vector<uint8_t> buffer(100);
    int length = 100;
    const DEV_ERR result = Ctl().GetLoSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), length);
    done = true;
    watcher.join();
    EXPECT_EQ(result, DE_ERROR);
    EXPECT_GE(Emu().RequestCount(), 20u);
    EXPECT_EQ(badPercent.load(), 0);
}

// Verify the percentage of a transfer cut short (50 of 200 bytes is 25), and that the next
// operation starts afresh.
TEST_F(HidController, PercentageOfTransferCutShort) {
    Emu().SetStatus(std::vector<uint8_t>(200, 7));
    Emu().SetPieceBytes(50);
    Emu().InjectFault({K::DropReply, 0, S::Any, 1});
    std::vector<uint8_t> buffer(200);
    int length = 200;
    EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_ERROR);
    EXPECT_EQ(Ctl().ProgressDone(), 50u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 25);
    length = 200;
    EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_OK);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
}

// Verify that an abort flag set before a transaction ends it before anything is sent (a write
// sends its request only).
TEST_F(HidController, AbortFlagStopsTransactionsBeforeData) {
    Ctl().BreakOffCmdProcess();
    std::array<uint8_t, 64> buffer{};
    int length = 10;
    EXPECT_EQ(Ctl().GetLoSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), length), DE_ERROR);
    EXPECT_EQ(Emu().RequestCount(), 0u);
    EXPECT_EQ(Ctl().SetLoSpeed(MTDEV_CMD_DEV_INFO, buffer.data(), 10), DE_ERROR);
    EXPECT_EQ(Emu().RequestCount(), 1u) << "only the write request went out";
    EXPECT_EQ(Ctl().SetLoSpeed(MTDEV_CMD_DEV_INFO, nullptr, 10), DE_NULLPTR);
}

// Verify the scan pattern: the size query reads its 6-byte head, a size out of 6..0x200000
// gives 13 and is still reported, a head shorter than 6 gives 8; read and write round trip.
TEST_F(HidController, ScanPattern) {
    int length = 0;
    ASSERT_EQ(Ctl().GetScanPatternFile(nullptr, length), DE_OK);
    EXPECT_EQ(length, 70);
    std::vector<uint8_t> pattern(static_cast<size_t>(length));
    ASSERT_EQ(Ctl().GetScanPatternFile(pattern.data(), length), DE_OK);
    EXPECT_EQ(pattern, Emu().ScanPattern());

    for (uint32_t bad : {0x200001u, 5u}) {
        std::vector<uint8_t> head = {0xB2, 0, 0, 0, 0, 0, 9};
        std::memcpy(&head[2], &bad, 4);
        Emu().SetScanPattern(head);
        EXPECT_EQ(Ctl().GetScanPatternFile(nullptr, length), DE_BAD_DATA_SIZE);
        EXPECT_EQ(static_cast<uint32_t>(length), bad);
    }
    Emu().SetScanPattern({0xB2, 0, 6, 0});
    EXPECT_EQ(Ctl().GetScanPatternFile(nullptr, length), DE_RW_LENGTH);

    pattern.assign(130, 0x3C);
    ASSERT_EQ(Ctl().SetScanPatternFile(pattern.data(), 130), DE_OK);
    EXPECT_EQ(Emu().ScanPattern(), pattern);
    TEmuWrite write{};
    ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_SCAN_PATTERN, &write));
    EXPECT_EQ(write.pieces, 3u);
}

// Verify writing the configuration then reading it back, and the override write: 18 bytes
// with command 0xB5.
TEST_F(HidController, SetDeviceConfigAndOverride) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig('s', 0, config.get());
    DefaultDevCalConfig('s', 0, config.get());
    config->port = 4444;
    config->areas[0].edgeAdjust[1] = -7;
    ASSERT_EQ(Ctl().SetDeviceConfig(config.get()), DE_OK);
    EXPECT_EQ(Ctl().ProgressTotal(), static_cast<uint32_t>(EncodeDevConfig(config.get(), nullptr)));
    auto back = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(back.get()), DE_OK);
    EXPECT_EQ(back->port, 4444);
    EXPECT_EQ(back->areas[0].edgeAdjust[1], -7);
    EXPECT_EQ(Ctl().SetDeviceConfig(nullptr), DE_NULLPTR);

    _HARDWARE_CONFIG_OVERRIDE override{};
    override.flags = 0x800;
    override.value0 = 1234;
    ASSERT_EQ(Ctl().SetDeviceConfigOverride(&override), DE_OK);
    TEmuWrite write{};
    ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_CONFIG_OVERRIDE, &write));
    ASSERT_EQ(write.data.size(), 18u);
    EXPECT_EQ(write.data[0], 18);
    EXPECT_EQ(write.data[2], 0xB2);
    EXPECT_EQ(write.data[6] | write.data[7] << 8, 1234);
    EXPECT_EQ(Ctl().SetDeviceConfigOverride(nullptr), DE_NULLPTR);
}

// Verify the touch-system file: below 1024 bytes refused before any device access.
TEST_F(HidController, SetTouchSystemFile) {
    std::vector<uint8_t> file(1023, 0x11);
    EXPECT_EQ(Ctl().SetTouchSystemFile(file.data(), 1023), DE_BAD_PARAM);
    EXPECT_EQ(Emu().RequestCount(), 0u);
    file.resize(1030, 0x22);
    ASSERT_EQ(Ctl().SetTouchSystemFile(file.data(), 1030), DE_OK);
    TEmuWrite write{};
    ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_TOUCH_SYSTEM, &write));
    EXPECT_EQ(write.data, file);
    EXPECT_EQ(write.pieces, 18u);  // 17 full pieces and one of 44 bytes
}

// Verify the raw frame read: the header answer, then the data in pieces up to the end marker.
TEST_F(HidController, GetFrameData) {
    std::vector<uint8_t> storage(256, 0);
    _HARDWARE_FRAME_DATA raw = RawFrame(storage, 256);
    ASSERT_EQ(Ctl().GetFrameData(&raw), DE_OK);
    EXPECT_EQ(raw.frameNo, 1u);
    EXPECT_EQ(raw.header1[0], 1);
    EXPECT_EQ(raw.header2[7], 16);
    EXPECT_EQ(raw.dataBytes, 100);
    EXPECT_EQ(raw.data, storage.data());
    for (int i = 0; i < 100; ++i) ASSERT_EQ(storage[i], i);
    const std::vector<TEmuRequest> r = RequestsOf(Emu(), MTDEV_CMD_FRAME_DATA);
    ASSERT_EQ(r.size(), 4u);  // header, pieces 0 and 1, end
    EXPECT_EQ(r[0].parameter, MTDEV_SIZE_QUERY);
    EXPECT_EQ(r[1].parameter, 0u);
    EXPECT_EQ(r[3].parameter, 2u);
}

struct TRawCase {
    const char* name;
    uint16_t capacity;
    TEmuFault fault;
    bool withFault;
    DEV_ERR expected;
};

class GetFrameDataCase : public HidController, public ::testing::WithParamInterface<TRawCase> {};

// Verify the raw frame read's failures, with nothing written beyond the capacity.
TEST_P(GetFrameDataCase, YieldsCode) {
    const TRawCase& c = GetParam();
    if (c.withFault) Emu().InjectFault(c.fault);
    std::vector<uint8_t> storage(c.capacity + 1u, 0xEE);
    _HARDWARE_FRAME_DATA raw = RawFrame(storage, c.capacity);
    EXPECT_EQ(Ctl().GetFrameData(&raw), c.expected);
    EXPECT_LE(raw.dataBytes, c.capacity);
    EXPECT_EQ(storage[c.capacity], 0xEE) << "nothing written beyond the capacity";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GetFrameDataCase,
    ::testing::Values(
        TRawCase{"TooSmall", 60, {}, false, DE_BAD_DATA_SIZE},
        TRawCase{"HeaderWrongCode", 256, {K::WrongCode}, true, DE_ERROR},
        TRawCase{"HeaderDropped", 256, {K::DropReply}, true, DE_ERROR},
        TRawCase{"HeaderWithoutMark", 256, {K::ShortReply, 0, S::Any, 0, 1}, true, DE_BAD_VERSION},
        TRawCase{"PieceDropped", 256, {K::DropReply, 0, S::Any, 1}, true, DE_DEV_READ},
        TRawCase{"DeviceGoneMidway", 256, {K::Vanish, 0, S::Any, 2}, true, DE_DEV_READ},
        // A garbage answer is ignored: the piece it stood for is lost, the rest comes.
        TRawCase{"GarbageIgnored", 256, {K::Garbage, 0, S::Any, 1}, true, DE_OK},
        TRawCase{"EndWrongCode", 256, {K::WrongCode, 0, S::Any, 3}, true, DE_ERROR}),
    [](const ::testing::TestParamInfo<TRawCase>& info) { return info.param.name; });

// Verify ReadDate prints the report on standard output, a full report without a zero byte up
// to its end and not beyond; and the cache stubs, which send nothing.
TEST_F(HidController, ReadDateAndCacheStubs) {
    CLogCapture log;
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o', 0, 'x'};
    ASSERT_TRUE(m_rig->link.SendReport(hello, sizeof hello));
    std::array<uint8_t, 64> buffer{};
    EXPECT_EQ(Ctl().ReadDate(buffer.data()), DE_OK);
    EXPECT_EQ(log.Lines(TLogChannel::Stdout), (std::vector<std::string>{"package:hello"}));
    std::array<uint8_t, 64> full;
    full.fill('a');
    ASSERT_TRUE(m_rig->link.SendReport(full.data(), full.size()));
    std::array<uint8_t, 80> wide;
    wide.fill('b');
    EXPECT_EQ(Ctl().ReadDate(wide.data()), DE_OK);
    EXPECT_EQ(log.Lines(TLogChannel::Stdout).back(), "package:" + std::string(64, 'a'));
    EXPECT_EQ(Ctl().ReadDate(nullptr), DE_NULLPTR);

    const size_t before = Emu().RequestCount();
    EXPECT_EQ(Ctl().GetDeviceCache(), 1u);
    EXPECT_EQ(Ctl().SetDeviceCache(), 2u);
    EXPECT_EQ(Ctl().ClearCache(), DE_OK);
    Ctl().ClearHiSpeedCache();
    Ctl().ClearLoSpeedCache();
    EXPECT_EQ(Emu().RequestCount(), before);
}

// ---------------------------------------------------------------------------------------------
// The hi-speed dialect through the in-process bulk port

uint64_t NowMicros() {
    return TGetClock().MonotonicNanos() / 1000u;
}

class BulkController : public ::testing::Test {
protected:
    // The device's own time-outs, on a virtual clock: every pause and every wait for an answer
    // that does not come costs nothing and reads exactly.
    TVirtualClock m_clock{0};
    TScopedClock m_scoped{m_clock};

    void SetUp() override {
        m_rig = std::make_unique<TRecordedBulkRig>();
        m_ctl = std::make_unique<CMtDevController>();
        ASSERT_EQ(m_ctl->OpenDevice(&m_rig->path), DE_OK);
        ASSERT_EQ(m_ctl->DeviceType(), MTDEV_TYPE_BULK);
        m_openedAtMicros = NowMicros();
        Rec().Clear();
        m_rig->service.ClearCalls();
    }
    void TearDown() override {
        m_ctl.reset();
        EXPECT_EQ(m_rig->service.OpenInterfaces(), 0) << "an interface was left open";
        EXPECT_EQ(m_rig->service.LiveObjects(), 0) << "a port object was left alive";
    }
    CMtDevEmulator& Emu() { return m_rig->emulator; }
    CMtDevController& Ctl() { return *m_ctl; }
    CRecordingUsbService& Rec() { return m_rig->recorder; }
    std::vector<std::string> Calls() const { return m_rig->service.Calls(); }

    std::unique_ptr<TRecordedBulkRig> m_rig;
    std::unique_ptr<CMtDevController> m_ctl;
    uint64_t m_openedAtMicros = 0;
};

// Verify that opening over bulk gives the device 1 s to settle after the interface was found,
// that a path without a service or a device that will not open gives 1, and that the frame
// poll is refused with 12 without touching the device or the record.
TEST_F(BulkController, OpenDeviceSettlesFailuresAndNoFramePoll) {
    EXPECT_EQ(m_openedAtMicros, 1000000u);
    EXPECT_TRUE(Ctl().Communicator().IsBulkOpen());
    CMtDevController other;
    TMACDEVICEPATH noService{nullptr, nullptr, MTDEV_TYPE_BULK};
    EXPECT_EQ(other.OpenDevice(&noService), DE_ERROR);
    TEmuUsbLayout refusing = TEmuUsbLayout::Default();
    refusing.deviceOpenFails = true;
    TRecordedBulkRig closed(refusing);
    EXPECT_EQ(other.OpenDevice(&closed.path), DE_ERROR);
    EXPECT_FALSE(other.Communicator().IsBulkOpen());
    EXPECT_EQ(closed.service.LiveObjects(), 0);

    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_BAD_USB_MODE);
    EXPECT_EQ(Ctl().GetFrameSdk(nullptr), DE_BAD_USB_MODE);
    EXPECT_EQ(f.frame.points, nullptr);
    EXPECT_TRUE(Calls().empty());
    EXPECT_EQ(Emu().RequestCount(), 0u);
}

struct THiReadCase {
    const char* name;
    size_t held;                       // bytes the device holds
    int asked;                         // the length asked for
    int expectedLength;
    std::vector<uint32_t> parameters;  // of the read requests, in order
};

class HiSpeedRead : public BulkController, public ::testing::WithParamInterface<THiReadCase> {};

// Verify that the hi-speed read asks for blocks of 65536 with parameter i, then for the rest
// with (rest << 16) | blocks and reads it 300 ms later; that a short block ends the read and
// counts as full; and that the data lands in place with nothing written past what came.
TEST_P(HiSpeedRead, RequestsBlocksThenRest) {
    const THiReadCase& c = GetParam();
    const std::vector<uint8_t> held = Pattern(c.held, 7);
    Emu().SetStatus(held);
    std::vector<uint8_t> buffer(static_cast<size_t>(c.asked) + 16, 0xEE);
    int length = c.asked;
    ASSERT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_OK);
    EXPECT_EQ(length, c.expectedLength);
    const auto came = static_cast<std::ptrdiff_t>(std::min(c.held, static_cast<size_t>(c.asked)));
    EXPECT_TRUE(std::equal(held.begin(), held.begin() + came, buffer.begin()));
    EXPECT_EQ(std::count(buffer.begin() + came, buffer.end(), 0xEE),
              static_cast<std::ptrdiff_t>(buffer.size()) - came);

    const std::vector<TBulkTransfer>& t = Rec().Transfers();
    ASSERT_EQ(t.size(), 2 * c.parameters.size());
    for (size_t k = 0; k < c.parameters.size(); ++k) {
        SCOPED_TRACE(k);
        const uint32_t p = c.parameters[k];
        const bool rest = (p >> 16) != 0;
        ExpectHiPacket(t[2 * k], MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS, p);
        const TBulkTransfer& read = t[2 * k + 1];
        ASSERT_FALSE(read.write);
        EXPECT_EQ(read.pipe, 1);
        EXPECT_EQ(read.size, rest ? p >> 16 : 65536u);
        EXPECT_EQ(read.noDataTimeoutMs, 1000u);
        EXPECT_EQ(read.completionTimeoutMs, 1000u);
        EXPECT_EQ(read.startMicros - t[2 * k].endMicros, rest ? 300000u : 0u);
    }
    EXPECT_EQ(Ctl().ProgressTotal(), static_cast<uint32_t>(c.asked));
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HiSpeedRead,
    ::testing::Values(
        THiReadCase{"OneBlockAndRest", 70000, 70000, 70000, {0, 0x11700001}},
        THiReadCase{"ShortFirstBlockCountsAsFull", 1000, 70000, 65536, {0}},
        THiReadCase{"WholeBlocksOnly", 131072, 131072, 131072, {0, 1}},
        THiReadCase{"RestOnly", 100, 100, 100, {0x00640000}},
        THiReadCase{"RestShorterThanAsked", 50, 100, 50, {0x00640000}}),
    [](const ::testing::TestParamInfo<THiReadCase>& info) { return info.param.name; });

// Verify that the hi-speed size query sends parameter 0xFFFFFFFF and reads up to 1024 bytes at
// once, the size being how many bytes answered whatever they hold; an answer that never comes
// gives 4 after the 1000 ms time-out and is not retried.
TEST_F(BulkController, SizeQueryCountsTheAnswersBytes) {
    // Bytes that a lo-speed reader would take for a size answer of 256.
    const std::vector<uint8_t> loLike = {0x06, 0xE6, 0x00, 0x01, 0x00, 0x00};
    const std::pair<size_t, int> cases[] = {{0, 0}, {6, 6}, {5000, 1024}};
    for (const auto& [held, size] : cases) {
        SCOPED_TRACE(held);
        std::vector<uint8_t> status(held, 0x55);
        std::copy_n(loLike.begin(), std::min(held, loLike.size()), status.begin());
        Emu().SetStatus(status);
        Rec().Clear();
        int length = -1;
        ASSERT_EQ(Ctl().GetHiSpeed(MTDEV_CMD_DEV_STATUS, nullptr, length), DE_OK);
        EXPECT_EQ(length, size);
        const std::vector<TBulkTransfer>& t = Rec().Transfers();
        ASSERT_EQ(t.size(), 2u);
        ExpectHiPacket(t[0], MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS, MTDEV_SIZE_QUERY);
        EXPECT_EQ(t[1].size, 1024u);
        EXPECT_EQ(t[1].completionTimeoutMs, 1000u);
        EXPECT_EQ(t[1].startMicros, t[0].endMicros) << "no pause before the answer";
    }
    Emu().InjectFault({K::DropReply});
    m_rig->service.ClearCalls();
    const uint64_t before = NowMicros();
    int length = 77;
    EXPECT_EQ(Ctl().GetHiSpeed(MTDEV_CMD_DEV_STATUS, nullptr, length), DE_DEV_READ);
    EXPECT_EQ(length, 77);
    EXPECT_EQ(NowMicros() - before, 1000000u);
    EXPECT_EQ(Calls(), (std::vector<std::string>{"WritePipeTO 2", "ReadPipeTO 1", "GetPipeStatus 1"}));
}

struct THiWriteCase {
    const char* name;
    int length;
    std::vector<uint32_t> dataWrites;  // sizes of the data writes
};

class HiSpeedWrite : public BulkController, public ::testing::WithParamInterface<THiWriteCase> {};

// Verify that the hi-speed write announces the length, reads the 2-byte acknowledgement with
// 4000 ms, sends the data 200 ms later rounded up to a multiple of 64 in writes of at most
// 65536 bytes (10000 ms each), padded with zeros rather than what lies past the caller's
// length, then end of data with 0x444F45 and its acknowledgement read with 5000 ms.
TEST_P(HiSpeedWrite, AnnouncesPadsAndEnds) {
    const THiWriteCase& c = GetParam();
    const size_t length = static_cast<size_t>(c.length);
    const auto data = static_cast<std::ptrdiff_t>(length);
    // The caller's memory goes on past the length with bytes that are not data.
    std::vector<uint8_t> memory = Pattern(length, 13);
    memory.resize(length + 200, 0xEE);
    ASSERT_EQ(Ctl().SetScanPatternFile(memory.data(), c.length), DE_OK);

    const std::vector<TBulkTransfer>& t = Rec().Transfers();
    ASSERT_EQ(t.size(), 4 + c.dataWrites.size());
    ExpectHiPacket(t[0], MTDEV_PACKET_WRITE, MTDEV_CMD_SCAN_PATTERN, static_cast<uint32_t>(length));
    EXPECT_FALSE(t[1].write);
    EXPECT_EQ(t[1].bytes, (std::vector<uint8_t>{0xE4, 0x04}));
    EXPECT_EQ(t[1].noDataTimeoutMs, 4000u);
    EXPECT_EQ(t[1].completionTimeoutMs, 4000u);
    EXPECT_EQ(t[2].startMicros - t[1].endMicros, 200000u);
    std::vector<uint8_t> sent;
    for (size_t k = 0; k < c.dataWrites.size(); ++k) {
        SCOPED_TRACE(k);
        const TBulkTransfer& d = t[2 + k];
        EXPECT_TRUE(d.write);
        EXPECT_EQ(d.pipe, 2);
        EXPECT_EQ(d.size, c.dataWrites[k]);
        EXPECT_EQ(d.noDataTimeoutMs, 10000u);
        EXPECT_EQ(d.completionTimeoutMs, 10000u);
        sent.insert(sent.end(), d.bytes.begin(), d.bytes.end());
    }
    std::vector<uint8_t> expected(memory.begin(), memory.begin() + data);
    expected.resize((length + 63) / 64 * 64, 0x00);
    EXPECT_EQ(sent, expected);
    ExpectHiPacket(t[t.size() - 2], MTDEV_PACKET_END, MTDEV_CMD_SCAN_PATTERN, MTDEV_EOD_PARAMETER);
    EXPECT_FALSE(t.back().write);
    EXPECT_EQ(t.back().bytes, (std::vector<uint8_t>{0xE7, 0x00}));
    EXPECT_EQ(t.back().completionTimeoutMs, 5000u);

    TEmuWrite write{};
    ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_SCAN_PATTERN, &write));
    EXPECT_TRUE(write.hiSpeed);
    EXPECT_EQ(write.announced, length);
    EXPECT_EQ(write.bytesReceived, expected.size());
    EXPECT_EQ(write.data, std::vector<uint8_t>(memory.begin(), memory.begin() + data));
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, HiSpeedWrite,
    ::testing::Values(THiWriteCase{"Hundred", 100, {128}},
                      THiWriteCase{"MultipleOf64", 128, {128}},
                      THiWriteCase{"Empty", 0, {}},
                      THiWriteCase{"OverOneBlock", 65536 + 100, {65536, 128}}),
    [](const ::testing::TestParamInfo<THiWriteCase>& info) { return info.param.name; });

// Verify that a hi-speed write without data is refused with 6 before anything is sent, even
// for a length of 0 (the lo-speed write lets that through).
TEST_F(BulkController, WriteWithoutDataIsRefused) {
    EXPECT_EQ(Ctl().SetHiSpeed(MTDEV_CMD_DEV_INFO, nullptr, 0), DE_NULLPTR);
    EXPECT_EQ(Ctl().SetScanPatternFile(nullptr, 10), DE_NULLPTR);
    EXPECT_TRUE(Rec().Transfers().empty());
}

struct THiWriteFault {
    const char* name;
    TEmuFault fault;
    DEV_ERR expected;
    bool stored;          // the device took the data
    uint64_t lastWaitMs;  // the last transfer's wait on the virtual clock
};

class HiSpeedWriteFault : public BulkController,
                          public ::testing::WithParamInterface<THiWriteFault> {};

// Verify that each fault of a hi-speed write yields the code of the step it hit, that a lost or
// late acknowledgement is waited for exactly its time-out, whether the device kept the data,
// and that a firmware status s at the end gives 1000 + s.
TEST_P(HiSpeedWriteFault, YieldsCode) {
    const THiWriteFault& c = GetParam();
    Emu().InjectFault(c.fault);
    _HARDWARE_DEV_INFO info{};
    for (int i = 0; i < MTDEV_DEV_INFO_BYTES; ++i) info.bytes[i] = static_cast<uint8_t>(i + 1);
    EXPECT_EQ(Ctl().SetDeviceInfo(&info), c.expected);
    ASSERT_FALSE(Rec().Transfers().empty());
    const TBulkTransfer& last = Rec().Transfers().back();
    EXPECT_EQ(last.endMicros - last.startMicros, c.lastWaitMs * 1000u);
    TEmuWrite write{};
    EXPECT_EQ(Emu().LastWrite(MTDEV_CMD_DEV_INFO, &write), c.stored);
    if (c.stored) {
        EXPECT_EQ(write.data, std::vector<uint8_t>(info.bytes, info.bytes + MTDEV_DEV_INFO_BYTES));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, HiSpeedWriteFault,
    ::testing::Values(
        THiWriteFault{"RequestAckWrongCode", {K::WrongCode, 0, S::Request}, DE_ERROR, false, 0},
        THiWriteFault{"RequestAckGarbage", {K::Garbage, 0, S::Request}, DE_ERROR, false, 0},
        THiWriteFault{"RequestRefused", {K::RefuseWrite, 0, S::Request}, DE_DEV_FLASH, false, 0},
        THiWriteFault{"RequestAckOneByte", {K::ShortReply, 0, S::Request, 0, 1}, DE_DEV_READ, false, 0},
        THiWriteFault{"RequestAckLost", {K::DropReply, 0, S::Request}, DE_DEV_READ, false, 4000},
        THiWriteFault{"RequestAckLateWithinTimeOut", {K::LateReply, 0, S::Request, 0, 4000}, DE_OK, true, 0},
        THiWriteFault{"RequestAckTooLate", {K::LateReply, 0, S::Request, 0, 4001}, DE_DEV_READ, false, 4000},
        THiWriteFault{"RequestAckInStalledOnce", {K::StallPipe, 0, S::Request, 0, 0, 1}, DE_OK, true, 0},
        THiWriteFault{"VanishedAtRequest", {K::Vanish, 0, S::Request}, DE_DEV_READ, false, 0},
        THiWriteFault{"VanishedAtData", {K::Vanish, 0, S::Data}, DE_DEV_WRITE, false, 0},
        THiWriteFault{"DataOutStalledOnce", {K::StallPipe, 0, S::Data, 0, 1, 1}, DE_OK, true, 0},
        THiWriteFault{"DataOutStalledTwice", {K::StallPipe, 0, S::Data, 0, 1, 2}, DE_DEV_WRITE, false, 0},
        THiWriteFault{"EndAckWrongCode", {K::WrongCode, 0, S::End}, DE_ERROR, true, 0},
        THiWriteFault{"EndAckOneByte", {K::ShortReply, 0, S::End, 0, 1}, DE_DEV_READ, true, 0},
        THiWriteFault{"EndAckLost", {K::DropReply, 0, S::End}, DE_DEV_READ, true, 5000},
        THiWriteFault{"EndAckLateWithinTimeOut", {K::LateReply, 0, S::End, 0, 5000}, DE_OK, true, 5000},
        THiWriteFault{"EndAckTooLate", {K::LateReply, 0, S::End, 0, 5001}, DE_DEV_READ, true, 5000},
        THiWriteFault{"VanishedAtEnd", {K::Vanish, 0, S::End}, DE_DEV_READ, false, 0},
        THiWriteFault{"FirmwareStatus1", {K::FirmwareStatus, 0, S::End, 0, 1}, 1001, false, 0},
        THiWriteFault{"FirmwareStatus255", {K::FirmwareStatus, 0, S::End, 0, 255}, 1255, false, 0}),
    [](const ::testing::TestParamInfo<THiWriteFault>& info) { return info.param.name; });

// Verify that a device vanishing in the middle of a read gives the read error, and after that
// every write gives the write error.
TEST_F(BulkController, VanishedDeviceGivesReadThenWriteErrors) {
    Emu().SetStatus(Pattern(3 * 65536, 3));
    Emu().InjectFault({K::Vanish, MTDEV_CMD_DEV_STATUS, S::Request, 1});
    std::vector<uint8_t> buffer(3 * 65536);
    int length = static_cast<int>(buffer.size());
    EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_DEV_READ);
    EXPECT_EQ(RequestsOf(Emu(), MTDEV_CMD_DEV_STATUS).size(), 2u) << "block 1's request went out";
    EXPECT_EQ(Rec().Transfers().back().result, kMtUsbNotResponding);
    EXPECT_EQ(Ctl().CmdProcess(0), DE_DEV_WRITE);
    EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_DEV_WRITE);
    _HARDWARE_DEV_INFO info{};
    EXPECT_EQ(Ctl().SetDeviceInfo(&info), DE_DEV_WRITE);
}

// Verify that the close command over bulk is a 28-byte type-17 packet with 0xAF and the mode's
// parameter and nothing is read back; that mode 255 sends nothing; and that every close
// releases the interface and forgets the device, even when the device is gone.
TEST_F(BulkController, CloseDeviceModes) {
    for (const auto& [mode, parameter] : kCloseModes) {
        SCOPED_TRACE(static_cast<int>(mode));
        if (Ctl().DeviceType() == MTDEV_TYPE_NONE) {
            ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
        }
        Rec().Clear();
        EXPECT_EQ(Ctl().CloseDevice(mode), DE_OK);
        ASSERT_EQ(Rec().Transfers().size(), 1u);
        ExpectHiPacket(Rec().Transfers()[0], MTDEV_PACKET_COMMAND, MTDEV_CMD_CLOSE, parameter);
        EXPECT_EQ(Ctl().DeviceType(), MTDEV_TYPE_NONE);
        EXPECT_FALSE(Ctl().Communicator().IsBulkOpen());
        EXPECT_EQ(m_rig->service.OpenInterfaces(), 0);
    }
    ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
    Rec().Clear();
    EXPECT_EQ(Ctl().CloseDevice(MTDEV_CLOSE_SILENT), DE_OK);
    EXPECT_TRUE(Rec().Transfers().empty());
    EXPECT_FALSE(Ctl().Communicator().IsBulkOpen());
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    EXPECT_EQ(Ctl().GetDeviceConfig(config.get()), DE_DEV_NOT_OPENED);

    ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
    Emu().InjectFault({K::Vanish});
    ASSERT_EQ(Ctl().CmdProtect(1), DE_OK);  // accepted, then the device is gone
    Rec().Clear();
    EXPECT_EQ(Ctl().CloseDevice(0), DE_OK);
    ASSERT_EQ(Rec().Transfers().size(), 2u) << "the close command, retried once";
    EXPECT_EQ(Rec().Transfers()[1].result, kMtUsbNotResponding);
    EXPECT_EQ(Ctl().DeviceType(), MTDEV_TYPE_NONE);
    EXPECT_EQ(m_rig->service.OpenInterfaces(), 0);
}

// Verify that the plain commands over bulk are one 28-byte type-17 packet each, 0xA0 with
// (mode & 7) | 8 and 0xA9 with the value unchanged, with nothing read back; a packet the OUT
// pipe refuses twice gives 5.
TEST_F(BulkController, ProcessAndProtectCommands) {
    const std::pair<uint8_t, uint32_t> modes[] = {{0, 8}, {7, 15}, {0x0D, 13}, {0xFF, 15}};
    for (const auto& [mode, parameter] : modes) {
        SCOPED_TRACE(static_cast<int>(mode));
        Rec().Clear();
        EXPECT_EQ(Ctl().CmdProcess(mode), DE_OK);
        ASSERT_EQ(Rec().Transfers().size(), 1u);
        ExpectHiPacket(Rec().Transfers()[0], MTDEV_PACKET_COMMAND, MTDEV_CMD_PROCESS, parameter);
    }
    Rec().Clear();
    EXPECT_EQ(Ctl().CmdProtect(0xDEADBEEF), DE_OK);
    ASSERT_EQ(Rec().Transfers().size(), 1u);
    ExpectHiPacket(Rec().Transfers()[0], MTDEV_PACKET_COMMAND, MTDEV_CMD_PROTECT, 0xDEADBEEF);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    Emu().InjectFault({K::StallPipe, MTDEV_CMD_PROCESS, S::Any, 0, 1, 2});
    EXPECT_EQ(Ctl().CmdProcess(3), DE_DEV_WRITE);
    EXPECT_EQ(Ctl().CmdProcess(3), DE_OK) << "the stalls are used up";
}

// Verify that the raw frame read over bulk sends the hand-built 28-byte request (parameter
// bytes zero, command at 27, the caller's capacity, "{", mode and headers), reads once up to the
// capacity with 1000 ms, and takes the fields from the device's 32-byte head.
TEST_F(BulkController, GetFrameDataRequestAndHead) {
    TEmuRawFrame frame;
    frame.frameNo = 0x01020304;
    frame.frameMode = 5;
    frame.header1 = {11, 12, 13, 14, 15, 16, 17, 18};
    frame.header2 = {21, 22, 23, 24, 25, 26, 27, 28};
    frame.data = Pattern(100, 5);
    Emu().SetRawFrame(frame);
    std::vector<uint8_t> storage(300, 0xEE);
    _HARDWARE_FRAME_DATA raw = RawFrame(storage, 256);
    raw.frameMode = 3;
    for (int i = 0; i < 8; ++i) {
        raw.header1[i] = static_cast<uint8_t>(0xA0 + i);
        raw.header2[i] = static_cast<uint8_t>(0xB0 + i);
    }
    ASSERT_EQ(Ctl().GetFrameData(&raw), DE_OK);

    const std::vector<TBulkTransfer>& t = Rec().Transfers();
    ASSERT_EQ(t.size(), 2u);
    const std::vector<uint8_t> request = {
        37,   0,    0,    0,    0,    27,   0x00, 0x01, 0x7B, 3,    0xA0, 0xA1, 0xA2, 0xA3,
        0xA4, 0xA5, 0xA6, 0xA7, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6, 0xB7, 0,    0xB4};
    EXPECT_EQ(t[0].bytes, request);
    EXPECT_EQ(t[1].size, 256u);
    EXPECT_EQ(t[1].completionTimeoutMs, 1000u);
    EXPECT_EQ(t[1].bytes.size(), 132u);

    EXPECT_EQ(raw.frameNo, 0x01020304u);
    EXPECT_EQ(raw.frameMode, 5);
    EXPECT_TRUE(std::equal(frame.header1.begin(), frame.header1.end(), raw.header1));
    EXPECT_TRUE(std::equal(frame.header2.begin(), frame.header2.end(), raw.header2));
    EXPECT_EQ(raw.dataBytes, 100);
    EXPECT_EQ(raw.data, storage.data() + 32);
    EXPECT_TRUE(std::equal(frame.data.begin(), frame.data.end(), storage.begin() + 32));
    EXPECT_EQ(std::count(storage.begin() + 132, storage.end(), 0xEE), 300 - 132);
    EXPECT_EQ(Ctl().ProgressTotal(), 256u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
}

struct TBulkRawCase {
    const char* name;
    uint16_t capacity;
    size_t frameBytes;  // data bytes behind the device's head
    bool withFault;
    TEmuFault fault;
    DEV_ERR expected;
    uint16_t dataBytes;  // when read
};

class BulkGetFrameData : public BulkController, public ::testing::WithParamInterface<TBulkRawCase> {};

// Verify that the raw frame read over bulk gives 13 for fewer than 2 bytes, 11 for fewer than
// 33 or no "{", 4 for a failed read, 5 for a failed request; that its data bytes are the smaller
// of the head's count and what came after the head; and that nothing lands past the capacity.
TEST_P(BulkGetFrameData, YieldsCode) {
    const TBulkRawCase& c = GetParam();
    TEmuRawFrame frame;
    frame.data = Pattern(c.frameBytes, 9);
    Emu().SetRawFrame(frame);
    if (c.withFault) Emu().InjectFault(c.fault);
    std::vector<uint8_t> storage(c.capacity + 1u, 0xEE);
    _HARDWARE_FRAME_DATA raw = RawFrame(storage, c.capacity);
    EXPECT_EQ(Ctl().GetFrameData(&raw), c.expected);
    EXPECT_EQ(storage[c.capacity], 0xEE) << "nothing written beyond the capacity";
    const std::vector<TBulkTransfer> reads = Rec().Reads();
    if (!reads.empty()) {
        EXPECT_EQ(reads.back().size, c.capacity);
    }
    if (c.expected == DE_OK) {
        EXPECT_EQ(raw.dataBytes, c.dataBytes);
        EXPECT_EQ(raw.data, storage.data() + 32);
        EXPECT_TRUE(std::equal(frame.data.begin(), frame.data.begin() + raw.dataBytes,
                               storage.begin() + 32));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BulkGetFrameData,
    ::testing::Values(
        TBulkRawCase{"Whole", 256, 100, false, {}, DE_OK, 100},
        TBulkRawCase{"HeadAndOneByte", 33, 100, false, {}, DE_OK, 1},
        TBulkRawCase{"HeadOnly", 32, 100, false, {}, DE_BAD_VERSION, 0},
        TBulkRawCase{"TwoBytes", 2, 100, false, {}, DE_BAD_VERSION, 0},
        TBulkRawCase{"OneByte", 1, 100, false, {}, DE_BAD_DATA_SIZE, 0},
        // The head's 16-bit count wraps: 65546 data bytes claim 10.
        TBulkRawCase{"HeadClaimsLessThanCame", 65535, 65546, false, {}, DE_OK, 10},
        TBulkRawCase{"AnswerCut", 256, 100, true, {K::ShortReply, 0, S::Any, 0, 40}, DE_OK, 8},
        TBulkRawCase{"AnswerOneByte", 256, 100, true, {K::ShortReply, 0, S::Any, 0, 1}, DE_BAD_DATA_SIZE, 0},
        TBulkRawCase{"AnswerLost", 256, 100, true, {K::DropReply}, DE_DEV_READ, 0},
        TBulkRawCase{"AnswerGarbage", 256, 100, true, {K::Garbage}, DE_BAD_VERSION, 0},
        TBulkRawCase{"AnswerWithoutMark", 256, 100, true, {K::WrongCode}, DE_BAD_VERSION, 0},
        TBulkRawCase{"Vanished", 256, 100, true, {K::Vanish}, DE_DEV_READ, 0},
        TBulkRawCase{"InStalledOnce", 256, 100, true, {K::StallPipe, 0, S::Any, 0, 0, 1}, DE_OK, 100},
        TBulkRawCase{"OutStalledTwice", 256, 100, true, {K::StallPipe, 0, S::Any, 0, 1, 2}, DE_DEV_WRITE, 0}),
    [](const ::testing::TestParamInfo<TBulkRawCase>& info) { return info.param.name; });

// Verify that an abort between two blocks of a read, or before its rest, ends it with 1 before
// the next request goes out, the progress showing the block that came; that the flag stays set
// until the next operation; and that the size query does not look at it.
TEST_F(BulkController, AbortBetweenReadBlocks) {
    const std::pair<int, int> cases[] = {{3 * 65536 + 10, 33}, {70000, 93}};
    for (const auto& [asked, percent] : cases) {
        SCOPED_TRACE(asked);
        Emu().SetStatus(Pattern(static_cast<size_t>(asked), 3));
        Rec().Clear();
        Rec().SetHook([this](const TBulkTransfer& t) {
            if (!t.write) Ctl().BreakOffCmdProcess();
        });
        std::vector<uint8_t> buffer(static_cast<size_t>(asked));
        int length = asked;
        EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_ERROR);
        Rec().SetHook(nullptr);
        ASSERT_EQ(Rec().Transfers().size(), 2u) << "block 0's request and read only";
        ExpectHiPacket(Rec().Transfers()[0], MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS, 0);
        EXPECT_EQ(Ctl().ProgressDone(), 65536u);
        EXPECT_EQ(Ctl().GetCmdProcess(), percent);
        EXPECT_EQ(Ctl().AbortFlag(), 0xFF);
    }
    Rec().Clear();
    int length = 8;
    std::array<uint8_t, 8> buffer{};
    EXPECT_EQ(Ctl().GetHiSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), length), DE_ERROR);
    EXPECT_TRUE(Rec().Transfers().empty()) << "the flag stays set until the next operation";
    EXPECT_EQ(Ctl().GetHiSpeed(MTDEV_CMD_DEV_STATUS, nullptr, length), DE_OK);
}

// Verify that an abort between two data writes ends the write with 1: no more data and no end
// of data, so the device keeps nothing.
TEST_F(BulkController, AbortBetweenDataWrites) {
    std::vector<uint8_t> file = Pattern(3 * 65536, 11);
    Rec().SetHook([this](const TBulkTransfer& t) {
        if (t.write && t.size == 65536) Ctl().BreakOffCmdProcess();
    });
    EXPECT_EQ(Ctl().SetTouchSystemFile(file.data(), static_cast<int>(file.size())), DE_ERROR);
    Rec().SetHook(nullptr);
    ASSERT_EQ(Rec().Transfers().size(), 3u) << "the request, its acknowledgement and one data write";
    ExpectHiPacket(Rec().Transfers()[0], MTDEV_PACKET_WRITE, MTDEV_CMD_TOUCH_SYSTEM, 3 * 65536);
    EXPECT_EQ(Rec().Transfers()[2].size, 65536u);
    EXPECT_FALSE(Emu().LastWrite(MTDEV_CMD_TOUCH_SYSTEM, nullptr));
    EXPECT_EQ(Ctl().ProgressDone(), 65536u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 33);
}

// Verify that the abort flag is looked at only before data: a write begun with the flag set
// still sends its request and reads the acknowledgement, then ends with 1.
TEST_F(BulkController, AbortFlagIsCheckedBeforeDataOnly) {
    Ctl().BreakOffCmdProcess();
    std::array<uint8_t, 43> data{};
    EXPECT_EQ(Ctl().SetHiSpeed(MTDEV_CMD_DEV_INFO, data.data(), 43), DE_ERROR);
    const std::vector<TBulkTransfer>& t = Rec().Transfers();
    ASSERT_EQ(t.size(), 2u);
    ExpectHiPacket(t[0], MTDEV_PACKET_WRITE, MTDEV_CMD_DEV_INFO, 43);
    EXPECT_EQ(t[1].bytes, (std::vector<uint8_t>{0xE4, 0x04}));
    EXPECT_FALSE(Emu().LastWrite(MTDEV_CMD_DEV_INFO, nullptr));
}

// Verify that the configuration read clears an abort that came during its head: the block is
// still read.
TEST_F(BulkController, GetDeviceConfigClearsAbortAfterItsHead) {
    Rec().SetHook([this](const TBulkTransfer& t) {
        if (!t.write && t.size == 4) Ctl().BreakOffCmdProcess();
    });
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    EXPECT_EQ(Ctl().GetDeviceConfig(config.get()), DE_OK);
    Rec().SetHook(nullptr);
    EXPECT_EQ(Rec().Transfers().size(), 4u);
    EXPECT_EQ(+config->port, 3333);
}

// Verify that a full configuration block read over bulk, a 4-byte head and then the block each
// read as a rest 300 ms after its request, decodes to the block's record.
TEST_F(BulkController, GetDeviceConfigReadsHeadThenBlock) {
    auto source = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig('s', 0, source.get());
    DefaultDevCalConfig('s', 0, source.get());
    source->port = 4321;
    source->areaCount = 8;
    for (int i = 0; i < 8; ++i) source->areas[i] = cfgtest::SampleArea(static_cast<uint8_t>(i + 1));
    std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(source.get(), nullptr)));
    EncodeDevConfig(source.get(), block.data());
    ASSERT_GT(block.size(), 500u);
    Emu().SetConfigBlock(block);

    auto overBulk = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(overBulk.get()), DE_OK);
    const std::vector<TBulkTransfer>& t = Rec().Transfers();
    ASSERT_EQ(t.size(), 4u);
    const uint32_t size = static_cast<uint32_t>(block.size());
    ExpectHiPacket(t[0], MTDEV_PACKET_READ, MTDEV_CMD_DEV_CONFIG, 4u << 16);
    EXPECT_EQ(t[1].size, 4u);
    EXPECT_EQ(t[1].startMicros - t[0].endMicros, 300000u);
    ExpectHiPacket(t[2], MTDEV_PACKET_READ, MTDEV_CMD_DEV_CONFIG, size << 16);
    EXPECT_EQ(t[3].size, size);
    EXPECT_EQ(t[3].bytes, block);
    EXPECT_EQ(t[3].startMicros - t[2].endMicros, 300000u);
    EXPECT_EQ(Ctl().ProgressTotal(), size);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    auto decoded = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(DecodeDevConfig(block.data(), static_cast<int>(size), decoded.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(std::memcmp(overBulk.get(), decoded.get(), sizeof *overBulk), 0);
    EXPECT_EQ(+overBulk->areaCount, 8);  // copied out of the packed record before comparing
}

class BulkGetDeviceConfigCase : public BulkController,
                                public ::testing::WithParamInterface<TConfigCase> {};

// Verify that each way the configuration read can fail in the bulk transport yields its code:
// a lost answer is a read error here (over HID the stale request makes it 1), a short head 8.
// The decoder's verdicts are the same code as over HID.
TEST_P(BulkGetDeviceConfigCase, YieldsCode) {
    GetParam().arrange(Emu());
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0xAB, sizeof *config);
    EXPECT_EQ(Ctl().GetDeviceConfig(config.get()), GetParam().expected);
    EXPECT_EQ(config->text[0], 0) << "the record is zeroed first";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BulkGetDeviceConfigCase,
    ::testing::Values(
        TConfigCase{"HeadLost", Fault({K::DropReply}), DE_DEV_READ},
        TConfigCase{"BlockLost", Fault({K::DropReply, 0, S::Any, 1}), DE_DEV_READ},
        TConfigCase{"VanishedAfterHead", Fault({K::Vanish, 0, S::Any, 1}), DE_DEV_READ},
        TConfigCase{"BlockCutBelowItsHeader", Fault({K::ShortReply, 0, S::Any, 1, 27}), DE_BAD_PARAM},
        TConfigCase{"HeadShorterThanFour", Block({3, 0, 0xB2}), DE_RW_LENGTH}),
    [](const ::testing::TestParamInfo<TConfigCase>& info) { return info.param.name; });

}  // namespace
