// The controller in both dialects: packet builders, error names and progress; every device
// operation through the real hidraw port against the emulated touch frame (on a socketpair),
// and the hi-speed dialect through the emulator's in-process bulk port, with the faults the
// frame can be made to commit.
#include "MtDevCtrlInterface.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <functional>
#include <optional>
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

template <typename... Args>
std::string Format(const char* format, Args... args) {
    char text[96];
    std::snprintf(text, sizeof text, format, args...);
    return text;
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

// Each request the frame received as "stage kind command parameter bytes".
std::vector<std::string> Described(const std::vector<TEmuRequest>& requests) {
    static const char* const kStages[] = {"any", "request", "data", "end"};
    std::vector<std::string> out;
    for (const TEmuRequest& r : requests) {
        out.push_back(Format("%s %d %02X %u %zu", kStages[static_cast<int>(r.stage)], r.kind,
                             r.command, r.parameter, r.bytes));
    }
    return out;
}

// A command packet's body: the parameter at 1..4, the command at the position byte 5 names
// (firstPosition..last), filler 5..maxFiller everywhere else in 6..last.
::testing::AssertionResult CommandBody(const uint8_t* p, uint8_t command, uint32_t parameter,
                                       int firstPosition, int last, int maxFiller) {
    const int position = p[5];
    if (Le32(p + 1) != parameter || position < firstPosition || position > last ||
        p[position] != command) {
        return ::testing::AssertionFailure() << "parameter " << Le32(p + 1) << ", position "
                                             << position << ", command " << int(p[position]);
    }
    for (int i = 6; i <= last; ++i) {
        if (i != position && (p[i] < 5 || p[i] > maxFiller)) {
            return ::testing::AssertionFailure() << "filler " << int(p[i]) << " at " << i;
        }
    }
    return ::testing::AssertionSuccess();
}

// A bulk transfer as "W2 28 1000/1000 +0": direction and pipe, size, no-data and completion
// time-outs, milliseconds since the transfer before ended; a 28-byte write is a hi-speed command
// packet and adds " 37:B8:0" (type, command, parameter), or " bad" when its body is wrong.
std::vector<std::string> Described(const std::vector<TBulkTransfer>& transfers) {
    std::vector<std::string> out;
    for (size_t i = 0; i < transfers.size(); ++i) {
        const TBulkTransfer& t = transfers[i];
        const uint64_t pause = i == 0 ? 0 : t.startMicros - transfers[i - 1].endMicros;
        std::string text = Format("%c%u %u %u/%u +%llu", t.write ? 'W' : 'R', t.pipe, t.size,
                                  t.noDataTimeoutMs, t.completionTimeoutMs,
                                  static_cast<unsigned long long>(pause / 1000));
        if (t.write && t.size == 28 && t.bytes.size() == 28) {
            const uint8_t* p = t.bytes.data();
            const uint8_t command = p[5] < 28 ? p[p[5]] : 0;
            text += CommandBody(p, command, Le32(p + 1), 8, 27, 27)
                        ? Format(" %u:%02X:%X", p[0], command, Le32(p + 1))
                        : " bad";
        }
        out.push_back(text);
    }
    return out;
}

// What Described gives for a hi-speed command packet and for another transfer.
std::string Packet(uint8_t type, uint8_t command, uint32_t parameter, unsigned pauseMs = 0) {
    return Format("W2 28 1000/1000 +%u %u:%02X:%X", pauseMs, type, command, parameter);
}
std::string Transfer(char direction, uint32_t size, unsigned timeoutMs, unsigned pauseMs = 0) {
    return Format("%c%d %u %u/%u +%u", direction, direction == 'W' ? 2 : 1, size, timeoutMs,
                  timeoutMs, pauseMs);
}

// Close mode and the parameter its close command carries (mode 255 sends nothing).
const std::pair<unsigned char, uint32_t> kCloseModes[] = {{0, 1}, {1, 0},   {2, 4}, {3, 6},
                                                          {6, 189}, {7, 6}, {254, 6}};

// ---------------------------------------------------------------------------------------------
// Packets, names and progress

class PacketBuilder : public ::testing::Test {
protected:
    TVirtualClock m_clock{0};
    TScopedClock m_scoped{m_clock};
};

// Verify both packet layouts over many seeds, and nothing written beyond the packet.
TEST_F(PacketBuilder, Layouts) {
    for (int tick = 0; tick < 300; ++tick) {
        m_clock.AdvanceMillis(1);
        for (int length : {17, 27, 37, 64}) {
            std::array<uint8_t, 64> p{};
            CMtDevController::MakeCommandPacketLoSpeed(p.data(), length, 0xB6, 0x12345678);
            ASSERT_EQ(p[0], length);
            ASSERT_EQ(p[length - 1], 0xFF);
            ASSERT_TRUE(CommandBody(p.data(), 0xB6, 0x12345678, 10, length - 2, length - 1));
            for (int i = length; i < 64; ++i) ASSERT_EQ(p[i], 0) << "nothing beyond the packet";
        }
        std::array<uint8_t, 28> p{};
        CMtDevController::MakeCommandPacketHiSpeed(p.data(), MTDEV_PACKET_COMMAND, 0xB6, 0xA1B2C3D4);
        ASSERT_EQ(p[0], MTDEV_PACKET_COMMAND);
        ASSERT_TRUE(CommandBody(p.data(), 0xB6, 0xA1B2C3D4, 8, 27, 27));
    }
}

// Verify the 4-byte packet, refusals that leave the buffer alone, filler seeded by the clock only.
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

// Verify every code's name, the caller's copy, and a name buffer per thread.
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

// Verify progress, abort flag and every operation's code without a device.
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
        Restart();
    }
    void TearDown() override {
        m_ctl.reset();
        m_rig.reset();
        EXPECT_EQ(CountOpenFds(), m_fds) << "a descriptor was left open";
    }
    // A fresh frame and controller, opened: for each case of a table.
    void Restart() {
        m_ctl.reset();
        m_rig = std::make_unique<THidRig>();
        ASSERT_TRUE(m_rig->link.Ok());
        m_ctl = std::make_unique<CMtDevController>(ShortHidTimeouts());
        ASSERT_EQ(m_ctl->OpenDevice(&m_rig->path), DE_OK);
        ASSERT_EQ(m_ctl->DeviceType(), MTDEV_TYPE_HID);
    }
    CMtDevEmulator& Emu() { return m_rig->emulator; }
    CMtDevController& Ctl() { return *m_ctl; }
    const std::vector<unsigned>& Waits() { return m_rig->recorder->Waits(); }

    std::unique_ptr<THidRig> m_rig;
    std::unique_ptr<CMtDevController> m_ctl;
    int m_fds = 0;
};

