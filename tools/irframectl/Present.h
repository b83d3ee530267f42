// How irframectl shows things: which frame a FRAME argument names, the frame list, byte dumps,
// the configuration as tables, and one monitored contact as a line of text or JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "FrameAccess.h"

// The frame that `wanted` names: its number ("2"), its node ("/dev/hidraw3" or "hidraw3") or its
// serial. Empty `wanted`: the only frame. Throws CToolError (no frame, no match: 3; several
// frames and none named, or a serial that several frames share: 2).
const TFrameEntry& PickFrame(const std::vector<TFrameEntry>& frames,
                                   const std::string& wanted);

// One line per frame under a heading.
std::string FrameTable(const std::vector<TFrameEntry>& frames);
// Properties of one frame, one per line.
std::string FrameDetails(const TFrameEntry& frame);

// 16 bytes a line: offset, hexadecimal, printable characters.
std::string HexDump(const std::vector<uint8_t>& bytes);

// The configuration as readable tables: flags in words, network target, general fields, areas,
// panels with their keys, extras, backup.
std::string ConfigTables(const _HARDWARE_DEV_CONFIG& config);

// What took a contact, from its cell and the frame's configuration: "area 2", "panel 1",
// "outside" (beyond every area, not kept), "default" (no areas in use).
struct TContactPlace {
    std::string kind;  // "area", "panel", "outside", "default"
    int index = -1;    // area or panel id for those kinds
};
TContactPlace PlaceOf(const TMonitoredContact& contact, const _HARDWARE_DEV_CONFIG& config);

// "  0.010000  id 1  moving   raw 12000,8000  at 16384,16384  area 0" (seconds since `origin`).
std::string ContactLine(const TMonitoredContact& contact, int64_t timeStamp, int64_t origin,
                        const _HARDWARE_DEV_CONFIG& config);
// One JSON object (compact, no newline) with every field of the contact.
std::string ContactJson(int frame, const TMonitoredContact& contact, int64_t timeStamp,
                        const _HARDWARE_DEV_CONFIG& config);
