// The arguments of the driver's D-Bus methods: read from the message, checked and turned into
// requests. Everything here treats its input as untrusted: sizes are bounded before anything is
// copied, and a refusal says which argument and why (it becomes an InvalidArgument error).
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ContactStream.h"
#include "DriverControl.h"
#include "MtDevConfig.h"
#include "MtDevCtrlInterface.h"

// Limits on what a client may send.
struct TDbusArgumentLimits {
    size_t maxJsonBytes = 256 * 1024;                // configuration or override JSON
    size_t maxScanPatternBytes = 0x200000;           // the device's own limit
    size_t minTouchSystemBytes = MTDEV_TOUCH_SYSTEM_FILE_MIN_BYTES;
    size_t maxTouchSystemBytes = MTDEV_TOUCH_SYSTEM_FILE_MAX_BYTES;
};

// A checked argument, or why it was refused.
struct TArgumentCheck {
    bool ok = true;
    std::string error;  // set when refused
};

// A scan pattern: 6 bytes at least, within the limit, and announcing its own length (32-bit
// little-endian at bytes 2..5) correctly, since the device reads it back by that length.
TArgumentCheck CheckScanPattern(const uint8_t* data, size_t size, const TDbusArgumentLimits& limits);
TArgumentCheck CheckTouchSystemFile(size_t size, const TDbusArgumentLimits& limits);
// A JSON text: not empty, within the limit.
TArgumentCheck CheckJsonText(std::string_view json, const TDbusArgumentLimits& limits);

// The override as JSON: {"flags":N,"option1":N,"option2":N,"option3":N,"value0":N,"value1":N,
// "edgeAdjust":[N,N,N,N]}, every member required, none other allowed, each in its type's range.
TArgumentCheck ParseOverrideJson(std::string_view json, const TDbusArgumentLimits& limits,
                                 _HARDWARE_CONFIG_OVERRIDE* override);
std::string OverrideToJson(const _HARDWARE_CONFIG_OVERRIDE& override);

// {"bytes":"0a1b..."}: a block moved as it is, in lower-case hexadecimal.
std::string BytesToJson(const std::vector<uint8_t>& bytes);

// Reads one argument of the message (type "ay" or "s") with its limit applied before copying.
// A negative errno when the message does not hold that type; else 0, with `check` telling
// whether the value is acceptable.
int ReadByteArrayArgument(sd_bus_message* message, size_t maxBytes, std::vector<uint8_t>* out,
                          TArgumentCheck* check);
int ReadStringArgument(sd_bus_message* message, size_t maxBytes, std::string* out,
                       TArgumentCheck* check);

// The request of a method that carries data, checked. Configuration JSON goes through `codec`.
TArgumentCheck MakeWriteConfigRequest(std::string_view json, const TConfigJsonCodec& codec,
                                      const TDbusArgumentLimits& limits, TFrameRequest* request);
TArgumentCheck MakeWriteOverrideRequest(std::string_view json, const TConfigJsonCodec& codec,
                                        const TDbusArgumentLimits& limits, TFrameRequest* request);
TArgumentCheck MakeScanPatternRequest(std::vector<uint8_t> data, const TDbusArgumentLimits& limits,
                                      TFrameRequest* request);
TArgumentCheck MakeTouchSystemRequest(std::vector<uint8_t> data, const TDbusArgumentLimits& limits,
                                      TFrameRequest* request);

// One polled frame as the Contacts signal carries it: the time stamp, then per contact id,
// status, retired, x, y, width, height, rawX, rawY, cell group, cell index.
constexpr const char* kContactsSignature = "xa(yybiiiiqqyy)";
int AppendContacts(sd_bus_message* message, const TContactFrame& frame);
