// The subcommands of irframectl over a transport. Each returns the tool's exit code or throws
// CToolError; results go to `out`, progress and questions to `err`.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

#include "FrameAccess.h"

struct TToolContext {
    ITransport& transport;
    std::string frame;  // FRAME: number, node or serial; empty for the only frame
    std::ostream& out;
    std::ostream& err;
    std::function<bool()> interrupted;  // Ctrl-C was pressed
    bool terminal = false;              // err is a terminal: draw a progress bar
    std::function<int()> stopSignal;    // the SIGINT or SIGTERM received, 0 for none
};

struct TRestoreOptions {
    std::string file;
    bool yes = false;      // write without asking
    std::string backup;    // where the replaced configuration goes; empty: next to `file`
    std::istream* answers = nullptr;  // where the confirmation is read; null: none possible
};

struct TMapOptions {
    std::string output;          // the monitor's connector name
    std::optional<int> area;     // one area's touchscreen only
    std::string desktop;         // gnome, kde, wlroots, x11; empty: the running one
    bool show = false;           // print what each desktop's setting says instead
};

int CmdList(TToolContext& ctx);
int CmdInfo(TToolContext& ctx);
int CmdStatus(TToolContext& ctx);
int CmdConfigShow(TToolContext& ctx);
int CmdConfigDump(TToolContext& ctx, const std::string& file);
int CmdConfigRestore(TToolContext& ctx, const TRestoreOptions& options);
int CmdMonitor(TToolContext& ctx, bool json);
int CmdRecord(TToolContext& ctx, const std::string& file);
int CmdScanPatternGet(TToolContext& ctx, const std::string& file);
int CmdScanPatternSet(TToolContext& ctx, const std::string& file);
int CmdTouchSystemFileSet(TToolContext& ctx, const std::string& file);
// Puts the frame's touchscreen (each area's, or area `options.area`'s) on a monitor in the
// desktop's own setting, and the gestures' pointer in the user's drop-in irframe.d/40-map.toml.
int CmdMap(TToolContext& ctx, const TMapOptions& options);

// Draws the progress of a transfer: a bar redrawn in place on a terminal, else a line per whole
// percent reached.
class CProgressDisplay {
public:
    CProgressDisplay(std::ostream& err, std::string label, bool terminal);
    void Update(uint32_t done, uint32_t total);
    void Finish();

private:
    std::ostream& m_err;
    std::string m_label;
    bool m_terminal;
    int m_lastPercent = -1;
    bool m_drawn = false;
};

// The name next to `file` under which a replaced configuration is kept:
// "<file without .json>.replaced-<stamp>.json", with "-2", "-3", ... when that exists.
std::string BackupPathFor(const std::string& file, const std::string& stamp);