// Verify that a null path, type 0 or a node that cannot be opened gives 1; a vanished device.
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

    // After the device vanished every poll fails at once with a write error.
    m_rig->link.Unplug();
    TFrame f;
    DEV_ERR first = Ctl().GetFrameSdk(&f.frame);
    EXPECT_TRUE(first == DE_UNSUPPORT || first == DE_DEV_WRITE) << first;
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_DEV_WRITE);
}

// Verify the frame poll: a queued frame, the idle frame, a reply that is not a frame (11).
TEST_F(HidController, GetFrameSdkDecodesQueuedFrames) {
    Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{1, 1, 100, 200}, {2, 1, 300, 400}}));
    TFrame f;
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.Ids(), (std::vector<int>{2, 1}));
    ASSERT_EQ(Ctl().GetFrameSdk(&f.frame), DE_OK);
    EXPECT_EQ(f.frame.points, nullptr);
    EXPECT_EQ(Described(RequestsOf(Emu(), MTDEV_CMD_FRAME_SDK)),
              (std::vector<std::string>(2, "request 37 B6 0 37")));
    EXPECT_EQ(Waits(), (std::vector<unsigned>(2, kTestReplyMs)));

    TEmuFramePayload notAFrame{};
    notAFrame[0] = 0x55;
    Emu().QueueFrame(notAFrame);
    EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), DE_BAD_VERSION);
    EXPECT_EQ(Ctl().GetFrameSdk(nullptr), DE_NULLPTR);

    // Each fault of the frame poll: its code, within the reply time-out.
    const struct {
        const char* name;
        TEmuFaultKind kind;
        int value;
        DEV_ERR expected;
    } cases[] = {
        {"dropped", K::DropReply, 0, DE_UNSUPPORT},
        {"garbage", K::Garbage, 0, DE_UNSUPPORT},
        {"wrong code", K::WrongCode, 0, DE_UNSUPPORT},
        // Only the reply code arrives: the payload is the request's parameter 0.
        {"short", K::ShortReply, 1, DE_BAD_VERSION},
        {"vanished", K::Vanish, 0, DE_UNSUPPORT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(Restart());
        Emu().QueueFrame(EmuCompactFrame(4000, 3000, {{1, 1, 100, 200}}));
        Emu().InjectFault({c.kind, MTDEV_CMD_FRAME_SDK, S::Any, 0, c.value});
        TFrame f;
        EXPECT_EQ(Ctl().GetFrameSdk(&f.frame), c.expected);
        EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestReplyMs}));
        EXPECT_EQ(f.frame.points, nullptr);
    }
}

// Verify that a late reply (2) is taken by the next poll: only the reply code guards it.
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

