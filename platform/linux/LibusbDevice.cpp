#include "LibusbDevice.h"

#include <libusb.h>

#include <mutex>
#include <vector>

namespace {

// Time-out of the GET_STATUS request behind GetPipeStatus.
constexpr unsigned kStatusTimeoutMs = 1000;

libusb_context* Context() {
    static std::once_flag once;
    static libusb_context* context = nullptr;
    std::call_once(once, [] {
        if (libusb_init(&context) != LIBUSB_SUCCESS) context = nullptr;
    });
    return context;
}

// An open libusb handle, shared by a device interface and the interfaces made from it.
struct THandle {
    explicit THandle(libusb_device_handle* h) : handle(h) {}
    ~THandle() { libusb_close(handle); }
    THandle(const THandle&) = delete;
    THandle& operator=(const THandle&) = delete;
    libusb_device_handle* handle;
};

struct TEndpoint {
    uint8_t address;
    uint8_t attributes;
    uint16_t maxPacketSize;
    uint8_t interval;
};

class CLibusbInterface final : public CMtUsbInterface {
public:
    CLibusbInterface(std::shared_ptr<THandle> handle, const libusb_interface_descriptor& desc)
        : m_handle(std::move(handle)),
          m_number(desc.bInterfaceNumber),
          m_alternate(desc.bAlternateSetting),
          m_class(desc.bInterfaceClass),
          m_subClass(desc.bInterfaceSubClass) {
        for (int i = 0; i < desc.bNumEndpoints; ++i) {
            const libusb_endpoint_descriptor& ep = desc.endpoint[i];
            m_endpoints.push_back({ep.bEndpointAddress, ep.bmAttributes, ep.wMaxPacketSize,
                                   ep.bInterval});
        }
    }
    ~CLibusbInterface() override { USBInterfaceClose(); }

    uint8_t GetInterfaceClass() override { return m_class; }
    uint8_t GetInterfaceSubClass() override { return m_subClass; }

    int USBInterfaceOpen() override {
        if (m_claimed) return kMtUsbSuccess;
        int r = libusb_claim_interface(m_handle->handle, m_number);
        if (r != LIBUSB_SUCCESS) return MapLibusbError(r);
        if (m_alternate != 0) {
            r = libusb_set_interface_alt_setting(m_handle->handle, m_number, m_alternate);
            if (r != LIBUSB_SUCCESS) {
                libusb_release_interface(m_handle->handle, m_number);
                return MapLibusbError(r);
            }
        }
        m_claimed = true;
        return kMtUsbSuccess;
    }

    int USBInterfaceClose() override {
        if (!m_claimed) return kMtUsbSuccess;
        m_claimed = false;
        return MapLibusbError(libusb_release_interface(m_handle->handle, m_number));
    }

    int GetNumEndpoints(uint8_t* count) override {
        if (count == nullptr) return kMtUsbError;
        *count = static_cast<uint8_t>(m_endpoints.size());
        return kMtUsbSuccess;
    }

    int GetPipeProperties(uint8_t pipeRef, TMtUsbPipeProperties* props) override {
        const TEndpoint* ep = Pipe(pipeRef);
        if (ep == nullptr || props == nullptr) return kMtUsbError;
        props->direction = (ep->address & LIBUSB_ENDPOINT_IN) != 0 ? kMtUsbIn : kMtUsbOut;
        props->number = ep->address & LIBUSB_ENDPOINT_ADDRESS_MASK;
        props->transferType = ep->attributes & LIBUSB_TRANSFER_TYPE_MASK;
        props->maxPacketSize = ep->maxPacketSize;
        props->interval = ep->interval;
        return kMtUsbSuccess;
    }

    int ReadPipeTO(uint8_t pipeRef, uint8_t* buffer, uint32_t* size, uint32_t /*noDataTimeoutMs*/,
                   uint32_t completionTimeoutMs) override {
        const TEndpoint* ep = Pipe(pipeRef);
        if (ep == nullptr || buffer == nullptr || size == nullptr || !m_claimed) return kMtUsbError;
        int transferred = 0;
        const int r = libusb_bulk_transfer(m_handle->handle, ep->address, buffer,
                                           static_cast<int>(*size), &transferred,
                                           completionTimeoutMs);
        *size = static_cast<uint32_t>(transferred);
        return MapLibusbError(r);
    }

    int WritePipeTO(uint8_t pipeRef, const uint8_t* buffer, uint32_t size,
                    uint32_t /*noDataTimeoutMs*/, uint32_t completionTimeoutMs) override {
        const TEndpoint* ep = Pipe(pipeRef);
        if (ep == nullptr || buffer == nullptr || !m_claimed) return kMtUsbError;
        int transferred = 0;
        // libusb does not write through the pointer of an OUT transfer.
        const int r = libusb_bulk_transfer(m_handle->handle, ep->address,
                                           const_cast<uint8_t*>(buffer), static_cast<int>(size),
                                           &transferred, completionTimeoutMs);
        if (r == LIBUSB_SUCCESS && static_cast<uint32_t>(transferred) != size) return kMtUsbError;
        return MapLibusbError(r);
    }

