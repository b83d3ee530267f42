// The emulated touch frame behind the USB bulk port, in process.
//
// A service whose device has a configurable set of interfaces and pipes (by default one
// interface of class 0 with bulk IN pipe 1 and bulk OUT pipe 2). Bulk IN pipes read from the
// emulator, bulk OUT pipes write to it. A read with nothing ready waits its time-out on the
// system clock (TSleepMicros), so on a virtual clock it costs nothing and the wait can be
// measured exactly. Every port call is logged, and the objects handed out are counted, so tests
// can see what the transport did and that it released everything.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "MtDevEmulator.h"
#include "MtDevPorts.h"

struct TEmuUsbPipe {
    uint8_t direction;     // kMtUsbIn / kMtUsbOut
    uint8_t transferType;  // kMtUsbBulk, ...
};

struct TEmuUsbInterface {
    uint8_t interfaceClass = 0;
    uint8_t interfaceSubClass = 0;
    uint8_t interfaceProtocol = 0;
    bool openFails = false;
    bool endpointsFail = false;
    std::vector<TEmuUsbPipe> pipes;
};

struct TEmuUsbLayout {
    bool deviceInterfaceFails = false;
    bool deviceOpenFails = false;
    std::vector<TEmuUsbInterface> interfaces;

    // One class-0 interface: bulk IN pipe 1, bulk OUT pipe 2.
    static TEmuUsbLayout Default();
};

class CMtEmuUsbService final : public CMtUsbService {
public:
    explicit CMtEmuUsbService(CMtDevEmulator& emulator,
                              TEmuUsbLayout layout = TEmuUsbLayout::Default());
    ~CMtEmuUsbService() override;

    std::unique_ptr<CMtUsbDevice> CreateDeviceInterface() override;

    // Every port call so far, e.g. "USBDeviceOpen", "USBInterfaceOpen 0", "ReadPipeTO 1".
    std::vector<std::string> Calls() const;
    int CountCalls(std::string_view call) const;
    void ClearCalls();
    // Interfaces open right now, and device/interface objects alive right now.
    int OpenInterfaces() const;
    int LiveObjects() const;

    struct TShared;

private:
    std::shared_ptr<TShared> m_shared;
};
