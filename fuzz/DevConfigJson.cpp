// The configuration JSON reader on arbitrary text; whatever it accepts must write out and read
// back to the same record and the same text. Inputs whose first byte is 0xB2 are a configuration
// block instead: a record the decoder makes from it (stale texts, odd key types) must survive
// JSON the same way, so the writer is fuzzed with every record a frame can hand over.
#include "DevConfigJson.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace {

std::unique_ptr<_HARDWARE_DEV_CONFIG> Cleared() {
    auto c = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(c.get()), 0, sizeof(*c));
    return c;
}

// The record written and read back gives the same record and the same text again.
void CheckRoundTrip(const _HARDWARE_DEV_CONFIG& record) {
    const std::string text = DevConfigToJson(record);
    auto back = Cleared();
    std::string error;
    if (!DevConfigFromJson(text, back.get(), &error)) __builtin_trap();
    if (DevConfigFirstDifference(&record, back.get()) != nullptr) __builtin_trap();
    if (DevConfigToJson(*back) != text) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    if (size > 0 && data[0] == DEV_CONFIG_BLOCK_TAG) {
        auto decoded = Cleared();
        if (DecodeDevConfig(data + 1, static_cast<int>(size - 1), decoded.get()) ==
            DEV_CONFIG_DECODE_OK) {
            CheckRoundTrip(*decoded);
        }
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto record = Cleared();
    std::string error;
    if (DevConfigFromJson(text, record.get(), &error)) {
        CheckRoundTrip(*record);
        // Nothing outside the slots in use is left behind by the reader.
        auto again = Cleared();
        if (!DevConfigFromJson(DevConfigToJson(*record), again.get(), &error)) __builtin_trap();
        if (std::memcmp(record.get(), again.get(), sizeof(*record)) != 0) __builtin_trap();
    } else if (error.empty()) {
        __builtin_trap();  // every refusal says why
    }
    _HARDWARE_CONFIG_OVERRIDE override{};
    if (DevConfigOverrideFromJson(text, &override, &error)) {
        _HARDWARE_CONFIG_OVERRIDE back{};
        const std::string written = DevConfigOverrideToJson(override);
        if (!DevConfigOverrideFromJson(written, &back, &error)) __builtin_trap();
        if (std::memcmp(&override, &back, sizeof back) != 0) __builtin_trap();
    }
    return 0;
}
