// Reads a whole input file (a configuration, a scan pattern, a gesture script, ...) with the
// true cause of any failure: "it is a directory", "Permission denied", "larger than 4194304
// bytes". "-" is standard input. Pipes and FIFOs are read like files: a FIFO's writer is waited
// for, and the read ends at its end of file.
//
// Nothing here blocks without looking up: every wait (a FIFO without a writer yet, a pipe or a
// terminal without data) runs in steps, and `stop`, when given, is asked between them; a signal
// number from it ends the read. A program whose handler takes SIGINT and SIGTERM passes the one
// it took; one that holds them pending takes them there (StopSignalWaits.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// The signal that asks a read to stop, 0 for none yet.
using TInputStop = std::function<int()>;

// How long one step of a wait lasts: the delay between a stop and the end of the read.
inline constexpr int kInputStepMillis = 50;

// False with `why` (the cause alone, for the caller's "cannot read X 'PATH': why"). Its waits
// have no end but the input's.
bool ReadInputFile(const std::string& path, size_t maxBytes, std::string* data, std::string* why);

// The same, asking `stop` between the steps of a wait: 0 with `data`; -1 with `why`; or the
// signal number `stop` gave, `data` then empty.
int ReadInputFileUnlessStopped(const std::string& path, size_t maxBytes, std::string* data,
                               std::string* why, const TInputStop& stop);
