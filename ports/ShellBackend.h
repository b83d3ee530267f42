// A backend provides the shell's ports for one kind of run: the Linux backend the real
// platform (udev discovery, the X screen, uinput, the session bus), the simulation
// backend the emulated frames and their clock. The driver opens its backends in order; a later
// one may replace a port that an earlier one filled.
#pragma once

#include <functional>
#include <string>

#include "ShellPorts.h"

struct TBackendFailure {
    int exitStatus = 1;  // 1: cannot start, 2: a usage error
    std::string message;
};

class IShellBackend {
public:
    virtual ~IShellBackend() = default;
    // Checks its part of the options and fills the ports it provides. False with `failure`.
    virtual bool Open(TShellPorts* ports, TBackendFailure* failure) = 0;
    // The options that change live (the key profile, the shortcuts) were read again: put them
    // in force. Main thread.
    virtual void OptionsChanged() {}
    // The driver was asked to end (a signal): stop whatever plays.
    virtual void Stopping() {}
    // `finished` runs on the main loop once the backend has nothing more to do (the emulated
    // frames have all been played: status 0) or cannot go on (status 1). Real frames never
    // finish.
    virtual void OnFinished(std::function<void(int status)> finished) { (void)finished; }
    // The main loop has returned and every worker has ended: last report lines.
    virtual void Close() {}
};