// Verify the plain commands: process mode (mode & 7) | 8 and protect value, 17-byte packets.
TEST_F(HidController, ProcessAndProtectCommands) {
    EXPECT_EQ(Ctl().CmdProcess(0xFF), DE_OK);
    EXPECT_EQ(Ctl().CmdProcess(2), DE_OK);
    EXPECT_EQ(Ctl().CmdProtect(0xDEADBEEF), DE_OK);
    Emu().WaitForRequests(3);
    EXPECT_EQ(Described(Emu().Requests()),
              (std::vector<std::string>{"request 17 A0 15 17", "request 17 A0 10 17",
                                        "request 17 A9 3735928559 17"}));
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    // Each close mode's command; every close forgets the device, and a second is harmless.
    for (const auto& [mode, parameter] : kCloseModes) {
        SCOPED_TRACE(static_cast<int>(mode));
        if (Ctl().DeviceType() == MTDEV_TYPE_NONE) {
            ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
        }
        const size_t before = Emu().RequestCount();
        EXPECT_EQ(Ctl().CloseDevice(mode), DE_OK);
        Emu().WaitForRequests(before + 1);
        EXPECT_EQ(Described({Emu().Requests().back()}).front(),
                  Format("request 17 AF %u 17", parameter));
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

// Verify the configuration read (a 4-byte head, then 58-byte or smaller pieces) and write.
TEST_F(HidController, GetDeviceConfigReadsHeadThenBlock) {
    const std::vector<uint8_t> block = Emu().ConfigBlock();
    ASSERT_GT(block.size(), 58u);
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(config.get()), DE_OK);
    EXPECT_EQ(config->areaCount, 1);
    EXPECT_EQ(config->port, 3333);
    EXPECT_EQ(static_cast<int>(config->areas[0].outputRect.width), 1920);  // a packed field: by value
    std::vector<uint32_t> parameters = {0};  // the head, then each piece's index
    for (uint32_t i = 0; i < (block.size() + 57) / 58; ++i) parameters.push_back(i);
    std::vector<uint32_t> sent;
    for (const TEmuRequest& r : RequestsOf(Emu(), MTDEV_CMD_DEV_CONFIG)) {
        sent.push_back(r.parameter);
    }
    EXPECT_EQ(sent, parameters);
    EXPECT_EQ(Ctl().ProgressTotal(), block.size());
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    Emu().SetPieceBytes(5);
    auto small = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(Ctl().GetDeviceConfig(small.get()), DE_OK);
    EXPECT_EQ(std::memcmp(small.get(), config.get(), sizeof *config), 0);

    // Writing the configuration and reading it back; the 18-byte override write.
    auto written = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig('s', 0, written.get());
    DefaultDevCalConfig('s', 0, written.get());
    written->port = 4444;
    written->areas[0].edgeAdjust[1] = -7;
    ASSERT_EQ(Ctl().SetDeviceConfig(written.get()), DE_OK);
    EXPECT_EQ(Ctl().ProgressTotal(),
              static_cast<uint32_t>(EncodeDevConfig(written.get(), nullptr)));
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

// The configuration read of one case: its code, and the record zeroed first.
void ExpectConfigRead(const TConfigCase& c, CMtDevEmulator& emulator, CMtDevController& ctl) {
    SCOPED_TRACE(c.name);
    c.arrange(emulator);
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0xAB, sizeof *config);
    EXPECT_EQ(ctl.GetDeviceConfig(config.get()), c.expected);
    EXPECT_EQ(config->text[0], 0) << "the record is zeroed first";
}

// Verify each failure of the configuration read and the decoder's verdicts over HID.
TEST_F(HidController, GetDeviceConfigCases) {
    const TConfigCase cases[] = {
        {"head dropped", Fault({K::DropReply}), DE_ERROR},
        {"head garbage", Fault({K::Garbage}), DE_ERROR},
        {"block piece wrong code", Fault({K::WrongCode, 0, S::Any, 2}), DE_ERROR},
        {"vanished in the middle", Fault({K::Vanish, 0, S::Any, 2}), DE_ERROR},
        {"not a configuration block", Block(DefaultBlockWith(2, 0xB1)), DE_BAD_VERSION},
        {"declared size below four", Block({3, 0, 0xB2, 0, 0, 0}), DE_BAD_PARAM},
        {"head shorter than four", Block({3, 0, 0xB2}), DE_RW_LENGTH},
        {"head-only block", Block({4, 0, 0xB2, 0}), DE_OK},
        {"undecodable block", Block(DefaultBlockWith(25, 33)), DE_BAD_PARAM},
    };
    for (const TConfigCase& c : cases) {
        ASSERT_NO_FATAL_FAILURE(Restart());
        ExpectConfigRead(c, Emu(), Ctl());
        for (unsigned w : Waits()) EXPECT_EQ(w, kTestReplyMs) << c.name;
    }
}

// Verify the information block's round trip and the lo-speed write's shape.
TEST_F(HidController, DeviceInfoRoundTrip) {
    _HARDWARE_DEV_INFO info{};
    for (int i = 0; i < 43; ++i) info.bytes[i] = static_cast<uint8_t>(200 - i);
    ASSERT_EQ(Ctl().SetDeviceInfo(&info), DE_OK);
    TEmuWrite write{};
    ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_DEV_INFO, &write));
    EXPECT_EQ(write.data, std::vector<uint8_t>(info.bytes, info.bytes + 43));
    EXPECT_EQ(write.pieces, 1u);
    // The lo-speed write does not announce its size.
    EXPECT_EQ(Described(Emu().Requests()),
              (std::vector<std::string>{"request 27 B1 0 27", "data 64 B1 0 64", "end 4 B1 0 4"}));
    EXPECT_EQ(Waits(), (std::vector<unsigned>{kTestWriteAckMs, kTestReplyMs, kTestEndAckMs}));

    _HARDWARE_DEV_INFO back{};
    ASSERT_EQ(Ctl().GetDeviceInfo(&back), DE_OK);
    EXPECT_EQ(std::memcmp(back.bytes, info.bytes, 43), 0);
    EXPECT_EQ(Ctl().ProgressTotal(), 43u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    // Each fault of a lo-speed write: its code, the step it hit, whether the data was taken.
    constexpr unsigned kAck = kTestWriteAckMs, kPiece = kTestReplyMs, kEnd = kTestEndAckMs;
    const struct {
        const char* name;
        TEmuFaultKind kind;
        TEmuStage stage;
        int value;
        DEV_ERR expected;
        unsigned lastWaitMs;
        bool stored;  // the device took the data (only its acknowledgement went wrong)
    } cases[] = {
        {"request dropped", K::DropReply, S::Request, 0, DE_UNEXPECTED_READ, kAck, false},
        {"request garbage", K::Garbage, S::Request, 0, DE_UNEXPECTED_READ, kAck, false},
        {"request wrong code", K::WrongCode, S::Request, 0, DE_ERROR, kAck, false},
        {"request refused", K::RefuseWrite, S::Request, 0, DE_DEV_FLASH, kAck, false},
        {"request short", K::ShortReply, S::Request, 1, DE_ERROR, kAck, false},
        {"request vanished", K::Vanish, S::Request, 0, DE_UNEXPECTED_READ, kAck, false},
        {"piece dropped", K::DropReply, S::Data, 0, DE_ERROR, kPiece, false},
        {"piece wrong code", K::WrongCode, S::Data, 0, DE_ERROR, kPiece, false},
        {"piece refused", K::RefuseWrite, S::Data, 0, DE_DEV_FLASH, kPiece, false},
        {"piece vanished", K::Vanish, S::Data, 0, DE_ERROR, kPiece, false},
        {"end dropped", K::DropReply, S::End, 0, DE_ERROR, kEnd, true},
        {"end garbage", K::Garbage, S::End, 0, DE_ERROR, kEnd, true},
        {"end wrong code", K::WrongCode, S::End, 0, DE_DEV_FLASH, kEnd, true},
        {"firmware status", K::FirmwareStatus, S::End, 3, DE_DEV_FLASH, kEnd, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(Restart());
        Emu().InjectFault({c.kind, 0, c.stage, 0, c.value});
        _HARDWARE_DEV_INFO info{};
        EXPECT_EQ(Ctl().SetDeviceInfo(&info), c.expected);
        ASSERT_FALSE(Waits().empty());
        EXPECT_EQ(Waits().back(), c.lastWaitMs);
        EXPECT_EQ(Emu().LastWrite(MTDEV_CMD_DEV_INFO, nullptr), c.stored);
    }
}

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

// Verify a piece's acknowledgement must echo its sequence or-ed with 0xF00000, the pieces'
// shape, and the 200 ms before the first piece.
TEST(LoSpeedEcho, PieceAcknowledgementEchoesSequence) {
    for (bool exactEcho : {true, false}) {
        SCOPED_TRACE(exactEcho);
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
            } else {
                reply[1] = 0xE7;
            }
            inputs->push_back({reply});
        });
        ASSERT_EQ(s.controller.OpenDevice(&s.path), DE_OK);
        std::vector<uint8_t> data(58 * 5);
        EXPECT_EQ(s.controller.SetLoSpeed(0xBE, data.data(), static_cast<int>(data.size())),
                  exactEcho ? DE_OK : DE_DEV_FLASH);
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

