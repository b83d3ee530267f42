#include "MtDevFrame.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct RawContact {
    uint8_t id;
    uint8_t status;
    uint16_t x;
    uint16_t y;
    int16_t w = 0;
    int16_t h = 0;
};

void Put16(std::vector<uint8_t>& out, int v) {
    out.push_back(static_cast<uint8_t>(v & 0xFF));
    out.push_back(static_cast<uint8_t>((v >> 8) & 0xFF));
}

// A payload, zero-padded to `length`, as a touch frame sends it: the compact form has two
// extents and contacts without a size, the extended form four extents and sized contacts.
std::vector<uint8_t> Payload(bool extended, uint8_t count, const std::vector<int>& extents,
                             const std::vector<RawContact>& contacts, size_t length = 63) {
    std::vector<uint8_t> p = {extended ? FRAME_TAG_EXTENDED : FRAME_TAG_COMPACT, count};
    for (int extent : extents) Put16(p, extent);
    for (const auto& c : contacts) {
        p.push_back(c.id);
        p.push_back(c.status);
        Put16(p, c.x);
        Put16(p, c.y);
        if (extended) {
            Put16(p, c.w);
            Put16(p, c.h);
        }
    }
    p.resize(length, 0);
    return p;
}

std::vector<RawContact> Numbered(int n) {
    std::vector<RawContact> out;
    for (int i = 1; i <= n; ++i) {
        out.push_back({static_cast<uint8_t>(i), 1, static_cast<uint16_t>(100 * i),
                       static_cast<uint16_t>(200 * i), static_cast<int16_t>(i),
                       static_cast<int16_t>(-i)});
    }
    return out;
}

class FrameDecode : public ::testing::Test {
protected:
    FrameDecode() {
        frame.pointBufferBytes = FRAME_POINT_BUFFER_BYTES;
        frame.pointBuffer = storage.data();
    }

    bool Decode(const std::vector<uint8_t>& payload) {
        return DecodeFrameBuffer(payload.data(), static_cast<int>(payload.size()), &frame);
    }

    // The contacts in list order, each as "id status rawX rawY rawW rawH area".
    std::vector<std::string> Points() const {
        std::vector<std::string> out;
        for (auto* p = frame.points; p != nullptr; p = p->next) {
            char text[64];
            std::snprintf(text, sizeof text, "%d %d %d %d %d %d %d", p->id, p->status, p->rawX,
                          p->rawY, p->rawW, p->rawH, p->area);
            out.push_back(text);
        }
        return out;
    }

    // Raw width and height, then logical width and height.
    std::array<int, 4> Extents() const {
        return {frame.rawWidth, frame.rawHeight, frame.logicalWidth, frame.logicalHeight};
    }

    alignas(_HARDWARE_SDK_POINT) std::array<uint8_t, FRAME_POINT_BUFFER_BYTES> storage{};
    _HARDWARE_FRAME_SDK frame{};
};

using TExtents = std::array<int, 4>;

