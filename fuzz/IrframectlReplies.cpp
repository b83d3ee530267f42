// The driver's answers as irframectl reads them: {"bytes":"<hex>"} for a block, the
// configuration JSON for a configuration. Anything else must end in a refusal, never a crash.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "BusTransport.h"
#include "DevConfigJson.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const std::vector<uint8_t> bytes = BytesFromDriverJson(text, "reply");
        // What came back is exactly the hexadecimal digits' bytes.
        if (bytes.size() * 2 + 12 > size) __builtin_trap();
    } catch (const CToolError& e) {
        if (e.ExitCode() != kCtlFailure) __builtin_trap();
    }
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::string error;
    DevConfigFromJson(text, config.get(), &error);
    return 0;
}