// Verify a lo-speed read in pieces of 58 and 42 bytes; a piece claiming 59 is an error.
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

// Verify a read ends at the end marker, the size query, and that length 0 sends nothing.
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

    // An abort flag set before a transaction stops it before its data.
    Ctl().BreakOffCmdProcess();
    length = 10;
    EXPECT_EQ(Ctl().GetLoSpeed(MTDEV_CMD_DEV_STATUS, buffer.data(), length), DE_ERROR);
    EXPECT_EQ(Emu().RequestCount(), before);
    EXPECT_EQ(Ctl().SetLoSpeed(MTDEV_CMD_DEV_INFO, buffer.data(), 10), DE_ERROR);
    EXPECT_EQ(Emu().RequestCount(), before + 1) << "only the write request went out";
    EXPECT_EQ(Ctl().SetLoSpeed(MTDEV_CMD_DEV_INFO, nullptr, 10), DE_NULLPTR);
}

// Verify that an abort from another thread ends an endless read, the percentage within 0..100.
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

// Verify the percentage of a transfer cut short, and that the next one starts afresh.
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

// Verify the scan pattern's size query, its limits, read and write; the touch-system file's.
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

    // The touch-system file: below 1024 bytes refused before any device access.
    std::vector<uint8_t> file(1023, 0x11);
    const size_t before = Emu().RequestCount();
    EXPECT_EQ(Ctl().SetTouchSystemFile(file.data(), 1023), DE_BAD_PARAM);
    EXPECT_EQ(Emu().RequestCount(), before);
    file.resize(1030, 0x22);
    ASSERT_EQ(Ctl().SetTouchSystemFile(file.data(), 1030), DE_OK);
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

    // Its failures, with nothing written beyond the capacity.
    const struct {
        const char* name;
        uint16_t capacity;
        std::optional<TEmuFault> fault;
        DEV_ERR expected;
    } cases[] = {
        {"too small", 60, std::nullopt, DE_BAD_DATA_SIZE},
        {"header wrong code", 256, TEmuFault{K::WrongCode}, DE_ERROR},
        {"header dropped", 256, TEmuFault{K::DropReply}, DE_ERROR},
        {"header without mark", 256, TEmuFault{K::ShortReply, 0, S::Any, 0, 1}, DE_BAD_VERSION},
        {"piece dropped", 256, TEmuFault{K::DropReply, 0, S::Any, 1}, DE_DEV_READ},
        {"device gone midway", 256, TEmuFault{K::Vanish, 0, S::Any, 2}, DE_DEV_READ},
        // A garbage answer is ignored: the piece it stood for is lost, the rest comes.
        {"garbage ignored", 256, TEmuFault{K::Garbage, 0, S::Any, 1}, DE_OK},
        {"end wrong code", 256, TEmuFault{K::WrongCode, 0, S::Any, 3}, DE_ERROR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(Restart());
        if (c.fault) Emu().InjectFault(*c.fault);
        std::vector<uint8_t> storage(c.capacity + 1u, 0xEE);
        _HARDWARE_FRAME_DATA raw = RawFrame(storage, c.capacity);
        EXPECT_EQ(Ctl().GetFrameData(&raw), c.expected);
        EXPECT_LE(raw.dataBytes, c.capacity);
        EXPECT_EQ(storage[c.capacity], 0xEE) << "nothing written beyond the capacity";
    }
}

