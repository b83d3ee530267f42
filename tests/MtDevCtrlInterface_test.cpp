// The controller in the lo-speed dialect: packet builders, error names and progress, and every
// device operation through the real hidraw port against the emulated touch frame (on a
// socketpair), with the faults the frame can be made to commit.
#include "MtDevCtrlInterface.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <cwchar>
#include <thread>

#include "MtScriptedHidDevice.h"
#include "MultiPlatformAPI.h"
#include "support/MtDevLinkRig.h"

namespace {

uint32_t Le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0] | p[1] << 8 | p[2] << 16) | static_cast<uint32_t>(p[3]) << 24;
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

std::vector<TEmuRequest> RequestsOf(const CMtDevEmulator& emulator, uint8_t command) {
    std::vector<TEmuRequest> out;
    for (const TEmuRequest& r : emulator.Requests()) {
        if (r.command == command) out.push_back(r);
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// Packets

class PacketBuilder : public ::testing::TestWithParam<int> {
protected:
    TVirtualClock m_clock{0};
    TScopedClock m_scoped{m_clock};
};

// Verify the lo-speed packet over many seeds: length byte, terminator, command position,
// parameter and filler range.
TEST_P(PacketBuilder, LoSpeedLayout) {
    const int length = GetParam();
    for (int tick = 0; tick < 300; ++tick) {
        m_clock.AdvanceMillis(1);
        std::array<uint8_t, 64> p;
        p.fill(0);
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

// Verify the hi-speed packet: position 8..27, filler 5..27, no terminator.
TEST_F(PacketBuilder, HiSpeedLayout) {
    for (int tick = 0; tick < 300; ++tick) {
        m_clock.AdvanceMillis(1);
        std::array<uint8_t, 28> p{};
        CMtDevController::MakeCommandPacketHiSpeed(p.data(), MTDEV_PACKET_COMMAND, 0xB6, 0xA1B2C3D4);
        ASSERT_EQ(p[0], 17);
        ASSERT_EQ(Le32(&p[1]), 0xA1B2C3D4u);
        const int position = p[5];
        ASSERT_GE(position, 8);
        ASSERT_LE(position, 27);
        ASSERT_EQ(p[position], 0xB6);
        for (int i = 6; i < 28; ++i) {
            if (i == position) continue;
            ASSERT_GE(p[i], 5);
            ASSERT_LE(p[i], 27);
        }
    }
}

// Verify the 4-byte packet: position 2, overwritten by the parameter, byte 3 then 0xFF.
TEST_F(PacketBuilder, FourByteLoSpeedPacket) {
    std::array<uint8_t, 64> p{};
    CMtDevController::MakeCommandPacketLoSpeed(p.data(), 4, 0xB6, 0x11223344);
    EXPECT_EQ(p[0], 4);
    EXPECT_EQ(p[1], 0x44);
    EXPECT_EQ(p[2], 0x33);
    EXPECT_EQ(p[3], 0xFF);
    EXPECT_EQ(p[4], 0x11);
    EXPECT_EQ(p[5], 2);
}

// Verify that a refused length or type, or a null buffer, leaves the buffer untouched.
TEST_F(PacketBuilder, RefusedLengthLeavesBufferUntouched) {
    for (int bad : {0, 3, 5, 16, 20, 28, 36, 63, 65, 255}) {
        std::array<uint8_t, 64> p;
        p.fill(0xEE);
        CMtDevController::MakeCommandPacketLoSpeed(p.data(), bad, 0xB6, 1);
        CMtDevController::MakeCommandPacketHiSpeed(p.data(), static_cast<uint8_t>(bad), 0xB6, 1);
        for (uint8_t b : p) ASSERT_EQ(b, 0xEE) << bad;
    }
    CMtDevController::MakeCommandPacketLoSpeed(nullptr, 37, 0xB6, 1);
    CMtDevController::MakeCommandPacketHiSpeed(nullptr, 37, 0xB6, 1);
}

// Verify that the filler depends only on the millisecond clock: same millisecond, same packet;
// another millisecond, another packet.
TEST_F(PacketBuilder, SameMillisecondSamePacket) {
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

// ---------------------------------------------------------------------------------------------
// Names and progress

// Verify the name of every code, the copy into the caller's text, and unknown codes.
TEST(ErrorNames, EveryCode) {
    const std::pair<DEV_ERR, const wchar_t*> names[] = {
        {0, L"DE_OK"},
        {1, L"DE_ERROR"},
        {2, L"DE_UNSUPPORT"},
        {3, L"DE_DEV_NOT_OPENED"},
        {4, L"DE_DEV_READ"},
        {5, L"DE_DEV_WRITE"},
        {6, L"DE_NULLPTR"},
        {7, L"DE_DEV_FLASH"},
        {8, L"DE_RW_LENGTH"},
        {9, L"DE_BAD_PARAM"},
        {10, L"DE_UNEXPECTED_READ"},
        {11, L"DE_BAD_VERSION"},
        {12, L"DE_BAD_USB_MODE"},
        {13, L"DE_BAD_DATA_SIZE"},
        {14, L"DE_SW_READ_TIMEOUT"},
        {1000, L"DE_ERROR_BY_FMW"},
        {15, L"DE_UNKNOWN"},
        {999, L"DE_UNKNOWN"},
        {1005, L"DE_UNKNOWN"},
        {0xFFFFFFFFu, L"DE_UNKNOWN"},
    };
    for (const auto& [code, name] : names) {
        wchar_t text[MTDEV_ERROR_NAME_CHARS];
        std::wmemset(text, L'x', MTDEV_ERROR_NAME_CHARS);
        const wchar_t* shared = FormatMtDevError(code, text);
        EXPECT_STREQ(shared, name) << code;
        EXPECT_STREQ(text, name) << code;
        EXPECT_STREQ(FormatMtDevError(code, nullptr), name);
    }
    EXPECT_STREQ(MtDevErrorName(DE_BAD_USB_MODE), "DE_BAD_USB_MODE");
}

// Verify that each thread has its own name buffer.
TEST(ErrorNames, BufferIsPerThread) {
    const wchar_t* mine = FormatMtDevError(DE_OK, nullptr);
    std::thread([] { FormatMtDevError(DE_DEV_FLASH, nullptr); }).join();
    EXPECT_STREQ(mine, L"DE_OK");
}

// Verify the device's time-outs are the defaults.
TEST(Timeouts, DefaultsAreTheDevicesOwn) {
    const TMtDevTimeouts t;
    EXPECT_EQ(t.hidReplyMs, 500u);
    EXPECT_EQ(t.hidWriteAckMs, 20000u);
    EXPECT_EQ(t.hidEndAckMs, 5000u);
    EXPECT_EQ(t.bulkCommandMs, 1000u);
    EXPECT_EQ(t.bulkWriteAckMs, 4000u);
    EXPECT_EQ(t.bulkDataWriteMs, 10000u);
    EXPECT_EQ(t.bulkEndAckMs, 5000u);
    CMtDevController controller;
    EXPECT_EQ(controller.Timeouts().hidReplyMs, 500u);
}

// Verify the percentage, the reset and the abort flag on a controller without a device.
TEST(Progress, PercentageResetAndAbort) {
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

// Verify the frame poll: a compact and an extended frame decoded, contacts last-first.
TEST_F(HidController, GetFrameSdkDecodesQueuedFrames) {
    Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{1, 1, 100, 200}, {2, 1, 300, 400}}));
    Emu().QueueFrame(EmuExtendedFrame(1920, 1080, 32767, 32767, {{7, 2, 10, 20, 5, -3}}));
    TFrame f;
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.frame.logicalWidth, 1000);
    EXPECT_EQ(f.frame.rawHeight, 3000);
    EXPECT_EQ(f.Ids(), (std::vector<int>{2, 1}));
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.frame.logicalWidth, 1920);
    ASSERT_EQ(f.Ids(), (std::vector<int>{7}));
    EXPECT_EQ(f.frame.points->area, -15);
    // Nothing queued: the idle frame, a frame without contacts.
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.frame.points, nullptr);
    const std::vector<TEmuRequest> polls = RequestsOf(Emu(), MTDEV_CMD_FRAME_SDK);
    ASSERT_EQ(polls.size(), 3u);
    for (const TEmuRequest& r : polls) {
        EXPECT_EQ(r.kind, 37);
        EXPECT_EQ(r.parameter, 0u);
        EXPECT_EQ(r.bytes, 37u);
    }
    EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestReplyMs, kTestReplyMs, kTestReplyMs}));
}

