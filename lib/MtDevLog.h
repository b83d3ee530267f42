// The system's one logger. Two channels are kept apart: the system log (fixed lines such as
// "STEP 1" or "THREAD QUIT") and standard output (short lines from the gesture handlers).
// Tests install a sink to read what was logged.
#pragma once

#include <functional>
#include <string_view>

enum class TLogChannel { System, Stdout };

using TLogSink = std::function<void(TLogChannel channel, std::string_view line)>;

// Replaces the sink; an empty sink restores the default (system log to stderr, the other
// channel to stdout, one line each). Returns the sink that was installed before.
TLogSink TSetLogSink(TLogSink sink);

void TLogSystem(const char* format, ...) __attribute__((format(printf, 1, 2)));
void TLogStdout(const char* format, ...) __attribute__((format(printf, 1, 2)));
