// irframectl without the driver: opens a frame itself through the device library, over its
// hidraw node (found through udev), over the USB bulk channel (libusb), or as an emulated frame
// playing a gesture script (tests).
//
// Only one process may poll a frame: every reader of a hidraw node receives every reply. The
// tool therefore goes this way only when no driver serves the frames, or when told to.
#pragma once

#include <memory>
#include <string>

#include "FrameAccess.h"

struct TDirectOptions {
    bool usb = false;            // the USB bulk channel instead of hidraw
    std::string simulateScript;  // non-empty: one emulated frame playing this script
};

std::unique_ptr<ITransport> MakeDirectTransport(const TDirectOptions& options);
