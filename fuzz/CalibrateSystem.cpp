// An arbitrary device configuration, frame geometry and run of frames through the calibration
// system, as the worker drives it: InitCalibrateSys, then per frame CalFramePoint and
// GetAbsHIDCoords. Every HID coordinate must land in 1..32766.
//
// Input layout (missing bytes read as zero):
//   byte 0          options: bit 0 geometry as four int32 (else four int16, as the worker
//                   widens them); bit 1 also run the other output forms; bit 2 the
//                   configuration is a device block for DecodeDevConfig
//   geometry        8 or 16 bytes: logicalWidth, logicalHeight, rawWidth, rawHeight
// then with bit 2:
//   2 bytes         block length L, then L bytes of block
// else:
//   4 bytes         flags
//   1 + 1 bytes     areaCount, panelCount as the record holds them (not clamped here)
//   60 per area     up to 32 areas, copied unchanged
//   24 per panel    up to 4 panel heads, copied unchanged
//   63 per frame    frame payloads through DecodeFrameBuffer, up to 16 frames
#include "CCalibrateSystem.h"
#include "MtDevConfig.h"
#include "MtDevFrame.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    // Copies n bytes into out, zero-filling past the end of the input.
    void Take(void* out, size_t n) {
        const size_t have = std::min(n, size_ - pos_);
        if (have > 0) std::memcpy(out, data_ + pos_, have);
        if (have < n) std::memset(static_cast<uint8_t*>(out) + have, 0, n - have);
        pos_ += have;
    }
    template <typename T>
    T Get() {
        T value;
        Take(&value, sizeof value);
        return value;
    }
    size_t Left() const { return size_ - pos_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

void CheckHid(const _HARDWARE_FRAME_SDK& frame) {
    for (const _HARDWARE_SDK_POINT* p = frame.points; p != nullptr; p = p->next) {
        if (p->x < CAL_HID_MIN || p->x > CAL_HID_MAX) __builtin_trap();
        if (p->y < CAL_HID_MIN || p->y > CAL_HID_MAX) __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const uint8_t options = in.Get<uint8_t>();

    _CS_CONFIG geometry;
    if ((options & 1) != 0) {
        geometry.logicalWidth = in.Get<int32_t>();
        geometry.logicalHeight = in.Get<int32_t>();
        geometry.rawWidth = in.Get<int32_t>();
        geometry.rawHeight = in.Get<int32_t>();
    } else {
        geometry.logicalWidth = in.Get<int16_t>();
        geometry.logicalHeight = in.Get<int16_t>();
        geometry.rawWidth = in.Get<int16_t>();
        geometry.rawHeight = in.Get<int16_t>();
    }

    static auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(config.get(), 0, sizeof *config);
    if ((options & 4) != 0) {
        // Whatever the decoder leaves in the record is used, even after a failure.
        const size_t length = std::min<size_t>(in.Get<uint16_t>(), in.Left());
        std::vector<uint8_t> block(length);
        in.Take(block.data(), length);
        DecodeDevConfig(block.data(), static_cast<int>(length), config.get());
    } else {
        config->flags = in.Get<uint32_t>();
        config->areaCount = in.Get<uint8_t>();
        config->panelCount = in.Get<uint8_t>();
        const int areas = std::min<int>(config->areaCount, DEV_CONFIG_MAX_AREAS);
        for (int i = 0; i < areas; ++i) in.Take(&config->areas[i], sizeof config->areas[i]);
        const int panels = std::min<int>(config->panelCount, DEV_CONFIG_MAX_PANELS);
        for (int i = 0; i < panels; ++i) in.Take(&config->panels[i], HBRECT_HEAD_BYTES);
    }

    CCalibrateSystem cal;
    if (!cal.InitCalibrateSys(config.get(), &geometry)) return 0;

    alignas(_HARDWARE_SDK_POINT) static std::array<uint8_t, FRAME_POINT_BUFFER_BYTES> storage;
    _HARDWARE_FRAME_SDK frame{};
    frame.pointBufferBytes = FRAME_POINT_BUFFER_BYTES;
    frame.pointBuffer = storage.data();
    for (int n = 0; n < 16 && in.Left() > 0; ++n) {
        std::array<uint8_t, FRAME_PAYLOAD_BYTES> payload;
        in.Take(payload.data(), payload.size());
        if (!DecodeFrameBuffer(payload.data(), FRAME_PAYLOAD_BYTES, &frame)) continue;
        cal.CalFramePoint(&frame);
        cal.GetAbsHIDCoords(&frame);
        CheckHid(frame);
        if ((options & 2) != 0) {
            cal.GetHIDCoords(&frame);
            CheckHid(frame);
            cal.GetTuioCoords(&frame);
            cal.GetDesktopCoords(&frame);
            cal.GetSDKCoords(&frame);
        }
    }
    // Slots in use must all be linked from activeSlots and the list must end.
    int linked = 0;
    for (const _CAL_POINT_SLOT* s = cal.ActiveSlots(); s != nullptr; s = s->next) {
        if ((s->state & CAL_SLOT_IN_USE) == 0 || ++linked > CAL_SLOT_COUNT) __builtin_trap();
    }
    return 0;
}
