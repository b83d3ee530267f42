// Arbitrary reply payloads through the frame decoder. The first two input bytes choose the
// contact storage size, so the storage limit is exercised as well as the payload limit.
#include "MtDevFrame.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint16_t storageBytes =
        static_cast<uint16_t>((data[0] | (data[1] << 8)) % (FRAME_POINT_BUFFER_BYTES + 1));
    // Exactly the chosen size, so ASan sees any write past it.
    std::vector<_HARDWARE_SDK_POINT> storage(storageBytes / sizeof(_HARDWARE_SDK_POINT) + 1);
    const std::vector<uint8_t> payload(data + 2, data + size);

    _HARDWARE_FRAME_SDK frame{};
    frame.pointBufferBytes = storageBytes;
    frame.pointBuffer = reinterpret_cast<uint8_t*>(storage.data());
    const bool ok = DecodeFrameBuffer(payload.data(), static_cast<int>(payload.size()), &frame);

    size_t count = 0;
    const auto* first = reinterpret_cast<const _HARDWARE_SDK_POINT*>(frame.pointBuffer);
    for (const _HARDWARE_SDK_POINT* p = frame.points; p != nullptr; p = p->next) {
        ++count;
        const size_t index = static_cast<size_t>(p - first);
        if (p < first || (index + 1) * sizeof(_HARDWARE_SDK_POINT) > storageBytes) abort();
        if (p->rawW == 0 && p->rawH == 0 && p->area != 0) abort();
    }
    if (!ok && count != 0) abort();
    const size_t contactBytes = !payload.empty() && payload[0] == FRAME_TAG_COMPACT ? 6 : 10;
    const size_t payloadLimit = payload.size() / contactBytes;
    if (count > payloadLimit || count > FramePointCapacity(frame)) abort();
    return 0;
}