// Verify that every payload that is not a frame is refused and leaves no contacts behind.
TEST_F(FrameDecode, RejectsNonFramesAndClearsTheList) {
    ASSERT_TRUE(Decode(Payload(false, 2, {1000, 800}, Numbered(2))));
    ASSERT_NE(frame.points, nullptr);

    struct Case {
        const char* what;
        std::vector<uint8_t> payload;
    } cases[] = {
        {"empty", {}},
        {"unknown tag", {0xB2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"compact header cut", {FRAME_TAG_COMPACT, 1, 0, 0, 0}},
        {"extended header cut", {FRAME_TAG_EXTENDED, 1, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        frame.points = reinterpret_cast<_HARDWARE_SDK_POINT*>(storage.data());
        EXPECT_FALSE(Decode(c.payload)) << c.what;
        EXPECT_EQ(frame.points, nullptr) << c.what;
    }
}

// Verify that a header-only payload sets the extents and yields no contacts; so does count 0.
TEST_F(FrameDecode, HeaderOnlyPayloadsAreFramesWithoutContacts) {
    EXPECT_TRUE(Decode(Payload(false, 3, {1000, 800}, {}, 6)));
    EXPECT_EQ(frame.points, nullptr);
    EXPECT_EQ(Extents(), (TExtents{1000, 800, 250, 200}));
    EXPECT_TRUE(Decode(Payload(true, 4, {300, 200, 4000, 3000}, Numbered(1), 15)));
    EXPECT_EQ(frame.points, nullptr);
    EXPECT_EQ(Extents(), (TExtents{4000, 3000, 300, 200}));
    EXPECT_TRUE(Decode(Payload(false, 0, {1000, 800}, Numbered(2))));
    EXPECT_EQ(frame.points, nullptr);
}

// Verify the extent arithmetic: compact extents signed and divided by 4 toward zero; extended
// logical extents keep their sign.
TEST_F(FrameDecode, ExtentsAreSignedAndTruncateTowardZero) {
    const std::pair<int, TExtents> cases[] = {
        {1000, {1000, 1000, 250, 250}},        {-6, {0xFFFA, 0xFFFA, -1, -1}},
        {-5, {0xFFFB, 0xFFFB, -1, -1}},        {3, {3, 3, 0, 0}},
        {-32768, {0x8000, 0x8000, -8192, -8192}}, {32767, {32767, 32767, 8191, 8191}},
    };
    for (const auto& [extent, extents] : cases) {
        ASSERT_TRUE(Decode(Payload(false, 0, {extent, extent}, {})));
        EXPECT_EQ(Extents(), extents) << extent;
    }
    ASSERT_TRUE(Decode(Payload(true, 0, {-20, -1, 0xFFFF, 0x8000}, {})));
    EXPECT_EQ(Extents(), (TExtents{0xFFFF, 0x8000, -20, -1}));
}

// Verify the count limits: the payload, the claimed count and the storage, whichever is first.
TEST_F(FrameDecode, ContactCountIsBoundedByPayloadCountAndStorage) {
    constexpr size_t kPoint = sizeof(_HARDWARE_SDK_POINT);
    struct Case {
        const char* what;
        bool extended;
        uint8_t count;
        int contactsInPayload;
        size_t length;
        uint16_t storageBytes;
        size_t expected;
    } cases[] = {
        {"compact, count above payload", false, 20, 9, 63, FRAME_POINT_BUFFER_BYTES, 9},
        {"extended, count above payload", true, 20, 5, 63, FRAME_POINT_BUFFER_BYTES, 5},
        {"compact, count below payload", false, 2, 9, 63, FRAME_POINT_BUFFER_BYTES, 2},
        {"extended, count 255", true, 255, 5, 63, FRAME_POINT_BUFFER_BYTES, 5},
        {"compact, short payload", false, 9, 9, 24, FRAME_POINT_BUFFER_BYTES, 3},
        {"compact, one byte short of 3", false, 9, 9, 23, FRAME_POINT_BUFFER_BYTES, 2},
        {"extended, one contact only", true, 5, 5, 29, FRAME_POINT_BUFFER_BYTES, 1},
        {"compact, no storage", false, 3, 3, 63, 0, 0},
        {"compact, storage for 2", false, 9, 9, 63, 2 * kPoint, 2},
        {"extended, storage for 2 and a bit", true, 5, 5, 63, 3 * kPoint - 1, 2},
    };
    for (const auto& c : cases) {
        frame.pointBufferBytes = c.storageBytes;
        const std::vector<int> extents = c.extended ? std::vector<int>{100, 100, 400, 400}
                                                    : std::vector<int>{400, 400};
        EXPECT_TRUE(Decode(Payload(c.extended, c.count, extents, Numbered(c.contactsInPayload),
                                   c.length)))
            << c.what;
        EXPECT_EQ(Points().size(), c.expected) << c.what;
    }
}

// Verify that the list runs in the reverse of the report's order, with every field decoded.
TEST_F(FrameDecode, ListIsReversedAndFieldsAreDecoded) {
    ASSERT_TRUE(Decode(Payload(false, 3, {1000, 1000},
                               {{1, 0, 10, 20}, {2, 1, 0xFFFF, 0x8001}, {3, 2, 30, 40}})));
    EXPECT_EQ(Points(), (std::vector<std::string>{"3 2 30 40 0 0 0", "2 1 65535 32769 0 0 0",
                                                  "1 0 10 20 0 0 0"}));
    ASSERT_TRUE(Decode(Payload(true, 2, {100, 100, 400, 400},
                               {{7, 1, 11, 12, 10, -3}, {9, 2, 21, 22, -32768, 2}})));
    EXPECT_EQ(Points(), (std::vector<std::string>{"9 2 21 22 -32768 2 -65536",
                                                  "7 1 11 12 10 -3 -30"}));
}

// Verify that the decoder clears the consumer slot but leaves the calibration outputs alone.
TEST_F(FrameDecode, DecoderLeavesOutputFieldsAndClearsUser) {
    auto* slot = reinterpret_cast<_HARDWARE_SDK_POINT*>(storage.data());
    slot->z = 1234;
    slot->x = 55;
    slot->user = slot;
    ASSERT_TRUE(Decode(Payload(false, 1, {400, 400}, Numbered(1))));
    ASSERT_EQ(frame.points, slot);
    EXPECT_EQ(slot->z, 1234);
    EXPECT_EQ(slot->x, 55);
    EXPECT_EQ(slot->user, nullptr);
}

// Verify that a misaligned or missing contact storage never receives contacts.
TEST_F(FrameDecode, UnusableStorageYieldsNoContacts) {
    for (uint8_t* buffer : {storage.data() + 1, static_cast<uint8_t*>(nullptr)}) {
        frame.pointBuffer = buffer;
        EXPECT_TRUE(Decode(Payload(false, 2, {400, 400}, Numbered(2))));
        EXPECT_EQ(frame.points, nullptr);
    }
}

}  // namespace
