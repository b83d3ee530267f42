// Cost of the device link as the worker sees it: the controller talking through the real hidraw
// port to the emulated frame, which answers from its own thread over a SOCK_SEQPACKET
// socketpair. Each poll wakes two threads and makes four socket calls and a timer set-up,
// against tens of nanoseconds of decoding; the median is reported beside the mean because one
// late wake-up on a busy machine moves the mean a long way.
//
// The per-call times are kept and their median and 90th/99th percentiles reported as counters
// (in microseconds); the time column is their mean.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "HidrawDevice.h"
#include "MtDevConfig.h"
#include "MtDevCtrlInterface.h"
#include "MtDevEmulator.h"
#include "MtDevLog.h"
#include "MtEmuHidLink.h"

namespace {

// The emulated frame on a socketpair and a controller opened on it through the hidraw port.
struct LinkRig {
    TLogSink previousLog;
    CMtDevEmulator emulator;
    CMtEmuHidLink link{emulator};
    std::unique_ptr<CHidrawDevice> port;
    TMACDEVICEPATH path{};
    std::unique_ptr<CMtDevController> controller;

    LinkRig() {
        previousLog = TSetLogSink([](TLogChannel, std::string_view) {});
        port = CHidrawDevice::Adopt(link.TakeHostFd());
        path.hidDevice = port.get();
        path.usbService = nullptr;
        path.deviceType = MTDEV_TYPE_HID;
        controller = std::make_unique<CMtDevController>();
    }
    ~LinkRig() {
        controller.reset();  // before the port it uses
        TSetLogSink(std::move(previousLog));
    }

    bool Open() { return link.Ok() && controller->OpenDevice(&path) == DE_OK; }
};

// Per-call times in microseconds.
class Samples {
public:
    Samples() { m_us.reserve(1 << 16); }

    template <typename F>
    void Time(benchmark::State& state, F&& call) {
        const auto start = std::chrono::steady_clock::now();
        call();
        const auto stop = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(stop - start).count();
        state.SetIterationTime(seconds);
        m_us.push_back(seconds * 1e6);
    }

