#include "ConfigReload.h"

#include <vector>

#include "MtDevLog.h"
#include "ParseDriverOptions.h"

namespace {

// The configuration keys whose change waits for a restart, as the file names them.
std::vector<std::string> ChangesNeedingRestart(const DriverOptions& now,
                                               const DriverOptions& next) {
    std::vector<std::string> names;
    if (next.screen != now.screen) names.push_back("screen.size");
    if (next.display != now.display) names.push_back("screen.output");
    if (next.gestures != now.gestures) names.push_back("gestures.enabled");
    if (next.touchscreen != now.touchscreen) names.push_back("output.touchscreen");
    if (next.touchscreenWidthMm != now.touchscreenWidthMm ||
        next.touchscreenHeightMm != now.touchscreenHeightMm) {
        names.push_back("output.touchscreen size");
    }
    if (next.tuio.enabled != now.tuio.enabled || next.tuio.target != now.tuio.target ||
        next.tuio.areaTargets != now.tuio.areaTargets ||
        next.tuio.allowDeviceTargets != now.tuio.allowDeviceTargets) {
        names.push_back("output.tuio");
    }
    return names;
}

}  // namespace

TReloadResult ReloadDriverConfiguration(const TConfigChecks& checks, DriverOptions* options,
                                        const std::function<void()>& applyLive) {
    TReloadResult result;
    DriverOptions next = *options;
    std::string error;
    if (!RereadDriverConfig(checks, &next, &error)) {
        result.message = "configuration not reloaded, the one in force stays: " + error;
        TLog(TLogLevel::Error, "%s", result.message.c_str());
        return result;
    }
    const std::vector<std::string> waiting = ChangesNeedingRestart(*options, next);
    // Only what changes live is taken; the rest stays as the running outputs were made.
    options->logLevel = next.logLevel;
    options->keys = next.keys;
    options->shortcuts = next.shortcuts;
    options->configFile = next.configFile;
    options->configSkipped = next.configSkipped;
    for (const std::string& line : options->configSkipped) {
        TLog(TLogLevel::Warning, "%s", line.c_str());
    }
    if (applyLive) applyLive();
    result.reloaded = true;
    result.message = options->configFile.empty()
                         ? "configuration reloaded: no file, the built-in defaults"
                         : "configuration reloaded from " + options->configFile;
    TLog(TLogLevel::Info, "%s (keys: %s)", result.message.c_str(), options->keys.c_str());
    if (!waiting.empty()) {
        std::string names;
        for (size_t i = 0; i < waiting.size(); ++i) names += (i > 0 ? ", " : "") + waiting[i];
        result.restartNeeded = names + " changed: in force after a restart of irframed "
                                       "(systemctl --user restart irframed)";
        TLog(TLogLevel::Warning, "configuration: %s", result.restartNeeded.c_str());
    }
    return result;
}
