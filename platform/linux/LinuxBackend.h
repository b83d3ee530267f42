// The Linux backend: the screen (an XRandR output, or --screen), the virtual input device
// (uinput, unless this is a dry run), discovery of real frames through udev (unless the frames
// are emulated), the notification centre (the exchange on the bus name and logind's wake) and the
// driver's D-Bus interface on the session bus.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "BusNameClaim.h"
#include "DbusDriverService.h"
#include "DriverOptions.h"
#include "LinuxNotificationCenter.h"
#include "LinuxScreen.h"
#include "SdEventLoop.h"
#include "SessionBus.h"
#include "ShellBackend.h"
#include "UdevHidManager.h"
#include "UinputEventSink.h"
#include "UinputTouchscreen.h"

class CLinuxBackend final : public IShellBackend {
public:
    // The loop, the options and the control must outlive the backend. `control` null: no
    // D-Bus interface; `codec` turns configurations into JSON and back for it.
    CLinuxBackend(CSdEventLoop& loop, const DriverOptions& options,
                  IDriverControl* control = nullptr, TConfigJsonCodec codec = {})
        : m_loop(loop), m_options(options), m_control(control), m_codec(std::move(codec)) {}

    bool Open(TShellPorts* ports, TBackendFailure* failure) override;
    // A new key profile or new shortcuts: the virtual device presses, and the dry run shows,
    // the new chords from the next key event on.
    void OptionsChanged() override;

    // The HID port of an already open hidraw-like descriptor (the emulated frames' host end).
    static std::unique_ptr<CMtHidDevice> AdoptHidPort(int fd);

private:
    void OpenSessionBus(TShellPorts* ports);

    CSdEventLoop& m_loop;
    const DriverOptions& m_options;
    IDriverControl* m_control;
    TConfigJsonCodec m_codec;
    std::unique_ptr<CSessionBus> m_bus;
    std::unique_ptr<CBusNameClaim> m_claim;
    std::unique_ptr<CDbusDriverService> m_service;
    std::unique_ptr<CLinuxScreen> m_screen;
    // The key map in force; the dry run's key namer reads it on the workers' threads.
    std::shared_ptr<const CKeyMap> Keys() const;
    bool MakeKeys(std::string* error);

    mutable std::mutex m_keysMutex;
    std::shared_ptr<const CKeyMap> m_keys;  // guarded by m_keysMutex; each map is immutable
    std::unique_ptr<CUinputEventSink> m_uinput;
    std::unique_ptr<CUdevHidManagerFactory> m_udev;
    std::unique_ptr<CLinuxNotificationCenter> m_notifications;
    std::map<int, std::unique_ptr<CUinputTouchscreen>> m_touchscreens;  // by frame; main thread
};