    void Report(benchmark::State& state, double perCallDivisor = 1.0) {
        if (m_us.empty()) return;
        std::sort(m_us.begin(), m_us.end());
        auto at = [this](double q) {
            return m_us[std::min(m_us.size() - 1, static_cast<size_t>(q * m_us.size()))];
        };
        state.counters["median_us"] = at(0.5);
        state.counters["p90_us"] = at(0.9);
        state.counters["p99_us"] = at(0.99);
        if (perCallDivisor != 1.0) state.counters["median_per_piece_us"] = at(0.5) / perCallDivisor;
    }

private:
    std::vector<double> m_us;
};

// One live poll: the 37-byte frame request out, the 64-byte frame back, decoded. The frame
// carries nine compact contacts, the most a frame report holds.
void BM_GetFrameSdkRoundTrip(benchmark::State& state) {
    LinkRig rig;
    if (!rig.Open()) {
        state.SkipWithError("could not open the emulated frame");
        return;
    }
    rig.emulator.KeepRequestLog(false);  // it would grow with every poll
    std::vector<TEmuContact> contacts;
    for (uint8_t i = 1; i <= 9; ++i) {
        contacts.push_back({i, 1, static_cast<uint16_t>(1000 * i), static_cast<uint16_t>(900 * i)});
    }
    rig.emulator.SetIdleFrame(EmuCompactFrame(16384, 16384, contacts));

    // The worker's own frame storage, allocated once.
    std::vector<_HARDWARE_SDK_POINT> storage(FRAME_POINT_BUFFER_BYTES /
                                             sizeof(_HARDWARE_SDK_POINT));
    _HARDWARE_FRAME_SDK frame{};
    frame.pointBufferBytes = static_cast<uint16_t>(storage.size() * sizeof(_HARDWARE_SDK_POINT));
    frame.pointBuffer = reinterpret_cast<uint8_t*>(storage.data());

    // Warm the path and check the frame arrives whole before timing it.
    int count = 0;
    if (rig.controller->GetFrameSdk(&frame) == DE_OK) {
        for (const _HARDWARE_SDK_POINT* p = frame.points; p != nullptr; p = p->next) ++count;
    }
    if (count != 9) {
        state.SkipWithError("the warm-up poll did not bring nine contacts");
        return;
    }

    Samples samples;
    DEV_ERR result = DE_OK;
    for (auto _ : state) {
        samples.Time(state, [&] { result = rig.controller->GetFrameSdk(&frame); });
        if (result != DE_OK) {
            state.SkipWithError("a poll failed");
            break;
        }
    }
    samples.Report(state);
    state.SetItemsProcessed(state.iterations());  // polls
}
BENCHMARK(BM_GetFrameSdkRoundTrip)->UseManualTime();

// A 2048-byte block: 32 areas, 10 auxiliary records and the two short records.
std::vector<uint8_t> Block2K() {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0, sizeof *config);
    DefaultDevConfig('a', 0, config.get());
    for (int i = 0; i < DEV_CONFIG_MAX_AREAS; ++i) {
        _HCRECT_CONFIG_FILE& area = config->areas[config->areaCount++];
        area.id = static_cast<uint8_t>(i);
        area.outputRect = {0, 0, 1920, 1080};
        area.targetRect = {240 * (i % 8), 270 * (i / 8), 240, 270};
        for (auto& e : area.edgeAdjust) e = 15;
        area.center = {static_cast<int16_t>(2048 + 4096 * (i % 8)),
                       static_cast<int16_t>(4096 + 8192 * (i / 8))};
        area.axisH = {-2048, 0};
        area.axisV = {0, 4096};
    }
    for (int i = 0; i < 10; ++i) {
        for (int b = 0; b < DEV_CONFIG_EXTRA_BYTES; ++b) {
            config->extras[config->extraCount][b] = static_cast<uint8_t>(i + b);
        }
        ++config->extraCount;
    }
    config->rec1Byte = 1;
    config->rec1Value0 = 640;
    config->rec1Value1 = 480;
    config->rec4Byte = 2;
    std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
    EncodeDevConfig(config.get(), block.data());
    return block;
}

// Reading the configuration as a worker does once per attach: a 4-byte head, then the block in
// 58-byte lo-speed pieces, one request and one reply each, then decoded.
void BM_GetDeviceConfig2K(benchmark::State& state) {
    const std::vector<uint8_t> block = Block2K();
    if (block.size() != 2048) {
        state.SkipWithError("the block is not 2048 bytes");
        return;
    }
    LinkRig rig;
    if (!rig.Open()) {
        state.SkipWithError("could not open the emulated frame");
        return;
    }
    rig.emulator.SetConfigBlock(block);
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();

    // One untimed read with the request log on: the head, then every piece.
    const size_t pieces = (block.size() + MTDEV_PIECE_DATA_BYTES - 1) / MTDEV_PIECE_DATA_BYTES;
    if (rig.controller->GetDeviceConfig(config.get()) != DE_OK || config->areaCount != 32 ||
        config->extraCount != 10) {
        state.SkipWithError("the block did not read back");
        return;
    }
    if (rig.emulator.RequestCount() != 1 + pieces) {
        state.SkipWithError("unexpected number of requests for one read");
        return;
    }
    rig.emulator.KeepRequestLog(false);
    rig.emulator.ClearRequests();

    Samples samples;
    DEV_ERR result = DE_OK;
    for (auto _ : state) {
        samples.Time(state, [&] { result = rig.controller->GetDeviceConfig(config.get()); });
        if (result != DE_OK) {
            state.SkipWithError("a read failed");
            break;
        }
    }
    samples.Report(state, static_cast<double>(1 + pieces));
    state.counters["round_trips"] = static_cast<double>(1 + pieces);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(block.size()));
}
BENCHMARK(BM_GetDeviceConfig2K)->UseManualTime();

}  // namespace
