// Cost of the configuration codec on a full block: 32 calibration areas and 4 button panels of
// 32 keys each, the largest record a device can hold. The worker decodes it once per attach and
// a tool encodes it before every write, so a full block must round-trip well within a frame.
#include "MtDevConfig.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

std::unique_ptr<_HARDWARE_DEV_CONFIG> NewConfig() {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0, sizeof *config);
    return config;
}

void SetText(wchar_t (&text)[DEV_CONFIG_TEXT_CHARS], const std::wstring& value) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        text[i] = i < static_cast<int>(value.size()) && i < DEV_CONFIG_TEXT_CHARS - 1
                      ? value[static_cast<size_t>(i)]
                      : 0;
    }
}

// Keys cycle through the kinds a panel holds: a code key, a text key with two numbers and one
// with three (texts of their own, so each is stored), and a text key sharing one common text
// (stored once, found again by the encoder's look-back).
// With codeOnly every key is a code key: no texts to share or place.
void FillKey(_HARDWARE_KEY_CONFIG& key, int panel, int index, bool codeOnly) {
    key.rect = {static_cast<uint16_t>(50 * (index % 8)), static_cast<uint16_t>(25 * (index / 8)),
                50, 25};
    const std::wstring own = L"Panel " + std::to_wstring(panel) + L" key " + std::to_wstring(index);
    switch (codeOnly ? 0 : index % 4) {
        case 0:
            key.type = KEY_TYPE_CODE;
            key.code0 = static_cast<uint8_t>(0x10 + index);
            key.code1 = static_cast<uint8_t>(panel);
            key.code2 = 0x02;
            break;
        case 1:
            key.type = KEY_TYPE_TEXT2;
            SetText(key.text, own);
            key.keyValue1 = static_cast<uint32_t>(1000 * panel + index);
            key.keyValue2 = 7;
            break;
        case 2:
            key.type = KEY_TYPE_TEXT3;
            SetText(key.text, own + L" (long)");
            key.keyValue1 = static_cast<uint32_t>(index);
            key.keyValue2 = static_cast<uint32_t>(panel);
            key.keyValue3 = 0x00010203;
            break;
        default:
            key.type = KEY_TYPE_TEXT2;
            SetText(key.text, L"Enter");
            key.keyValue1 = 13;
            key.keyValue2 = 0;
            break;
    }
}

std::unique_ptr<_HARDWARE_DEV_CONFIG> FullConfig(bool codeOnly) {
    auto config = NewConfig();
    DefaultDevConfig('a', 0, config.get());
    config->flags |= DEV_FLAG_AREAS_ENABLED | DEV_FLAG_PANELS_ENABLED;
    SetText(config->text, L"Meeting room 3");
    config->textValue1 = 12;
    config->textValue2 = 34;
    config->rec1Byte = 1;
    config->rec1Value0 = 640;
    config->rec1Value1 = 480;
    config->rec2Value = 16;
    config->rec4Byte = 2;

    // An 8 x 4 grid of areas over the frame.
    constexpr int kRaw = 32767;
    for (int i = 0; i < DEV_CONFIG_MAX_AREAS; ++i) {
        const int c = i % 8;
        const int r = i / 8;
        _HCRECT_CONFIG_FILE& area = config->areas[config->areaCount++];
        area.netAddress = config->netAddress;
        area.port = config->port;
        area.port2 = config->port2;
        area.mode = static_cast<uint8_t>(config->flags & 0xFF);
        area.id = static_cast<uint8_t>(i);
        area.group = static_cast<uint8_t>(r);
        area.rotation = static_cast<uint8_t>(i % 4);
        area.outputRect = {0, 0, 1920, 1080};
        area.targetRect = {240 * c, 270 * r, 240, 270};
        for (auto& e : area.edgeAdjust) e = 15;
        area.center = {static_cast<int16_t>(kRaw * (2 * c + 1) / 16),
                       static_cast<int16_t>(kRaw * (2 * r + 1) / 8)};
        area.axisH = {static_cast<int16_t>(-kRaw / 16), 0};
        area.axisV = {0, static_cast<int16_t>(kRaw / 8)};
    }

    for (int p = 0; p < DEV_CONFIG_MAX_PANELS; ++p) {
        _HBRECT_CONFIG_FILE& panel = config->panels[config->panelCount++];
        panel.id = static_cast<uint8_t>(p);
        panel.rows = 4;
        panel.columns = 8;
        panel.width = 400;
        panel.height = 100;
        panel.center = {static_cast<int16_t>(4000 + 8000 * p), 30000};
        panel.axisH = {-2000, 0};
        panel.axisV = {0, 1500};
        for (int k = 0; k < DEV_CONFIG_MAX_KEYS; ++k) FillKey(panel.keys[k], p, k, codeOnly);
    }
    return config;
}

