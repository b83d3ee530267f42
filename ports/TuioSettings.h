// Settings of the TUIO output: where each frame's calibration areas send their cursors, and the
// limits of what is sent. Filled from `--tuio [HOST:]PORT` and the `[output.tuio]` section of the
// configuration file; read by the TUIO output of every frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

// A UDP target: a host name or address, and a port 1..65535.
struct TTuioTarget {
    std::string host = "127.0.0.1";
    uint16_t port = 0;
    bool operator==(const TTuioTarget&) const = default;
};

struct TTuioSettings {
    bool enabled = false;
    // Targets as "[HOST:]PORT" texts, read when a frame starts: one that does not parse leaves
    // its areas without output, with a warning, and the others go on.
    // Where every area of every frame sends, in place of the frame's own targets; empty: none.
    std::string target;
    // By calibration area index (0..31, the order of the frame's configuration); ahead of
    // `target`.
    std::map<int, std::string> areaTargets;
    // A target read from the frame that is not on this machine is used only when this is set:
    // the frame's bytes must not send touches across the network on their own.
    bool allowDeviceTargets = false;

    // A full update (every cursor) at least this often, in frame time.
    int64_t refreshMicros = 1'000'000;
    // Largest bundle: one 1500-byte Ethernet frame less the IPv6 and UDP headers, and more to a
    // target on this machine. A bigger update is split, each part repeating `alive`.
    size_t maxBundleBytes = 1452;
    size_t maxLoopbackBundleBytes = 4096;

    bool operator==(const TTuioSettings&) const = default;
};

inline constexpr size_t kTuioMinBundleBytes = 256;    // settings below this are raised to it
inline constexpr size_t kTuioMaxBundleBytes = 65507;  // largest UDP payload over IPv4

// "[HOST:]PORT": PORT alone targets 127.0.0.1; an IPv6 address goes in brackets
// ("[::1]:3333"). Host names are not looked up here. nullopt with `error` set when the text is
// not a target (empty, port 0 or above 65535, characters a host name cannot have, too long).
std::optional<TTuioTarget> ParseTuioTarget(std::string_view text, std::string* error);

// "HOST:PORT", with brackets around an IPv6 address.
std::string FormatTuioTarget(const TTuioTarget& target);