// Verify that a frame source feeds polls when the queue is empty.
TEST_F(HidController, GetFrameSdkFromFrameSource) {
    int calls = 0;
    Emu().SetFrameSource([&calls](TEmuFramePayload& payload) {
        ++calls;
        payload = EmuCompactFrame(400, 400, {{static_cast<uint8_t>(calls), 0, 1, 1}});
        return true;
    });
    TFrame f;
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
        EXPECT_EQ(f.Ids(), (std::vector<int>{i}));
    }
    EXPECT_EQ(Emu().FramesServed(), 3u);
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
    Emu().InjectFault({c.kind, MTDEV_CMD_FRAME_SDK, TEmuStage::Any, 0, c.value});
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), c.expected);
    EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestReplyMs}));
    if (c.expected != DE_OK) {
        EXPECT_EQ(f.frame.points, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, GetFrameSdkFault,
    ::testing::Values(TFrameFault{"Dropped", TEmuFaultKind::DropReply, 0, DE_UNSUPPORT},
                      TFrameFault{"Garbage", TEmuFaultKind::Garbage, 0, DE_UNSUPPORT},
                      TFrameFault{"WrongCode", TEmuFaultKind::WrongCode, 0, DE_UNSUPPORT},
                      // Only the reply code arrives: the payload is the request's parameter 0.
                      TFrameFault{"Short", TEmuFaultKind::ShortReply, 1, DE_BAD_VERSION},
                      TFrameFault{"Vanished", TEmuFaultKind::Vanish, 0, DE_UNSUPPORT},
                      TFrameFault{"Late", TEmuFaultKind::LateReply, 400, DE_UNSUPPORT}),
    [](const ::testing::TestParamInfo<TFrameFault>& info) { return info.param.name; });

// Verify that a reply which is not a frame gives 11.
TEST_F(HidController, GetFrameSdkNotAFrame) {
    TEmuFramePayload notAFrame{};
    notAFrame[0] = 0x55;
    Emu().QueueFrame(notAFrame);
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_BAD_VERSION);
    EXPECT_EQ(Ctl().GetFrameSdk(nullptr), DE_NULLPTR);
}

