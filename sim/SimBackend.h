// The simulation backend: emulated frames that play gesture scripts stand in for discovery,
// on a virtual clock unless the run is paced in real time. It ends the run once every frame has
// been played, and reports one summary line per frame.
#pragma once

#include <memory>
#include <optional>

#include "DriverOptions.h"
#include "ShellBackend.h"
#include "SimDevice.h"

// Reads and checks the gesture script of an emulated frame, the one rule for the driver and the
// tools: true when it is a script that plays at least one frame; otherwise false with `failure`:
// status 1 when the file cannot be read (a directory, no permission), 2 when it is no script or
// plays nothing, 0 when SIGINT or SIGTERM ended the wait for a FIFO's writer.
bool LoadGestureScriptFile(const std::string& path, CGestureScript* script,
                           TBackendFailure* failure);

class CSimBackend final : public IShellBackend {
public:
    // `makePort` makes the HID port over an emulated frame's host end (Linux: a hidraw-like
    // port); the loop and the options must outlive the backend.
    CSimBackend(IMainLoop& loop, const DriverOptions& options, CSimDevice::PortFactory makePort);
    ~CSimBackend() override;

    bool Open(TShellPorts* ports, TBackendFailure* failure) override;
    void Stopping() override;
    void OnFinished(std::function<void(int status)> finished) override;
    void Close() override;

private:
    bool LoadSpecs(std::vector<TSimDeviceSpec>* specs, TBackendFailure* failure) const;

    IMainLoop& m_loop;
    const DriverOptions& m_options;
    CSimDevice::PortFactory m_makePort;
    std::unique_ptr<CSimTimelineClock> m_timelines;
    std::optional<TScopedClock> m_installedClock;  // uninstalled with the backend
    std::unique_ptr<CSimDeviceHub> m_hub;
};
