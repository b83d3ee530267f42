// Starting a program under test with its standard input from /dev/null and its standard
// output and error in files, for the end-to-end tests that read both afterwards.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The child's process id, or -1 when it could not be started.
pid_t SpawnWithOutputFiles(std::vector<std::string> argv, const std::string& out,
                           const std::string& err);