// Verify that a late reply stays queued and is taken by the next poll: only the reply code
// guards against stale replies.
TEST_F(HidController, LateReplyIsTakenByTheNextPoll) {
    Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{9, 1, 100, 200}}));
    Emu().InjectFault({TEmuFaultKind::LateReply, MTDEV_CMD_FRAME_SDK, TEmuStage::Any, 0, 400});
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_UNSUPPORT);  // gives up first
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
// closes the transport and forgets the device type.
TEST_F(HidController, CloseDeviceModes) {
    const std::pair<unsigned char, uint32_t> modes[] = {
        {0, 1}, {1, 0}, {2, 4}, {3, 6}, {4, 6}, {5, 6}, {6, 189}, {7, 6}, {200, 6}, {254, 6}};
    for (const auto& [mode, parameter] : modes) {
        if (Ctl().DeviceType() == MTDEV_TYPE_NONE) {
            ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
        }
        const size_t before = Emu().RequestCount();
        EXPECT_EQ(Ctl().CloseDevice(mode), DE_OK);
        Emu().WaitForRequests(before + 1);
        const TEmuRequest r = Emu().Requests().back();
        EXPECT_EQ(r.kind, 17) << int(mode);
        EXPECT_EQ(r.bytes, 17u);
        EXPECT_EQ(r.command, MTDEV_CMD_CLOSE);
        EXPECT_EQ(r.parameter, parameter) << int(mode);
        EXPECT_EQ(Ctl().DeviceType(), MTDEV_TYPE_NONE);
        EXPECT_FALSE(Ctl().Communicator().IsHidOpen());
    }
    ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
    Ctl().CloseDevice(MTDEV_CLOSE_SILENT);
    EXPECT_FALSE(Ctl().Communicator().IsHidOpen());
    // A poll after the close: no device. The silent close sent nothing the poll could follow.
    TFrame f;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_DEV_NOT_OPENED);
    EXPECT_EQ(Ctl().CloseDevice(0), DE_OK);  // closing a closed device is harmless
}

