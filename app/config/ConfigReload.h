// Reloading the configuration file while the driver runs: on SIGHUP, and for any caller that
// asks for it (the D-Bus interface).
#pragma once

#include <functional>
#include <string>

#include "ConfigChecks.h"
#include "DriverOptions.h"

struct TReloadResult {
    bool reloaded = false;  // false: the file could not be read or has errors; nothing changed
    std::string message;    // one line: what was read, or why not
    std::string restartNeeded;  // one line naming the changed settings that wait for a restart
};

// Reads the configuration file again, found as at start and under what the command line gave.
// The log level, the key profile and the shortcuts go into `options` at once, and `applyLive`
// is called to put them in force; settings that need a restart (the screen, the touchscreen,
// TUIO) keep their values and are named. A file that cannot be read or has errors changes
// nothing. Logs what it did. Main thread.
TReloadResult ReloadDriverConfiguration(const TConfigChecks& checks, DriverOptions* options,
                                        const std::function<void()>& applyLive);
