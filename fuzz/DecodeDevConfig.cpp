// Arbitrary bytes through the configuration decoder: with a null record (the length probe),
// into a cleared record, and again into the record the first decode left, so stale contents
// are exercised too. The decoded record is then encoded into a buffer of exactly the announced
// size, so ASan sees any write past it.
#include "MtDevConfig.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

void CheckLimits(const _HARDWARE_DEV_CONFIG& c) {
    if (c.areaCount > DEV_CONFIG_MAX_AREAS || c.extraCount > DEV_CONFIG_MAX_EXTRAS ||
        c.panelCount > DEV_CONFIG_MAX_PANELS || c.backupLength >= DEV_CONFIG_BACKUP_BYTES) {
        __builtin_trap();
    }
    for (int p = 0; p < c.panelCount; ++p) {
        if (c.panels[p].rows * c.panels[p].columns > DEV_CONFIG_MAX_KEYS) __builtin_trap();
    }
}

void EncodeExactly(const _HARDWARE_DEV_CONFIG& c) {
    const int length = EncodeDevConfig(&c, nullptr);
    if (length < DEV_CONFIG_HEADER_BYTES) __builtin_trap();
    std::vector<uint8_t> out(static_cast<size_t>(length));
    if (EncodeDevConfig(&c, out.data()) != length) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 17) return 0;
    const int length = static_cast<int>(size);

    const int probe = DecodeDevConfig(data, length, nullptr);
    if (probe != -1 && probe != 0 && (probe < 4 || probe > 0xFFFF)) __builtin_trap();

    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(config.get()), 0, sizeof(*config));
    const int result = DecodeDevConfig(data, length, config.get());
    if (result != -1 && result != 0 && result != DEV_CONFIG_DECODE_OK) __builtin_trap();
    if ((probe == 0) != (result == 0)) __builtin_trap();  // the tag decides both
    CheckLimits(*config);
    EncodeExactly(*config);

    // Again over what is left: a second decode must keep the record within its limits too.
    if (size > 1) {
        DecodeDevConfig(data + 1, length - 1, config.get());
        CheckLimits(*config);
        EncodeExactly(*config);
    }
    return 0;
}