// Verify the plain commands: process mode and protect value, and their codes without a device.
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
    CMtDevController closed;
    EXPECT_EQ(closed.CmdProcess(1), DE_DEV_NOT_OPENED);
    EXPECT_EQ(closed.CmdProtect(1), DE_DEV_NOT_OPENED);
}

// Verify reading the configuration: a 4-byte head, then the whole block in 58-byte pieces,
// decoded into the record.
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
}

// Verify that a device answering in pieces smaller than 58 bytes is read whole.
TEST_F(HidController, GetDeviceConfigInSmallPieces) {
    Emu().SetPieceBytes(5);
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(config.get()), DE_OK);
    EXPECT_EQ(config->netAddress, 0x7F000001u);
}

struct TConfigCase {
    const char* name;
    std::function<void(CMtDevEmulator&)> arrange;
    DEV_ERR expected;
};

class GetDeviceConfigCase : public HidController, public ::testing::WithParamInterface<TConfigCase> {};

// Verify each way the configuration read can fail, and the head-only block.
TEST_P(GetDeviceConfigCase, YieldsCode) {
    GetParam().arrange(Emu());
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0xAB, sizeof *config);
    EXPECT_EQ(Ctl().GetDeviceConfig(config.get()), GetParam().expected);
    EXPECT_EQ(config->text[0], 0) << "the record is zeroed first";
    for (unsigned w : Waits()) EXPECT_EQ(w, kTestReplyMs);
}

std::vector<uint8_t> DefaultBlockWith(size_t offset, uint8_t value) {
    std::vector<uint8_t> block = EmuDefaultConfigBlock();
    block[offset] = value;
    return block;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GetDeviceConfigCase,
    ::testing::Values(
        TConfigCase{"HeadDropped",
                    [](CMtDevEmulator& e) { e.InjectFault({TEmuFaultKind::DropReply}); }, DE_ERROR},
        TConfigCase{"HeadGarbage",
                    [](CMtDevEmulator& e) { e.InjectFault({TEmuFaultKind::Garbage}); }, DE_ERROR},
        TConfigCase{"BlockPieceWrongCode",
                    [](CMtDevEmulator& e) {
                        e.InjectFault({TEmuFaultKind::WrongCode, 0, TEmuStage::Any, 2});
                    },
                    DE_ERROR},
        TConfigCase{"VanishedInTheMiddle",
                    [](CMtDevEmulator& e) {
                        e.InjectFault({TEmuFaultKind::Vanish, 0, TEmuStage::Any, 2});
                    },
                    DE_ERROR},
        TConfigCase{"NotAConfigurationBlock",
                    [](CMtDevEmulator& e) { e.SetConfigBlock(DefaultBlockWith(2, 0xB1)); },
                    DE_BAD_VERSION},
        TConfigCase{"DeclaredSizeBelowFour",
                    [](CMtDevEmulator& e) { e.SetConfigBlock({3, 0, 0xB2, 0, 0, 0}); },
                    DE_BAD_PARAM},
        TConfigCase{"HeadShorterThanFour",
                    [](CMtDevEmulator& e) { e.SetConfigBlock({3, 0, 0xB2}); }, DE_RW_LENGTH},
        TConfigCase{"HeadOnlyBlock",
                    [](CMtDevEmulator& e) { e.SetConfigBlock({4, 0, 0xB2, 0}); }, DE_OK},
        TConfigCase{"UndecodableBlock",
                    [](CMtDevEmulator& e) { e.SetConfigBlock(DefaultBlockWith(25, 33)); },
                    DE_BAD_PARAM}),
    [](const ::testing::TestParamInfo<TConfigCase>& info) { return info.param.name; });

