// The configuration record of a frame as JSON, and back: what `irframectl config dump` writes,
// what `config restore` reads, and what the driver's bus interface hands out and takes.
//
// Writing is deterministic (members in a fixed order, two-space indentation, a final newline), so
// a record written, read back and written again gives the same bytes. The JSON holds everything a
// configuration block carries: the general fields, the areas, extras and panels in use, each key's
// fields for its type, the texts, and the backup. The schema is in docs/config-json.md.
//
// Reading is strict: unknown or missing members, wrong types, values out of range, more areas,
// panels or keys than the record holds, texts that are too long and duplicate members are refused
// with the JSON path of the fault ("/areas/2/port: 70000 is out of range 0..65535"). A refused
// document leaves the caller's record untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MtDevConfig.h"

// Largest document the readers take. A record with every area, panel and key in use and a full
// backup needs about a fifth of it.
constexpr size_t kDevConfigJsonMaxBytes = 1 << 20;
// Deepest nesting the readers take (a key's rectangle sits at depth 6).
constexpr int kDevConfigJsonMaxDepth = 16;

constexpr int kDevConfigJsonVersion = 1;
inline constexpr const char* kDevConfigJsonFormat = "irframe-config";
inline constexpr const char* kDevConfigOverrideJsonFormat = "irframe-config-override";

std::string DevConfigToJson(const _HARDWARE_DEV_CONFIG& config);
// Replaces the whole of *config on success (slots not in use are zero). False with *error set to
// "PATH: what" otherwise, *config untouched.
bool DevConfigFromJson(std::string_view text, _HARDWARE_DEV_CONFIG* config, std::string* error);

std::string DevConfigOverrideToJson(const _HARDWARE_CONFIG_OVERRIDE& override);
bool DevConfigOverrideFromJson(std::string_view text, _HARDWARE_CONFIG_OVERRIDE* override,
                               std::string* error);

// A text's 16-bit code units as UTF-8; false when they are not well-formed UTF-16 (the dump then
// writes the units themselves).
bool DevTextUnitsToUtf8(const std::vector<uint16_t>& units, std::string* utf8);

// The areas, panels and keys in use, in words: "2 areas, 1 panel (4 keys)", "0 areas, 0 panels".
std::string DevConfigSummary(const _HARDWARE_DEV_CONFIG& config);

// What changes when `to` replaces `from`, one line per differing value in document order:
// "/areas/0/targetRect/width: 1920 -> 1280", "/panels/1: added", "/areas/3: removed".
std::vector<std::string> DevConfigDifferences(const _HARDWARE_DEV_CONFIG& from,
                                              const _HARDWARE_DEV_CONFIG& to);