// The full record and its block, checked to round-trip before anything is timed.
struct Fixture {
    std::unique_ptr<_HARDWARE_DEV_CONFIG> config;
    std::unique_ptr<_HARDWARE_DEV_CONFIG> decoded = NewConfig();
    std::vector<uint8_t> block;
    const char* error = nullptr;

    explicit Fixture(bool codeOnly = false) : config(FullConfig(codeOnly)) {
        const int length = EncodeDevConfig(config.get(), nullptr);
        block.assign(static_cast<size_t>(length), 0);
        if (EncodeDevConfig(config.get(), block.data()) != length) {
            error = "encoded length differs from computed length";
        } else if (DecodeDevConfig(block.data(), length, decoded.get()) != DEV_CONFIG_DECODE_OK) {
            error = "block does not decode";
        } else if (decoded->areaCount != DEV_CONFIG_MAX_AREAS ||
                   decoded->panelCount != DEV_CONFIG_MAX_PANELS) {
            error = "block lost areas or panels";
        } else if (const char* field = DevConfigFirstDifference(config.get(), decoded.get())) {
            error = field;
        }
    }
    int Length() const { return static_cast<int>(block.size()); }
};

void BM_DecodeDevConfigFull(benchmark::State& state) {
    Fixture f;
    if (f.error != nullptr) {
        state.SkipWithError(f.error);
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(DecodeDevConfig(f.block.data(), f.Length(), f.decoded.get()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * f.Length());
    state.counters["block_bytes"] = f.Length();
}
BENCHMARK(BM_DecodeDevConfigFull);

// The full block, and the same block with code keys only, to show what placing the 96 key
// texts costs.
void BM_EncodeDevConfig(benchmark::State& state, bool codeKeysOnly) {
    Fixture f(codeKeysOnly);
    if (f.error != nullptr) {
        state.SkipWithError(f.error);
        return;
    }
    std::vector<uint8_t> out(f.block.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(EncodeDevConfig(f.config.get(), out.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * f.Length());
    state.counters["block_bytes"] = f.Length();
}
BENCHMARK_CAPTURE(BM_EncodeDevConfig, Full, false);
BENCHMARK_CAPTURE(BM_EncodeDevConfig, CodeKeys, true);

// The sizing pass the controller makes before it encodes (EncodeDevConfig without a buffer).
void BM_SizeDevConfigFull(benchmark::State& state) {
    Fixture f;
    if (f.error != nullptr) {
        state.SkipWithError(f.error);
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(EncodeDevConfig(f.config.get(), nullptr));
    state.counters["block_bytes"] = f.Length();
}
BENCHMARK(BM_SizeDevConfigFull);

// Encode, then decode what was written: into a buffer already sized, or as SetDeviceConfig
// and GetDeviceConfig make it, with the sizing pass first to allocate the block.
void BM_RoundTripDevConfig(benchmark::State& state, bool sizeFirst) {
    Fixture f;
    if (f.error != nullptr) {
        state.SkipWithError(f.error);
        return;
    }
    std::vector<uint8_t> out(f.block.size());
    for (auto _ : state) {
        if (sizeFirst) benchmark::DoNotOptimize(EncodeDevConfig(f.config.get(), nullptr));
        const int length = EncodeDevConfig(f.config.get(), out.data());
        benchmark::DoNotOptimize(DecodeDevConfig(out.data(), length, f.decoded.get()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * f.Length());
    state.counters["block_bytes"] = f.Length();
}
BENCHMARK_CAPTURE(BM_RoundTripDevConfig, Full, false);
BENCHMARK_CAPTURE(BM_RoundTripDevConfig, SizedFull, true);

}  // namespace