// Verify the codes without a device and without a record.
TEST(ConfigWithoutDevice, Codes) {
    CMtDevController controller;
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    EXPECT_EQ(controller.GetDeviceConfig(config.get()), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.GetDeviceConfig(nullptr), DE_NULLPTR);
    EXPECT_EQ(controller.SetDeviceConfig(config.get()), DE_DEV_NOT_OPENED);
    _HARDWARE_DEV_INFO info{};
    EXPECT_EQ(controller.GetDeviceInfo(&info), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.SetDeviceInfo(&info), DE_DEV_NOT_OPENED);
    int length = 10;
    uint8_t buffer[16] = {};
    EXPECT_EQ(controller.GetScanPatternFile(nullptr, length), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.SetScanPatternFile(buffer, 10), DE_DEV_NOT_OPENED);
    _HARDWARE_CONFIG_OVERRIDE override{};
    EXPECT_EQ(controller.SetDeviceConfigOverride(&override), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.ProgressTotal(), 18u);
    std::vector<uint8_t> file(1024);
    EXPECT_EQ(controller.SetTouchSystemFile(file.data(), 1024), DE_DEV_NOT_OPENED);
    _HARDWARE_FRAME_DATA raw{};
    raw.storage = buffer;
    raw.capacity = sizeof buffer;
    EXPECT_EQ(controller.GetFrameData(&raw), DE_DEV_NOT_OPENED);
    EXPECT_EQ(controller.ClearCache(), DE_DEV_NOT_OPENED);
}

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
    EXPECT_EQ(r[1].stage, TEmuStage::Data);
    EXPECT_EQ(r[1].bytes, 64u);
    EXPECT_EQ(r[2].stage, TEmuStage::End);
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

using K = TEmuFaultKind;
using S = TEmuStage;
INSTANTIATE_TEST_SUITE_P(
    Faults, SetDeviceInfoFault,
    ::testing::Values(
        TWriteFault{"RequestDropped", K::DropReply, S::Request, 0, DE_UNEXPECTED_READ, kTestWriteAckMs, false},
        TWriteFault{"RequestGarbage", K::Garbage, S::Request, 0, DE_UNEXPECTED_READ, kTestWriteAckMs, false},
        TWriteFault{"RequestWrongCode", K::WrongCode, S::Request, 0, DE_ERROR, kTestWriteAckMs, false},
        TWriteFault{"RequestRefused", K::RefuseWrite, S::Request, 0, DE_DEV_FLASH, kTestWriteAckMs, false},
        TWriteFault{"RequestShort", K::ShortReply, S::Request, 1, DE_ERROR, kTestWriteAckMs, false},
        TWriteFault{"RequestVanished", K::Vanish, S::Request, 0, DE_UNEXPECTED_READ, kTestWriteAckMs, false},
        TWriteFault{"PieceDropped", K::DropReply, S::Data, 0, DE_ERROR, kTestReplyMs, false},
        TWriteFault{"PieceWrongCode", K::WrongCode, S::Data, 0, DE_ERROR, kTestReplyMs, false},
        TWriteFault{"PieceRefused", K::RefuseWrite, S::Data, 0, DE_DEV_FLASH, kTestReplyMs, false},
        TWriteFault{"PieceVanished", K::Vanish, S::Data, 0, DE_ERROR, kTestReplyMs, false},
        TWriteFault{"EndDropped", K::DropReply, S::End, 0, DE_ERROR, kTestEndAckMs, true},
        TWriteFault{"EndGarbage", K::Garbage, S::End, 0, DE_ERROR, kTestEndAckMs, true},
        TWriteFault{"EndWrongCode", K::WrongCode, S::End, 0, DE_DEV_FLASH, kTestEndAckMs, true},
        TWriteFault{"FirmwareStatus", K::FirmwareStatus, S::End, 3, DE_DEV_FLASH, kTestEndAckMs, false}),
    [](const ::testing::TestParamInfo<TWriteFault>& info) { return info.param.name; });

