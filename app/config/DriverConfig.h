// The driver's configuration file, in TOML:
//
//   log_level = "info"                 # error, warning, info, debug
//   [screen]
//   size = "1920x1080"                 # as --screen takes it (+X+Y too); "" for not set
//   output = "HDMI-1"                  # the XRandR output, as --display; "" for the primary
//   [keys]
//   profile = "safe"                   # a key profile
//   [shortcuts]
//   rotate-clockwise = "none"          # a chord per named gesture shortcut
//   four-finger-left = "ctrl+alt+right"
//
// Every key is optional. An unknown key, a value of the wrong type or out of range is an error
// that names file:line:column and lists what is valid. Sections are declared in one table of
// known keys (DriverConfig.cpp); a new one is a field here and a few rows there.
//
// Where it is read from: --config FILE alone; else the user's irframe.toml
// ($XDG_CONFIG_HOME/irframe, default ~/.config/irframe) or, when there is none, the system's
// /etc/irframe/irframe.toml followed by /etc/irframe/irframe.d/*.toml; then the user's
// irframe.d/*.toml. Later files override the keys they set; none at all: built-in defaults.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ConfigChecks.h"
#include "GestureShortcuts.h"

// A configuration file larger than this is refused unread.
inline constexpr size_t kMaxConfigBytes = 1 << 20;
// Drop-in files read from one irframe.d directory; the rest, last in name order, are skipped.
inline constexpr size_t kMaxConfigDropIns = 32;

// The log levels, least verbose first.
inline constexpr std::array<const char*, 4> kConfigLogLevels = {"error", "warning", "info",
                                                                "debug"};

struct TDriverConfig {
    std::string logLevel = "info";
    std::string screenSize;    // "WxH" or "WxH+X+Y"; empty: not set
    std::string screenOutput;  // an XRandR output's name; empty: not set (the primary)
    bool gestures = true;      // [gestures] enabled: the mouse and shortcut emulation
    std::string keyProfile;    // one of TConfigChecks::keyProfiles
    TShortcutOverrides shortcuts;  // the file's chord per named shortcut, in one spelling
    // [output]: the native outputs besides the gestures.
    bool touchscreen = false;
    bool touchscreenPerArea = false;  // touchscreen = "per-area": one per calibration area
    int touchscreenWidthMm = 0;   // 0: the touchscreen's default size
    int touchscreenHeightMm = 0;
    // [output.tuio]
    bool tuio = false;
    std::string tuioTarget;       // "[HOST:]PORT" for every area; empty: each area's own
    bool tuioAllowDeviceTargets = false;
    std::map<int, std::string> tuioAreaTargets;  // [output.tuio.areas]: by area index 0..31

    bool operator==(const TDriverConfig&) const = default;
};

// The configuration without a file: the default profile.
TDriverConfig DefaultDriverConfig(const TConfigChecks& checks);

// Reads configuration text over `config` (which starts as the defaults). `name` is the file's
// name in messages. On error returns false with one line "name:line:column: what is wrong";
// `config` is then left as it was.
bool ParseDriverConfig(std::string_view text, const std::string& name, const TConfigChecks& checks,
                       TDriverConfig* config, std::string* error);

// How reading a configuration file went: a file that cannot be read stops the driver as one
// that cannot start, a file that says something wrong as a usage error.
enum class TConfigStatus { Ok, CannotRead, Invalid };

// Reads a configuration file: a regular file of at most kMaxConfigBytes of UTF-8 TOML. On error
// sets `error` to one line naming the file and what to do.
TConfigStatus LoadDriverConfigFile(const std::string& path, const TConfigChecks& checks,
                                   TDriverConfig* config, std::string* error);

// One entry of a directory.
struct TConfigDirEntry {
    std::string name;
    bool regular = false;  // a regular file, or a link to one
};

// What decides where the configuration is read from.
struct TConfigEnvironment {
    std::string explicitPath;                 // --config FILE; empty when not given
    std::optional<std::string> xdgConfigHome;  // $XDG_CONFIG_HOME
    std::optional<std::string> home;           // $HOME
    std::string systemDir = "/etc";
    std::function<bool(const std::string& path)> exists;  // anything at the path
    // The entries of a directory, none when it cannot be listed; unset: no drop-ins anywhere.
    std::function<std::vector<TConfigDirEntry>(const std::string& dir)> list;
};

// The files to read, in order, and one line per file that was passed over and why.
struct TConfigSources {
    std::vector<std::string> files;
    std::vector<std::string> skipped;
};

// The user's configuration directory ($XDG_CONFIG_HOME/irframe or ~/.config/irframe); empty
// when neither variable holds an absolute path.
std::string UserConfigDir(const TConfigEnvironment& environment);

// The process's environment and file system.
TConfigEnvironment ProcessConfigEnvironment(std::string explicitPath);

// The main file to read: --config's, else the first of the user's and the system's irframe.toml
// that exists; empty when there is none.
std::string FindConfigFile(const TConfigEnvironment& environment);

// Every file to read, in order: the main file, the system's drop-ins when the main file is the
// system's (or there is none), then the user's drop-ins. Drop-ins are the names ending in .toml
// in irframe.d, hidden ones ignored, in byte order; one that is not a regular file is skipped.
TConfigSources FindConfigFiles(const TConfigEnvironment& environment);

// Finds and reads the configuration, each file over the one before. `sources` gets what was
// read (no files: the built-in defaults). A file that cannot be read or has an error stops
// the reading, with `config` left as it was.
TConfigStatus LoadDriverConfig(const TConfigEnvironment& environment, const TConfigChecks& checks,
                               TDriverConfig* config, TConfigSources* sources, std::string* error);
// The same, with `source` set to the files read, joined by ", " (empty: none).
TConfigStatus LoadDriverConfig(const TConfigEnvironment& environment, const TConfigChecks& checks,
                               TDriverConfig* config, std::string* source, std::string* error);

// A TOML basic string of `text`, quoted and escaped as the configuration's reader reads it back.
std::string TomlQuoted(std::string_view text);

// Whether a text may be an output's name (screen.output, --display).
bool IsOutputName(std::string_view name);

// The chord in force for each named shortcut: the file's, else the profile's.
std::array<std::string, kGestureShortcutCount> EffectiveShortcuts(const TDriverConfig& config,
                                                                  const TConfigChecks& checks);

// The configuration in force as TOML, defaults included, with a comment per key. Every shortcut
// is written with the chord in force, so reading it back gives the same effective configuration.
std::string PrintConfig(const TDriverConfig& config, const TConfigChecks& checks);