    int GetPipeStatus(uint8_t pipeRef) override {
        const TEndpoint* ep = Pipe(pipeRef);
        if (ep == nullptr) return kMtUsbError;
        uint8_t status[2] = {};
        const int r = libusb_control_transfer(
            m_handle->handle,
            static_cast<uint8_t>(static_cast<int>(LIBUSB_ENDPOINT_IN) |
                                 static_cast<int>(LIBUSB_REQUEST_TYPE_STANDARD) |
                                 static_cast<int>(LIBUSB_RECIPIENT_ENDPOINT)),
            LIBUSB_REQUEST_GET_STATUS, 0, ep->address, status, sizeof status, kStatusTimeoutMs);
        if (r != 2) return r < 0 ? MapLibusbError(r) : kMtUsbError;
        return (status[0] & 1) != 0 ? kMtUsbPipeStalled : kMtUsbSuccess;  // endpoint halt bit
    }

    int ClearPipeStallBothEnds(uint8_t pipeRef) override {
        const TEndpoint* ep = Pipe(pipeRef);
        if (ep == nullptr) return kMtUsbError;
        return MapLibusbError(libusb_clear_halt(m_handle->handle, ep->address));
    }

private:
    const TEndpoint* Pipe(uint8_t pipeRef) const {
        if (pipeRef < 1 || pipeRef > m_endpoints.size()) return nullptr;
        return &m_endpoints[pipeRef - 1];
    }

    std::shared_ptr<THandle> m_handle;
    uint8_t m_number;
    uint8_t m_alternate;
    uint8_t m_class;
    uint8_t m_subClass;
    std::vector<TEndpoint> m_endpoints;
    bool m_claimed = false;
};

class CLibusbDevice final : public CMtUsbDevice {
public:
    explicit CLibusbDevice(libusb_device* device) : m_device(libusb_ref_device(device)) {}
    ~CLibusbDevice() override { libusb_unref_device(m_device); }

    uint16_t GetDeviceReleaseNumber() override {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(m_device, &desc) != LIBUSB_SUCCESS) return 0;
        return desc.bcdDevice;
    }

    int USBDeviceOpen() override {
        if (m_handle != nullptr) return kMtUsbSuccess;
        libusb_device_handle* handle = nullptr;
        const int r = libusb_open(m_device, &handle);
        if (r != LIBUSB_SUCCESS) return MapLibusbError(r);
        // A HID driver bound to the interface would keep it from being claimed.
        libusb_set_auto_detach_kernel_driver(handle, 1);
        m_handle = std::make_shared<THandle>(handle);
        return kMtUsbSuccess;
    }

    int USBDeviceClose() override {
        m_handle.reset();  // interfaces made from it keep the handle open
        return kMtUsbSuccess;
    }

    int CreateInterfaceIterator(const TMtUsbFindInterfaceRequest& request,
                                std::vector<std::unique_ptr<CMtUsbInterface>>* out) override {
        if (out == nullptr || m_handle == nullptr) return kMtUsbError;
        libusb_config_descriptor* config = nullptr;
        const int r = libusb_get_active_config_descriptor(m_device, &config);
        if (r != LIBUSB_SUCCESS) return MapLibusbError(r);
        auto matches = [](uint16_t wanted, uint8_t value) {
            return wanted == kMtUsbFindInterfaceDontCare || wanted == value;
        };
        for (int i = 0; i < config->bNumInterfaces; ++i) {
            const libusb_interface& itf = config->interface[i];
            for (int a = 0; a < itf.num_altsetting; ++a) {
                const libusb_interface_descriptor& desc = itf.altsetting[a];
                if (matches(request.bInterfaceClass, desc.bInterfaceClass) &&
                    matches(request.bInterfaceSubClass, desc.bInterfaceSubClass) &&
                    matches(request.bInterfaceProtocol, desc.bInterfaceProtocol) &&
                    matches(request.bAlternateSetting, desc.bAlternateSetting)) {
                    out->push_back(std::make_unique<CLibusbInterface>(m_handle, desc));
                }
            }
        }
        libusb_free_config_descriptor(config);
        return kMtUsbSuccess;
    }

private:
    libusb_device* m_device;
    std::shared_ptr<THandle> m_handle;
};

}  // namespace

int MapLibusbError(int libusbError) {
    switch (libusbError) {
        case LIBUSB_SUCCESS:
            return kMtUsbSuccess;
        case LIBUSB_ERROR_TIMEOUT:
            return kMtUsbTransactionTimeout;
        case LIBUSB_ERROR_PIPE:
            return kMtUsbPipeStalled;
        case LIBUSB_ERROR_NO_DEVICE:
            return kMtUsbNotResponding;
        default:
            return kMtUsbError;
    }
}

CLibusbService::CLibusbService(libusb_device* device) : m_device(libusb_ref_device(device)) {}

CLibusbService::~CLibusbService() {
    libusb_unref_device(m_device);
}

std::unique_ptr<CLibusbService> CLibusbService::Find(uint8_t bus, uint8_t address) {
    libusb_context* context = Context();
    if (context == nullptr) return nullptr;
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    if (count < 0) return nullptr;
    std::unique_ptr<CLibusbService> found;
    for (ssize_t i = 0; i < count && found == nullptr; ++i) {
        if (libusb_get_bus_number(list[i]) == bus && libusb_get_device_address(list[i]) == address) {
            found = std::make_unique<CLibusbService>(list[i]);
        }
    }
    libusb_free_device_list(list, 1);
    return found;
}

std::unique_ptr<CMtUsbDevice> CLibusbService::CreateDeviceInterface() {
    if (m_device == nullptr) return nullptr;
    return std::make_unique<CLibusbDevice>(m_device);
}