// Verify the acknowledgement of a piece must echo its sequence number or-ed with 0xF00000:
// for piece 3 exactly 0x06 0xE5 0x03 0x00 0xF0 0x00.
TEST(LoSpeedEcho, PieceAcknowledgementEchoesSequence) {
    TVirtualClock clock;
    TScopedClock scoped(clock);
    for (bool exactEcho : {true, false}) {
        CMtScriptedHidDevice device;
        std::vector<std::vector<uint8_t>> pieceAcks;
        device.SetResponder([&](const uint8_t* r, long, std::vector<TScriptedInput>* inputs) {
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
        TMACDEVICEPATH path{&device, nullptr, MTDEV_TYPE_HID};
        CMtDevController controller;
        ASSERT_EQ(controller.OpenDevice(&path), DE_OK);
        std::vector<uint8_t> data(58 * 5);
        EXPECT_EQ(controller.SetLoSpeed(0xBE, data.data(), static_cast<int>(data.size())),
                  exactEcho ? DE_OK : DE_DEV_FLASH);
        ASSERT_GE(pieceAcks.size(), 4u);
        const std::vector<uint8_t> expected = {0x06, 0xE5, 0x03, 0x00, exactEcho ? uint8_t{0xF0} : uint8_t{0}, 0x00};
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), pieceAcks[3].begin()));
        // The pieces: byte 0 is 0x40, bytes 1..4 the sequence, byte 63 the count.
        const std::vector<std::vector<uint8_t>>& out = device.Outputs();
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
        // A pause of 200 ms between the acknowledged request and the first piece.
        EXPECT_EQ(TGetTickCount(), exactEcho ? 200u : 400u);
    }
}

// Verify the lo-speed read of 100 bytes: pieces 0 and 1 of 58 and 42 bytes; a piece claiming
// 59 bytes is an error.
TEST(LoSpeedRead, PiecesAndTheirLimit) {
    TVirtualClock clock;
    TScopedClock scoped(clock);
    for (int claimed : {42, 59}) {
        CMtScriptedHidDevice device;
        std::vector<uint32_t> indexes;
        device.SetResponder([&](const uint8_t* r, long, std::vector<TScriptedInput>* inputs) {
            const uint32_t index = Le32(r + 1);
            indexes.push_back(index);
            std::vector<uint8_t> reply(64, 0);
            reply[0] = 0xD1;
            for (int i = 0; i < 58; ++i) reply[5 + i] = static_cast<uint8_t>(index * 58 + i);
            reply[63] = static_cast<uint8_t>(index == 0 ? 58 : claimed);
            inputs->push_back({reply});
        });
        TMACDEVICEPATH path{&device, nullptr, MTDEV_TYPE_HID};
        CMtDevController controller;
        ASSERT_EQ(controller.OpenDevice(&path), DE_OK);
        std::vector<uint8_t> buffer(100, 0);
        int length = 100;
        const DEV_ERR result = controller.GetLoSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), length);
        EXPECT_EQ(indexes, (std::vector<uint32_t>{0, 1}));
        if (claimed == 42) {
            EXPECT_EQ(result, DE_OK);
            EXPECT_EQ(length, 100);
            for (int i = 0; i < 100; ++i) ASSERT_EQ(buffer[i], i);
        } else {
            EXPECT_EQ(result, DE_ERROR);
        }
    }
}

