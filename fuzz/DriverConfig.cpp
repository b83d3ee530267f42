// Arbitrary text as a configuration file. A text that reads must print as TOML that reads back
// to the same configuration in force and prints the same again; a text that does not read must
// leave the configuration as it was and say why on one line with the file's name. Read again
// over itself, as a drop-in repeating the main file, a text changes nothing.
#include "DriverConfig.h"
#include "LinuxConfigChecks.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TConfigChecks checks = LinuxConfigChecks();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const TDriverConfig defaults = DefaultDriverConfig(checks);
    TDriverConfig config = defaults;
    std::string error;
    if (!ParseDriverConfig(text, "fuzz.toml", checks, &config, &error)) {
        if (!(config == defaults) || error.rfind("fuzz.toml:", 0) != 0) abort();
        if (error.find('\n') != std::string::npos) abort();
        return 0;
    }
    TDriverConfig twice = config;
    if (!ParseDriverConfig(text, "fuzz.d.toml", checks, &twice, &error) || !(twice == config)) {
        abort();
    }
    const std::string printed = PrintConfig(config, checks);
    TDriverConfig back = defaults;
    if (!ParseDriverConfig(printed, "printed.toml", checks, &back, &error)) abort();
    if (EffectiveShortcuts(back, checks) != EffectiveShortcuts(config, checks)) abort();
    back.shortcuts = config.shortcuts;
    if (!(back == config)) abort();
    if (PrintConfig(back, checks) != printed) abort();
    return 0;
}
