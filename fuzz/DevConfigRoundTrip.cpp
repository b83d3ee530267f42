// Decode arbitrary bytes; when they decode, encode the record and decode the block again: both
// records must agree on every field a block carries, the block must announce its own length,
// and encoding the second record must give the same block.
#include "MtDevConfig.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

std::unique_ptr<_HARDWARE_DEV_CONFIG> Cleared() {
    auto c = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(c.get()), 0, sizeof(*c));
    return c;
}

std::vector<uint8_t> Encode(const _HARDWARE_DEV_CONFIG& c) {
    std::vector<uint8_t> out(static_cast<size_t>(EncodeDevConfig(&c, nullptr)), 0);
    if (EncodeDevConfig(&c, out.data()) != static_cast<int>(out.size())) __builtin_trap();
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 17) return 0;
    auto first = Cleared();
    if (DecodeDevConfig(data, static_cast<int>(size), first.get()) != DEV_CONFIG_DECODE_OK) {
        return 0;
    }
    const std::vector<uint8_t> block = Encode(*first);
    if ((block[0] | (block[1] << 8)) != static_cast<int>(block.size())) __builtin_trap();

    auto second = Cleared();
    if (DecodeDevConfig(block.data(), static_cast<int>(block.size()), second.get()) !=
        DEV_CONFIG_DECODE_OK) {
        __builtin_trap();
    }
    if (DevConfigFirstDifference(first.get(), second.get()) != nullptr) __builtin_trap();
    if (Encode(*second) != block) __builtin_trap();
    return 0;
}
