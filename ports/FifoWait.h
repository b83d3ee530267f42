// A FIFO named as a file makes open() and read() wait for the other end, for ever if nobody
// comes; and while the event loop runs, SIGINT and SIGTERM are blocked, so nothing would end
// that wait. These wait in short steps and take a pending SIGINT or SIGTERM as the end of the
// wait. Each needs the two signals blocked in the calling thread (they are once the event
// loop exists; otherwise a signal still ends the process by its default action).
#pragma once

#include <functional>
#include <string>

// Waits, when `path` is a FIFO without a reader, until a reader has it open (so that opening it
// for writing does not block); `waiting` runs once when the wait begins. Returns 0, or the
// number of the signal that ended the wait.
int WaitForFifoReader(const std::string& path, const std::function<void()>& waiting = nullptr);

// Reads the whole file at `path` into `text` (at most `limit` bytes: more is an error). A FIFO
// is waited for, a writer at a time, until end of file. Returns 0 and fills `text`, or -1 with
// `error` set to the system's reason, or the number of the signal that ended the wait.
int ReadWholeFileWaiting(const std::string& path, size_t limit, std::string* text,
                         std::string* error);

// "SIGINT", "SIGTERM", or "signal N".
std::string SignalName(int signal);
