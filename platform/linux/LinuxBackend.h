// The Linux backend: the screen (an XRandR output, or --screen), the virtual input device
// (uinput, unless this is a dry run), discovery of real frames through udev (unless the frames
// are emulated) and the notification centre (the per-user instance channel and logind's wake).
#pragma once

#include <map>
#include <memory>

#include "DriverOptions.h"
#include "LinuxNotificationCenter.h"
#include "LinuxScreen.h"
#include "SdEventLoop.h"
#include "ShellBackend.h"
#include "UdevHidManager.h"
#include "UinputEventSink.h"
#include "UinputTouchscreen.h"

class CLinuxBackend final : public IShellBackend {
public:
    // The loop and the options must outlive the backend.
    CLinuxBackend(CSdEventLoop& loop, const DriverOptions& options)
        : m_loop(loop), m_options(options) {}

    bool Open(TShellPorts* ports, TBackendFailure* failure) override;

    // The HID port of an already open hidraw-like descriptor (the emulated frames' host end).
    static std::unique_ptr<CMtHidDevice> AdoptHidPort(int fd);

private:
    CSdEventLoop& m_loop;
    const DriverOptions& m_options;
    std::unique_ptr<CLinuxScreen> m_screen;
    std::unique_ptr<CUinputEventSink> m_uinput;
    std::unique_ptr<CUdevHidManagerFactory> m_udev;
    std::unique_ptr<CLinuxNotificationCenter> m_notifications;
    std::map<int, std::unique_ptr<CUinputTouchscreen>> m_touchscreens;  // by frame; main thread
};
