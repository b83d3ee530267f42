// irframectl through the running driver: its D-Bus interface on the session bus (docs/dbus-api.md),
// with sd-bus.
//
//   org.irframe.Driver1 at /org/irframe/Driver1: ListFrames() -> ao, FrameAdded(o), FrameRemoved(o)
//   one object per frame, /org/irframe/Driver1/frame<N>, interface org.irframe.Driver1.Frame:
//   properties Number, Node, VendorId, ProductId, Product, Serial, State, Geometry,
//   ConfigSummary, Touchscreens; methods ReadInfo, ReadStatus, ReadConfig, WriteConfig, ReadScanPattern,
//   WriteScanPattern, WriteTouchSystemFile, Cancel, SubscribeContacts, UnsubscribeContacts;
//   signals Progress(uu) and Contacts(xa(yybiiiiqqyy)).
//
// The driver's errors (org.irframe.Driver1.Error.*) become the tool's exit codes: InvalidArgument
// 4, Busy 6, Cancelled 5, Gone and Failed 1.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FrameAccess.h"

struct sd_bus;

inline constexpr const char* kDriverBusName = "org.irframe.Driver1";
inline constexpr const char* kDriverPath = "/org/irframe/Driver1";
inline constexpr const char* kDriverInterface = "org.irframe.Driver1";
inline constexpr const char* kFrameInterface = "org.irframe.Driver1.Frame";
inline constexpr const char* kDriverErrorPrefix = "org.irframe.Driver1.Error.";

// The user's session bus; null with `error` set when there is none.
sd_bus* OpenSessionBus(std::string* error);
// The SIGINT or SIGTERM the program received, 0 for none. Every wait for the bus ends on one:
// a plain question with CToolError (kCtlCancelled), a transfer once its cancel is answered or
// after a short while. Empty: the waits end on their time-outs only.
using TStopSignal = std::function<int()>;

// Whether the driver's bus name has an owner.
bool DriverOnBus(sd_bus* bus, const TStopSignal& stopSignal = {});
// Takes over the reference to `bus`.
std::unique_ptr<ITransport> MakeBusTransport(sd_bus* bus, TStopSignal stopSignal = {});

// {"bytes":"<hex>"}, the driver's form of a block it read (information block, status).
// Throws CToolError for anything else.
std::vector<uint8_t> BytesFromDriverJson(const std::string& text, const std::string& what);

// Asks the running driver on the session bus to read its configuration again (Reload, as
// SIGHUP); one line on what came of it: reloaded, kept with the driver's error, or not running.
std::string ReloadDriver();

// Exit code for a D-Bus error name (the driver's own, or the bus's).
int ExitCodeForBusError(const std::string& name);
