// The settings window's other models, without GTK: the frame list as the driver announces it,
// and the configuration backups that the calibrator and the window keep.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FrameAccess.h"
#include "LiveView.h"
#include "MtDevConfig.h"

// The driver's frames by number, updated from each fresh list (the window asks for one when
// the driver says a frame came or went).
class CFrameListModel {
public:
    struct TChange {
        std::vector<int> added;
        std::vector<int> removed;
        std::vector<int> changed;  // state, geometry or configuration summary
        bool Empty() const { return added.empty() && removed.empty() && changed.empty(); }
    };

    TChange Update(std::vector<TFrameEntry> frames);
    const std::vector<TFrameEntry>& Frames() const { return m_frames; }
    const TFrameEntry* Find(int number) const;

private:
    std::vector<TFrameEntry> m_frames;  // by number
};

// One line for the frames list: "1  IR Touch 20 (serial ABC)  aaec:c020  /dev/hidraw3  running
// 2 areas, 1 panel (4 keys)".
std::string FrameRow(const TFrameEntry& frame);

struct TBackupEntry {
    std::string path;
    std::string name;  // "frame1-20261126-011500.json"
    int frame = 0;     // the frame it was taken of
    std::time_t modified = 0;
};

// At most this many backups are listed, the newest.
inline constexpr size_t kMaxListedBackups = 500;

// The backups in `directory` ("frame<N>-<date>-<time>[-k].json", regular files), newest first;
// none when the directory is missing.
std::vector<TBackupEntry> ListBackups(const std::string& directory);

// Reads a saved configuration (a regular file of at most kDevConfigJsonMaxBytes). Null with
// `error` (one line naming the file) when it cannot be read or is not one.
std::unique_ptr<_HARDWARE_DEV_CONFIG> ReadSavedConfig(const std::string& path, std::string* error);

// What a bug report needs, as plain text: the versions, the frame's details, its information
// and status blocks, and its configuration as tables.
std::string DiagnosticsReport(const std::string& version, const TFrameEntry& frame,
                              const std::vector<uint8_t>& info, const std::vector<uint8_t>& status,
                              const _HARDWARE_DEV_CONFIG& config);

// "Which screen is this frame on?": every monitor shows "touch here" at once, each at its own
// place across its width, so that where the touch lies on the frame tells which monitor's
// target it was. Monitor `index` of `count` shows its target at this fraction of its size.
TViewPoint MonitorTarget(int index, int count);
// The monitor whose target a touch at `onFrame` (view units, as the live view's) was on; none
// for a touch nearer the middle between two targets than to either (a quarter of their spacing
// either side of a target counts), so that a stray touch maps nothing.
std::optional<int> TouchedMonitor(TViewPoint onFrame, int count);