// Verify ReadDate's output, cut at 64 bytes, and the cache stubs, which send nothing.
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

    void SetUp() override { Restart(); }
    void TearDown() override {
        m_ctl.reset();
        EXPECT_EQ(m_rig->service.OpenInterfaces(), 0) << "an interface was left open";
        EXPECT_EQ(m_rig->service.LiveObjects(), 0) << "a port object was left alive";
    }
    // A fresh frame and controller, opened, nothing recorded: for each case of a table.
    void Restart() {
        if (m_rig != nullptr) TearDown();
        m_rig = std::make_unique<TRecordedBulkRig>();
        m_ctl = std::make_unique<CMtDevController>();
        ASSERT_EQ(m_ctl->OpenDevice(&m_rig->path), DE_OK);
        ASSERT_EQ(m_ctl->DeviceType(), MTDEV_TYPE_BULK);
        m_openedAtMicros = NowMicros();
        Rec().Clear();
        m_rig->service.ClearCalls();
    }
    CMtDevEmulator& Emu() { return m_rig->emulator; }
    CMtDevController& Ctl() { return *m_ctl; }
    CRecordingUsbService& Rec() { return m_rig->recorder; }
    std::vector<std::string> Calls() const { return m_rig->service.Calls(); }
    std::vector<std::string> Transfers() const { return Described(m_rig->recorder.Transfers()); }

    std::unique_ptr<TRecordedBulkRig> m_rig;
    std::unique_ptr<CMtDevController> m_ctl;
    uint64_t m_openedAtMicros = 0;
};

using TLines = std::vector<std::string>;

// Verify the 1 s settle after opening over bulk, open failures, and no frame poll (12).
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

// Verify the hi-speed read: blocks of 65536, then the rest 300 ms after its request; a short
// block ends the read; the data lands in place and nothing past it.
TEST_F(BulkController, HiSpeedReadRequestsBlocksThenRest) {
    const struct {
        const char* name;
        size_t held;  // bytes the device holds
        int asked;    // the length asked for
        int expectedLength;
        std::vector<uint32_t> parameters;  // of the read requests, in order
    } cases[] = {
        {"one block and rest", 70000, 70000, 70000, {0, 0x11700001}},
        {"short first block counts as full", 1000, 70000, 65536, {0}},
        {"whole blocks only", 131072, 131072, 131072, {0, 1}},
        {"rest only", 100, 100, 100, {0x00640000}},
        {"rest shorter than asked", 50, 100, 50, {0x00640000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(Restart());
        const std::vector<uint8_t> held = Pattern(c.held, 7);
        Emu().SetStatus(held);
        std::vector<uint8_t> buffer(static_cast<size_t>(c.asked) + 16, 0xEE);
        int length = c.asked;
        ASSERT_EQ(Ctl().GetDevStatus(buffer.data(), length), DE_OK);
        EXPECT_EQ(length, c.expectedLength);
        std::vector<uint8_t> expected = held;
        expected.resize(std::min(c.held, static_cast<size_t>(c.asked)));
        expected.resize(buffer.size(), 0xEE);
        EXPECT_EQ(buffer, expected);
        TLines transfers;
        for (uint32_t p : c.parameters) {
            const uint32_t rest = p >> 16;
            transfers.push_back(Packet(MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS, p));
            transfers.push_back(Transfer('R', rest != 0 ? rest : 65536, 1000, rest != 0 ? 300 : 0));
        }
        EXPECT_EQ(Transfers(), transfers);
        EXPECT_EQ(Ctl().ProgressTotal(), static_cast<uint32_t>(c.asked));
        EXPECT_EQ(Ctl().GetCmdProcess(), 100);
    }
}

// Verify the size query counts the answer's bytes; a lost answer gives 4, not retried.
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
        EXPECT_EQ(Transfers(),
                  (TLines{Packet(MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS, MTDEV_SIZE_QUERY),
                          Transfer('R', 1024, 1000)}));
    }
    Emu().InjectFault({K::DropReply});
    m_rig->service.ClearCalls();
    const uint64_t before = NowMicros();
    int length = 77;
    EXPECT_EQ(Ctl().GetHiSpeed(MTDEV_CMD_DEV_STATUS, nullptr, length), DE_DEV_READ);
    EXPECT_EQ(length, 77);
    EXPECT_EQ(NowMicros() - before, 1000000u);
    EXPECT_EQ(Calls(), (TLines{"WritePipeTO 2", "ReadPipeTO 1", "GetPipeStatus 1"}));
}

