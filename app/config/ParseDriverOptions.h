// The driver's command line: parsing, checks that need no device, and the exit status of a
// run that ends here (help, version, a usage error).
#pragma once

#include <optional>

#include "ConfigChecks.h"
#include "DriverOptions.h"
#include "MtDevLog.h"

// Exit statuses of the driver.
inline constexpr int kExitOk = 0;
inline constexpr int kExitCannotStart = 1;  // no uinput, an unreadable file, ...
inline constexpr int kExitUsage = 2;        // a bad option or script

// Fills `options` from the command line over the configuration file (--config FILE, else the
// user's, else the system's; none with --no-config), whose values `checks` judges. Returns the
// exit status when the run ends here (help, version and --print-config give 0; a file that
// cannot be read 1; mistakes 2, with a line on standard error); nothing when it goes on.
std::optional<int> ParseDriverOptions(int argc, const char* const* argv, DriverOptions* options,
                                      const TConfigChecks& checks);

// Reads the configuration file again, as the options chose it at start, under the settings the
// command line gave. False with one line in `error` (the file, and for a mistake in it its
// line and column) and `options` unchanged.
bool RereadDriverConfig(const TConfigChecks& checks, DriverOptions* options, std::string* error);

// The level the options ask for: --log-level, else info raised by -v (-vv: debug).
TLogLevel EffectiveLogLevel(const DriverOptions& options);
// Sets the log writer from the options; under systemd (JOURNAL_STREAM names our standard
// error) each line carries its journal priority.
void ApplyLogOptions(const DriverOptions& options);
