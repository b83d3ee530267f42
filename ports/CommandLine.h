// The command line of the programs (irframed, irframectl), parsed with CLI11 so that every
// mistake is one line that starts with the program's name:
//   "irframectl: unknown command 'frobnicate'; the commands are list, info, ..."
//   "irframed: The following argument was not expected: --bogus (see irframed --help)"
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

// Parses; nothing when the program goes on. Otherwise the exit status: 0 after --help or
// --version were printed, 1 when they could not be written, 2 for a mistake (said on standard
// error). A command where a subcommand is required and a word that is none is named as an
// unknown command.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, const char* const* argv);