// Verify the hi-speed write: announced length, acknowledgement, data 200 ms later padded with
// zeros to 64 in writes of at most 65536, then end of data and its acknowledgement.
TEST_F(BulkController, HiSpeedWriteAnnouncesPadsAndEnds) {
    const std::pair<int, std::vector<uint32_t>> cases[] = {
        {100, {128}}, {128, {128}}, {0, {}}, {65536 + 100, {65536, 128}}};  // length, data writes
    for (const auto& [length, dataWrites] : cases) {
        SCOPED_TRACE(length);
        ASSERT_NO_FATAL_FAILURE(Restart());
        const size_t bytes = static_cast<size_t>(length);
        // The caller's memory goes on past the length with bytes that are not data.
        std::vector<uint8_t> memory = Pattern(bytes, 13);
        memory.resize(bytes + 200, 0xEE);
        ASSERT_EQ(Ctl().SetScanPatternFile(memory.data(), length), DE_OK);

        TLines expected = {Packet(MTDEV_PACKET_WRITE, MTDEV_CMD_SCAN_PATTERN, bytes),
                           Transfer('R', 64, 4000)};
        for (size_t k = 0; k < dataWrites.size(); ++k) {
            expected.push_back(Transfer('W', dataWrites[k], 10000, k == 0 ? 200 : 0));
        }
        expected.push_back(Packet(MTDEV_PACKET_END, MTDEV_CMD_SCAN_PATTERN, MTDEV_EOD_PARAMETER,
                                  dataWrites.empty() ? 200 : 0));
        expected.push_back(Transfer('R', 64, 5000));
        EXPECT_EQ(Transfers(), expected);
        const std::vector<TBulkTransfer>& t = Rec().Transfers();
        ASSERT_EQ(t.size(), expected.size());
        EXPECT_EQ(t[1].bytes, (std::vector<uint8_t>{0xE4, 0x04}));
        EXPECT_EQ(t.back().bytes, (std::vector<uint8_t>{0xE7, 0x00}));
        std::vector<uint8_t> sent;
        for (size_t k = 0; k < dataWrites.size(); ++k) {
            sent.insert(sent.end(), t[2 + k].bytes.begin(), t[2 + k].bytes.end());
        }
        const std::vector<uint8_t> data(memory.begin(), memory.begin() + length);
        std::vector<uint8_t> padded = data;
        padded.resize((bytes + 63) / 64 * 64, 0x00);
        EXPECT_EQ(sent, padded);

        TEmuWrite write{};
        ASSERT_TRUE(Emu().LastWrite(MTDEV_CMD_SCAN_PATTERN, &write));
        EXPECT_TRUE(write.hiSpeed);
        EXPECT_EQ(write.announced, bytes);
        EXPECT_EQ(write.bytesReceived, padded.size());
        EXPECT_EQ(write.data, data);
        EXPECT_EQ(Ctl().GetCmdProcess(), 100);
    }

    // Without data: refused with 6 before anything is sent, even for length 0.
    ASSERT_NO_FATAL_FAILURE(Restart());
    EXPECT_EQ(Ctl().SetHiSpeed(MTDEV_CMD_DEV_INFO, nullptr, 0), DE_NULLPTR);
    EXPECT_EQ(Ctl().SetScanPatternFile(nullptr, 10), DE_NULLPTR);
    EXPECT_TRUE(Rec().Transfers().empty());
}

// Verify each fault of a hi-speed write: its code, its wait, whether the data was kept.
TEST_F(BulkController, HiSpeedWriteFaults) {
    const struct {
        const char* name;
        TEmuFault fault;
        DEV_ERR expected;
        bool stored;          // the device took the data
        uint64_t lastWaitMs;  // the last transfer's wait on the virtual clock
    } cases[] = {
        {"request ack wrong code", {K::WrongCode, 0, S::Request}, DE_ERROR, false, 0},
        {"request ack garbage", {K::Garbage, 0, S::Request}, DE_ERROR, false, 0},
        {"request refused", {K::RefuseWrite, 0, S::Request}, DE_DEV_FLASH, false, 0},
        {"request ack one byte", {K::ShortReply, 0, S::Request, 0, 1}, DE_DEV_READ, false, 0},
        {"request ack lost", {K::DropReply, 0, S::Request}, DE_DEV_READ, false, 4000},
        {"request ack late in time", {K::LateReply, 0, S::Request, 0, 4000}, DE_OK, true, 0},
        {"request ack too late", {K::LateReply, 0, S::Request, 0, 4001}, DE_DEV_READ, false, 4000},
        {"request ack IN stalled once", {K::StallPipe, 0, S::Request, 0, 0, 1}, DE_OK, true, 0},
        {"vanished at request", {K::Vanish, 0, S::Request}, DE_DEV_READ, false, 0},
        {"vanished at data", {K::Vanish, 0, S::Data}, DE_DEV_WRITE, false, 0},
        {"data OUT stalled once", {K::StallPipe, 0, S::Data, 0, 1, 1}, DE_OK, true, 0},
        {"data OUT stalled twice", {K::StallPipe, 0, S::Data, 0, 1, 2}, DE_DEV_WRITE, false, 0},
        {"end ack wrong code", {K::WrongCode, 0, S::End}, DE_ERROR, true, 0},
        {"end ack one byte", {K::ShortReply, 0, S::End, 0, 1}, DE_DEV_READ, true, 0},
        {"end ack lost", {K::DropReply, 0, S::End}, DE_DEV_READ, true, 5000},
        {"end ack late in time", {K::LateReply, 0, S::End, 0, 5000}, DE_OK, true, 5000},
        {"end ack too late", {K::LateReply, 0, S::End, 0, 5001}, DE_DEV_READ, true, 5000},
        {"vanished at end", {K::Vanish, 0, S::End}, DE_DEV_READ, false, 0},
        {"firmware status 1", {K::FirmwareStatus, 0, S::End, 0, 1}, 1001, false, 0},
        {"firmware status 255", {K::FirmwareStatus, 0, S::End, 0, 255}, 1255, false, 0},
    };
    _HARDWARE_DEV_INFO info{};
    for (int i = 0; i < MTDEV_DEV_INFO_BYTES; ++i) info.bytes[i] = static_cast<uint8_t>(i + 1);
    const std::vector<uint8_t> data(info.bytes, info.bytes + MTDEV_DEV_INFO_BYTES);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(Restart());
        Emu().InjectFault(c.fault);
        EXPECT_EQ(Ctl().SetDeviceInfo(&info), c.expected);
        ASSERT_FALSE(Rec().Transfers().empty());
        const TBulkTransfer& last = Rec().Transfers().back();
        EXPECT_EQ(last.endMicros - last.startMicros, c.lastWaitMs * 1000u);
        TEmuWrite write{};
        EXPECT_EQ(Emu().LastWrite(MTDEV_CMD_DEV_INFO, &write), c.stored);
        if (c.stored) {
            EXPECT_EQ(write.data, data);
        }
    }
}

