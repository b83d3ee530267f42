// The frame's whole configuration, kept before a calibration replaces one of its areas.
#pragma once

#include <string>

// $XDG_STATE_HOME/irframe/backups, or ~/.local/state/irframe/backups.
std::string BackupDirectory();

// Saves `text` as a new file "frame<N>-<YYYYmmdd-HHMMSS>.json" in `directory` (made when missing),
// "-2", "-3", ... when that name is taken: never over an existing file, and never half written.
// Returns its path; throws CToolError (exit 1) when it cannot be saved.
std::string SaveBackup(const std::string& directory, int frame, const std::string& text);
