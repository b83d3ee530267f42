// Arbitrary text as a TUIO target ("[HOST:]PORT" from the command line or the configuration
// file): a target that parses must have a port, a host of allowed length, and must read back the
// same from its own text form.
#include "TuioSettings.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string error;
    const auto target = ParseTuioTarget(text, &error);
    if (!target) {
        if (error.empty() || error.size() > 200) __builtin_trap();
        return 0;
    }
    if (target->port == 0 || target->host.empty() || target->host.size() > 253) __builtin_trap();
    const auto again = ParseTuioTarget(FormatTuioTarget(*target), nullptr);
    if (!again || !(*again == *target)) __builtin_trap();
    return 0;
}