// Verify a device vanishing mid-read gives the read error, then every write the write error.
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

// Verify the plain commands over bulk, and 5 when the OUT pipe refuses twice.
TEST_F(BulkController, ProcessAndProtectCommands) {
    const std::pair<uint8_t, uint32_t> modes[] = {{0, 8}, {7, 15}, {0x0D, 13}, {0xFF, 15}};
    for (const auto& [mode, parameter] : modes) {
        SCOPED_TRACE(static_cast<int>(mode));
        Rec().Clear();
        EXPECT_EQ(Ctl().CmdProcess(mode), DE_OK);
        EXPECT_EQ(Transfers(), TLines{Packet(MTDEV_PACKET_COMMAND, MTDEV_CMD_PROCESS, parameter)});
    }
    Rec().Clear();
    EXPECT_EQ(Ctl().CmdProtect(0xDEADBEEF), DE_OK);
    EXPECT_EQ(Transfers(), TLines{Packet(MTDEV_PACKET_COMMAND, MTDEV_CMD_PROTECT, 0xDEADBEEF)});
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    Emu().InjectFault({K::StallPipe, MTDEV_CMD_PROCESS, S::Any, 0, 1, 2});
    EXPECT_EQ(Ctl().CmdProcess(3), DE_DEV_WRITE);
    EXPECT_EQ(Ctl().CmdProcess(3), DE_OK) << "the stalls are used up";

    // Each close mode's packet; every close releases the interface, the device gone too.
    for (const auto& [mode, parameter] : kCloseModes) {
        SCOPED_TRACE(static_cast<int>(mode));
        if (Ctl().DeviceType() == MTDEV_TYPE_NONE) {
            ASSERT_EQ(Ctl().OpenDevice(&m_rig->path), DE_OK);
        }
        Rec().Clear();
        EXPECT_EQ(Ctl().CloseDevice(mode), DE_OK);
        EXPECT_EQ(Transfers(), TLines{Packet(MTDEV_PACKET_COMMAND, MTDEV_CMD_CLOSE, parameter)});
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

// Verify the raw frame read's hand-built request over bulk and the fields of its 32-byte head.
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

    // Each outcome, nothing landing past the capacity.
    const struct {
        const char* name;
        uint16_t capacity;
        size_t frameBytes;  // data bytes behind the device's head
        std::optional<TEmuFault> fault;
        DEV_ERR expected;
        uint16_t dataBytes;  // when read
    } cases[] = {
        {"whole", 256, 100, std::nullopt, DE_OK, 100},
        {"head and one byte", 33, 100, std::nullopt, DE_OK, 1},
        {"head only", 32, 100, std::nullopt, DE_BAD_VERSION, 0},
        {"two bytes", 2, 100, std::nullopt, DE_BAD_VERSION, 0},
        {"one byte", 1, 100, std::nullopt, DE_BAD_DATA_SIZE, 0},
        // The head's 16-bit count wraps: 65546 data bytes claim 10.
        {"head claims less than came", 65535, 65546, std::nullopt, DE_OK, 10},
        {"answer cut", 256, 100, TEmuFault{K::ShortReply, 0, S::Any, 0, 40}, DE_OK, 8},
        {"answer one byte", 256, 100, TEmuFault{K::ShortReply, 0, S::Any, 0, 1}, DE_BAD_DATA_SIZE,
         0},
        {"answer lost", 256, 100, TEmuFault{K::DropReply}, DE_DEV_READ, 0},
        {"answer garbage", 256, 100, TEmuFault{K::Garbage}, DE_BAD_VERSION, 0},
        {"answer without mark", 256, 100, TEmuFault{K::WrongCode}, DE_BAD_VERSION, 0},
        {"vanished", 256, 100, TEmuFault{K::Vanish}, DE_DEV_READ, 0},
        {"IN stalled once", 256, 100, TEmuFault{K::StallPipe, 0, S::Any, 0, 0, 1}, DE_OK, 100},
        {"OUT stalled twice", 256, 100, TEmuFault{K::StallPipe, 0, S::Any, 0, 1, 2}, DE_DEV_WRITE,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(Restart());
        TEmuRawFrame frame;
        frame.data = Pattern(c.frameBytes, 9);
        Emu().SetRawFrame(frame);
        if (c.fault) Emu().InjectFault(*c.fault);
        std::vector<uint8_t> storage(c.capacity + 1u, 0xEE);
        _HARDWARE_FRAME_DATA raw = RawFrame(storage, c.capacity);
        EXPECT_EQ(Ctl().GetFrameData(&raw), c.expected);
        EXPECT_EQ(storage[c.capacity], 0xEE) << "nothing written beyond the capacity";
        for (const TBulkTransfer& t : Rec().Transfers()) {
            EXPECT_TRUE(t.write || t.size == c.capacity) << "every read up to the capacity";
        }
        if (c.expected == DE_OK) {
            EXPECT_EQ(raw.dataBytes, c.dataBytes);
            EXPECT_EQ(raw.data, storage.data() + 32);
            EXPECT_TRUE(std::equal(frame.data.begin(), frame.data.begin() + raw.dataBytes,
                                   storage.begin() + 32));
        }
    }
}

// Verify an abort between blocks ends the read before the next request; the flag stays set
// until the next operation, and the size query ignores it.
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
        EXPECT_EQ(Transfers(), (TLines{Packet(MTDEV_PACKET_READ, MTDEV_CMD_DEV_STATUS, 0),
                                       Transfer('R', 65536, 1000)}))
            << "block 0's request and read only";
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

    // Between data writes: no more data and no end of data, so the device keeps nothing.
    ASSERT_NO_FATAL_FAILURE(Restart());
    std::vector<uint8_t> file = Pattern(3 * 65536, 11);
    Rec().SetHook([this](const TBulkTransfer& t) {
        if (t.write && t.size == 65536) Ctl().BreakOffCmdProcess();
    });
    EXPECT_EQ(Ctl().SetTouchSystemFile(file.data(), static_cast<int>(file.size())), DE_ERROR);
    Rec().SetHook(nullptr);
    EXPECT_EQ(Transfers(), (TLines{Packet(MTDEV_PACKET_WRITE, MTDEV_CMD_TOUCH_SYSTEM, 3 * 65536),
                                   Transfer('R', 64, 4000), Transfer('W', 65536, 10000, 200)}))
        << "the request, its acknowledgement and one data write";
    EXPECT_FALSE(Emu().LastWrite(MTDEV_CMD_TOUCH_SYSTEM, nullptr));
    EXPECT_EQ(Ctl().ProgressDone(), 65536u);
    EXPECT_EQ(Ctl().GetCmdProcess(), 33);

    // Looked at only before data: a write begun with the flag set still sends its request.
    ASSERT_NO_FATAL_FAILURE(Restart());
    Ctl().BreakOffCmdProcess();
    std::array<uint8_t, 43> data{};
    EXPECT_EQ(Ctl().SetHiSpeed(MTDEV_CMD_DEV_INFO, data.data(), 43), DE_ERROR);
    EXPECT_EQ(Transfers(), (TLines{Packet(MTDEV_PACKET_WRITE, MTDEV_CMD_DEV_INFO, 43),
                                   Transfer('R', 64, 4000)}));
    EXPECT_EQ(Rec().Transfers()[1].bytes, (std::vector<uint8_t>{0xE4, 0x04}));
    EXPECT_FALSE(Emu().LastWrite(MTDEV_CMD_DEV_INFO, nullptr));

    // The configuration read clears an abort that came during its head.
    ASSERT_NO_FATAL_FAILURE(Restart());
    Rec().SetHook([this](const TBulkTransfer& t) {
        if (!t.write && t.size == 4) Ctl().BreakOffCmdProcess();
    });
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    EXPECT_EQ(Ctl().GetDeviceConfig(config.get()), DE_OK);
    Rec().SetHook(nullptr);
    EXPECT_EQ(Rec().Transfers().size(), 4u);
    EXPECT_EQ(+config->port, 3333);
}

// Verify a full configuration block over bulk: head, then block, each 300 ms after its request.
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
    const uint32_t size = static_cast<uint32_t>(block.size());
    EXPECT_EQ(Transfers(), (TLines{Packet(MTDEV_PACKET_READ, MTDEV_CMD_DEV_CONFIG, 4u << 16),
                                   Transfer('R', 4, 1000, 300),
                                   Packet(MTDEV_PACKET_READ, MTDEV_CMD_DEV_CONFIG, size << 16),
                                   Transfer('R', size, 1000, 300)}));
    EXPECT_EQ(Rec().Transfers().back().bytes, block);
    EXPECT_EQ(Ctl().ProgressTotal(), size);
    EXPECT_EQ(Ctl().GetCmdProcess(), 100);

    auto decoded = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(DecodeDevConfig(block.data(), static_cast<int>(size), decoded.get()), DEV_CONFIG_DECODE_OK);
    EXPECT_EQ(std::memcmp(overBulk.get(), decoded.get(), sizeof *overBulk), 0);
    EXPECT_EQ(+overBulk->areaCount, 8);  // copied out of the packed record before comparing

    // Each failure: a lost answer is a read error here (over HID the stale request makes it 1).
    const TConfigCase cases[] = {
        {"head lost", Fault({K::DropReply}), DE_DEV_READ},
        {"block lost", Fault({K::DropReply, 0, S::Any, 1}), DE_DEV_READ},
        {"vanished after head", Fault({K::Vanish, 0, S::Any, 1}), DE_DEV_READ},
        {"block cut below its header", Fault({K::ShortReply, 0, S::Any, 1, 27}), DE_BAD_PARAM},
        {"head shorter than four", Block({3, 0, 0xB2}), DE_RW_LENGTH},
    };
    for (const TConfigCase& c : cases) {
        ASSERT_NO_FATAL_FAILURE(Restart());
        ExpectConfigRead(c, Emu(), Ctl());
    }
}

}  // namespace
