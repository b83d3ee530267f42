// Reads a whole input file (a configuration, a scan pattern, ...) with the true cause of any
// failure: "it is a directory", "Permission denied", "larger than 4194304 bytes". "-" is
// standard input. Pipes and FIFOs are read like files.
#pragma once

#include <cstddef>
#include <string>

// False with `why` (the cause alone, for the caller's "cannot read X 'PATH': why").
bool ReadInputFile(const std::string& path, size_t maxBytes, std::string* data, std::string* why);
