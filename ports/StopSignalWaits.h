// Waits that SIGINT and SIGTERM end. Once the event loop exists the two signals are blocked
// (the loop reads them), so a blocking call made outside the loop would not see them: a FIFO
// named as a file makes open() and read() wait for the other end, for ever if nobody comes.
// These wait in short steps and look for a pending SIGINT or SIGTERM between them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Reads the whole file at `path` into `text` (at most `limit` bytes: more is an error). A FIFO
// is waited for, a writer at a time, until end of file. Returns 0 and fills `text`, or -1 with
// `error` set to the system's reason, or the number of the signal that ended the wait. The two
// signals are held back in the calling thread while it reads, whatever their handling.
int ReadWholeFileWaiting(const std::string& path, size_t limit, std::string* text,
                         std::string* error);

// Whether SIGINT or SIGTERM is pending; it stays pending, for the event loop to handle.
bool StopSignalPending();

// The longest step of a wait that looks for a stop signal between steps.
inline constexpr uint64_t kStopCheckMicros = 50'000;

// "SIGINT", "SIGTERM", or "signal N".
std::string SignalName(int signal);
