// Gesture scripts as the emulated touch frame's own reports.
//
// A script speaks in absolute output units (what calibration hands to contact matching); a touch
// frame reports raw units. CEmuFrameMapper inverts the driver's calibration for one configuration
// block and frame geometry, so that a script played by the device reaches contact matching with
// the script's positions (to within the calibration's resolution). EmuScriptFrames turns every
// script frame into the compact payload the device sends for it.
//
//   std::string error;
//   auto mapper = CEmuFrameMapper::Create(emulator.ConfigBlock(), 16384, 16384, &error);
//   std::vector<TEmuTimedFrame> frames = EmuScriptFrames(script, *mapper);
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "GestureScript.h"
#include "MtDevEmulator.h"

// One script frame as the device sends it.
struct TEmuTimedFrame {
    uint64_t gapMicros = 0;              // after the previous frame of the script
    TEmuFramePayload payload{};          // the frame itself
    TEmuFramePayload hold{};             // the fingers still down after it, all held still
    std::vector<TScriptContact> contacts;  // what the script meant, in absolute units
    int line = 0;                        // script line, for messages
};

class CEmuFrameMapper {
public:
    // The configuration block the device serves and the extents of its compact frames (the
    // geometry the driver takes from its first frame). Null with `error` set when the block does
    // not decode or the geometry is unusable.
    static std::unique_ptr<CEmuFrameMapper> Create(const std::vector<uint8_t>& configBlock,
                                                   int16_t extentX, int16_t extentY,
                                                   std::string* error);

    // The raw position whose calibrated output lies nearest to (x, y), per axis.
    std::pair<uint16_t, uint16_t> RawFor(int32_t x, int32_t y) const;
    // Where the driver's calibration puts a raw position (absolute units), measured along the
    // frame's centre lines.
    std::pair<int32_t, int32_t> AbsFor(uint16_t rawX, uint16_t rawY) const;
    // Largest distance, per axis, between a target in 1..32766 and the output of its raw
    // position: the resolution a script's positions arrive with.
    int32_t WorstError() const { return m_worstError; }

    int16_t ExtentX() const { return m_extentX; }
    int16_t ExtentY() const { return m_extentY; }

private:
    CEmuFrameMapper() = default;
    struct TAxis {
        std::vector<int32_t> output;                       // by raw value
        std::vector<std::pair<int32_t, uint16_t>> sorted;  // (output, raw), by output
        uint16_t Nearest(int32_t target) const;
    };

    int16_t m_extentX = 0;
    int16_t m_extentY = 0;
    TAxis m_x;
    TAxis m_y;
    int32_t m_worstError = 0;
};

// Every frame of the script as a compact payload with the mapper's extents. Contacts are written
// last-first, so that the decoder (which links the last contact of a report first) hands them to
// contact matching in the script's order.
std::vector<TEmuTimedFrame> EmuScriptFrames(const CGestureScript& script,
                                            const CEmuFrameMapper& mapper);
