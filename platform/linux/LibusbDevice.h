// The USB bulk port on Linux, over libusb-1.0.
//
// A thin mapping of the port calls: a device interface is a libusb device handle, an interface is
// a claimed interface (in one alternate setting) whose pipe references 1..n are its endpoints in
// descriptor order. The handle stays open while any interface made from it lives, so closing the
// device keeps a chosen interface usable, as the port requires. Pipe status is the endpoint's
// halt bit (GET_STATUS); clearing a stall is libusb_clear_halt, which resets both ends.
#pragma once

#include <cstdint>
#include <memory>

#include "MtDevPorts.h"

struct libusb_device;

class CLibusbService final : public CMtUsbService {
public:
    // Takes its own reference on the device.
    explicit CLibusbService(libusb_device* device);
    ~CLibusbService() override;

    CLibusbService(const CLibusbService&) = delete;
    CLibusbService& operator=(const CLibusbService&) = delete;

    // The device at bus/address on the process's libusb context; null when there is none or
    // libusb cannot start (no USB buses visible).
    static std::unique_ptr<CLibusbService> Find(uint8_t bus, uint8_t address);

    std::unique_ptr<CMtUsbDevice> CreateDeviceInterface() override;

private:
    libusb_device* m_device;
};

// Maps a libusb error to the port's result codes.
int MapLibusbError(int libusbError);