// Verify a lo-speed read ends at the device's end marker with the length it reached, and that
// a length of 0 sends nothing.
TEST_F(HidController, ReadEndsAtEndMarker) {
    Emu().SetStatus({1, 2, 3, 4, 5});
    std::array<uint8_t, 64> buffer{};
    int length = 64;
    ASSERT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_OK);
    EXPECT_EQ(length, 5);
    EXPECT_EQ(buffer[4], 5);
    int size = 0;
    ASSERT_EQ(Ctl().GetDevStatus(nullptr, size), DE_OK);  // a size query
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

// Verify the percentage of a transfer cut short: 50 of 200 bytes is 25.
TEST_F(HidController, PercentageOfTransferCutShort) {
    std::vector<uint8_t> status(200, 7);
    Emu().SetStatus(status);
    Emu().SetPieceBytes(50);
    Emu().InjectFault({TEmuFaultKind::DropReply, 0, TEmuStage::Any, 1});
    std::vector<uint8_t> buffer(200);
    int length = 200;
    EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_ERROR);
    EXPECT_EQ(Ctl().ProgressDone(), 50u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 25);
    // The next operation starts afresh.
    length = 200;
    EXPECT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_OK);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);
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

    for (uint32_t bad : {0x200001u, 5u, 0xFFFFFFFFu}) {
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

// Verify writing the configuration, then reading back what was written.
TEST_F(HidController, SetDeviceConfigThenReadBack) {
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
    EXPECT_EQ(back->flags, 0x305F05u);
    EXPECT_EQ(back->areas[0].edgeAdjust[1], -7);
    EXPECT_EQ(Ctl().SetDeviceConfig(nullptr), DE_NULLPTR);
}

// Verify the override write: 18 bytes with command 0xB5.
TEST_F(HidController, SetDeviceConfigOverride) {
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
    _HARDWARE_FRAME_DATA raw{};
    raw.capacity = static_cast<uint16_t>(storage.size());
    raw.storage = storage.data();
    raw.frameMode = 3;
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

// Verify the raw frame read's failures.
TEST_P(GetFrameDataCase, YieldsCode) {
    const TRawCase& c = GetParam();
    if (c.withFault) Emu().InjectFault(c.fault);
    std::vector<uint8_t> storage(c.capacity + 1u, 0xEE);
    _HARDWARE_FRAME_DATA raw{};
    raw.capacity = c.capacity;
    raw.storage = storage.data();
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

// Verify ReadDate prints the report on standard output, and its codes.
TEST_F(HidController, ReadDatePrintsReport) {
    CLogCapture log;
    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o', 0, 'x'};
    ASSERT_TRUE(m_rig->link.SendReport(hello, sizeof hello));
    std::array<uint8_t, 64> buffer{};
    EXPECT_EQ(Ctl().ReadDate(buffer.data()), DE_OK);
    EXPECT_EQ(log.Lines(TLogChannel::Stdout), (std::vector<std::string>{"package:hello"}));
    // A full report without a zero byte is printed up to its end, not beyond.
    std::array<uint8_t, 64> full;
    full.fill('a');
    ASSERT_TRUE(m_rig->link.SendReport(full.data(), full.size()));
    std::array<uint8_t, 80> wide;
    wide.fill('b');
    EXPECT_EQ(Ctl().ReadDate(wide.data()), DE_OK);
    EXPECT_EQ(log.Lines(TLogChannel::Stdout).back(), "package:" + std::string(64, 'a'));
    EXPECT_EQ(Ctl().ReadDate(nullptr), DE_NULLPTR);
    CMtDevController closed;
    EXPECT_EQ(closed.ReadDate(buffer.data()), DE_DEV_NOT_OPENED);
}

// Verify the cache stubs.
TEST_F(HidController, CacheStubs) {
    EXPECT_EQ(Ctl().GetDeviceCache(), 1u);
    EXPECT_EQ(Ctl().SetDeviceCache(), 2u);
    EXPECT_EQ(Ctl().ClearCache(), DE_OK);
    Ctl().ClearHiSpeedCache();
    Ctl().ClearLoSpeedCache();
    EXPECT_EQ(Emu().RequestCount(), 0u);
}

// Verify that an abort flag set before a transaction ends it before anything is sent.
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

}  // namespace
