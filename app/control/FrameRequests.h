// A tool's request (DriverControl.h) carried out on a frame's controller, on the frame's worker
// between two polls. Writes are read back and compared, so a Done write is one the frame holds.
#pragma once

#include <atomic>
#include <cstddef>

#include "DriverControl.h"
#include "MtDevCtrlInterface.h"

// A status the device claims to be larger than this is refused, not allocated.
inline constexpr int kFrameStatusMaxBytes = 64 * 1024;

// Runs `request` to its end (or the first failure). Between its steps it stops when `cancelled`
// is set; within a transfer the controller's abort flag does that. The result is Done or Failed
// (with the device error); the caller tells Cancelled and Gone apart.
TFrameResult RunFrameRequest(CMtDevController& controller, const TFrameRequest& request,
                             const std::atomic<bool>& cancelled);

// "2 areas, 1 panel (4 keys)": what a configuration holds, in a few words.
std::string DescribeConfig(const _HARDWARE_DEV_CONFIG& config);
