// The system's one logger.
//
// Every line has a level. The system's own fixed lines (such as "STEP 1" or "THREAD QUIT", the
// gesture trace and the gesture handlers' short lines) are debug lines; what a user should see
// (a frame found or lost, a frame failing, what to do about it) is info, warning or error.
// Lines go to standard error only: standard output belongs to the driver's JSON lines. Under
// systemd each line carries its journal priority ("<6>" and so on).
//
// Two channels are still told apart for readers: the system log (TLogSystem and the levelled
// lines) and the handlers' channel (TLogStdout). Tests install a sink to read what was logged;
// an installed sink gets every line, whatever the level.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

enum class TLogChannel { System, Stdout };

// Values are the journal's (syslog) priorities.
enum class TLogLevel { Error = 3, Warning = 4, Info = 6, Debug = 7 };

using TLogSink = std::function<void(TLogChannel channel, std::string_view line)>;

// Replaces the sink; an empty sink restores the default writer (standard error, filtered by
// the level). Returns the sink that was installed before.
TLogSink TSetLogSink(TLogSink sink);

// The default writer's settings: lines above `threshold` are dropped (and never formatted);
// `journalPrefix` puts the "<N>" priority in front of each line.
void TSetLogOutput(TLogLevel threshold, bool journalPrefix);
// Puts "PROGRAM: " in front of every line of the default writer, for a tool whose lines are
// messages to its user rather than a log; empty for none (the default).
void TSetLogProgramName(std::string_view program);
TLogLevel TLogThreshold();
// Whether a line of `level` would be written anywhere (a sink, or the writer's threshold).
bool TLogEnabled(TLogLevel level);

// "error", "warning", "info", "debug" (also "warn" and the digits 3, 4, 6, 7); empty otherwise.
std::optional<TLogLevel> ParseLogLevel(std::string_view name);
const char* LogLevelName(TLogLevel level);

void TLog(TLogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The system's own fixed lines: debug level.
void TLogSystem(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The gesture handlers' lines: debug level.
void TLogStdout(const char* format, ...) __attribute__((format(printf, 1, 2)));
