#include "MtDevFrame.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
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

void Put16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v & 0xFF));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

// A 63-byte payload (zero-padded) as a touch frame sends it.
std::vector<uint8_t> Compact(uint8_t count, int16_t extentX, int16_t extentY,
                             const std::vector<RawContact>& contacts, size_t length = 63) {
    std::vector<uint8_t> p = {FRAME_TAG_COMPACT, count};
    Put16(p, static_cast<uint16_t>(extentX));
    Put16(p, static_cast<uint16_t>(extentY));
    for (const auto& c : contacts) {
        p.push_back(c.id);
        p.push_back(c.status);
        Put16(p, c.x);
        Put16(p, c.y);
    }
    p.resize(length, 0);
    return p;
}

std::vector<uint8_t> Extended(uint8_t count, int16_t logicalX, int16_t logicalY, uint16_t rawX,
                              uint16_t rawY, const std::vector<RawContact>& contacts,
                              size_t length = 63) {
    std::vector<uint8_t> p = {FRAME_TAG_EXTENDED, count};
    Put16(p, static_cast<uint16_t>(logicalX));
    Put16(p, static_cast<uint16_t>(logicalY));
    Put16(p, rawX);
    Put16(p, rawY);
    for (const auto& c : contacts) {
        p.push_back(c.id);
        p.push_back(c.status);
        Put16(p, c.x);
        Put16(p, c.y);
        Put16(p, static_cast<uint16_t>(c.w));
        Put16(p, static_cast<uint16_t>(c.h));
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

    std::vector<uint8_t> Ids() const {
        std::vector<uint8_t> ids;
        for (auto* p = frame.points; p != nullptr; p = p->next) ids.push_back(p->id);
        return ids;
    }

    alignas(_HARDWARE_SDK_POINT) std::array<uint8_t, FRAME_POINT_BUFFER_BYTES> storage{};
    _HARDWARE_FRAME_SDK frame{};
};

// Verify that every payload that is not a frame is refused and leaves no contacts behind.
TEST_F(FrameDecode, RejectsNonFramesAndClearsTheList) {
    ASSERT_TRUE(Decode(Compact(2, 1000, 800, Numbered(2))));
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

// Verify that a header-only payload sets the extents and yields no contacts.
TEST_F(FrameDecode, HeaderOnlyPayloadsAreFramesWithoutContacts) {
    auto compact = Compact(3, 1000, 800, {}, 6);
    EXPECT_TRUE(Decode(compact));
    EXPECT_EQ(frame.points, nullptr);
    EXPECT_EQ(frame.rawWidth, 1000);
    EXPECT_EQ(frame.rawHeight, 800);
    EXPECT_EQ(frame.logicalWidth, 250);
    EXPECT_EQ(frame.logicalHeight, 200);

    auto extended = Extended(4, 300, 200, 4000, 3000, Numbered(1), 15);
    EXPECT_TRUE(Decode(extended));
    EXPECT_EQ(frame.points, nullptr);
    EXPECT_EQ(frame.logicalWidth, 300);
    EXPECT_EQ(frame.logicalHeight, 200);
    EXPECT_EQ(frame.rawWidth, 4000);
    EXPECT_EQ(frame.rawHeight, 3000);

    EXPECT_TRUE(Decode(Compact(0, 1000, 800, Numbered(2))));  // count 0
    EXPECT_EQ(frame.points, nullptr);
}

// Verify the compact form's extent arithmetic: signed, divided by 4 toward zero.
TEST_F(FrameDecode, CompactExtentsTruncateTowardZero) {
    struct Case {
        int16_t extent;
        uint16_t raw;
        int32_t logical;
    } cases[] = {
        {1000, 1000, 250}, {-6, 0xFFFA, -1}, {-5, 0xFFFB, -1}, {3, 3, 0},
        {-32768, 0x8000, -8192}, {32767, 32767, 8191},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(Decode(Compact(0, c.extent, c.extent, {})));
        EXPECT_EQ(frame.rawWidth, c.raw) << c.extent;
        EXPECT_EQ(frame.logicalWidth, c.logical) << c.extent;
        EXPECT_EQ(frame.logicalHeight, c.logical) << c.extent;
    }
}

// Verify that the extended form keeps a negative logical extent with its sign.
TEST_F(FrameDecode, ExtendedLogicalExtentsAreSigned) {
    ASSERT_TRUE(Decode(Extended(0, -20, -1, 0xFFFF, 0x8000, {})));
    EXPECT_EQ(frame.logicalWidth, -20);
    EXPECT_EQ(frame.logicalHeight, -1);
    EXPECT_EQ(frame.rawWidth, 0xFFFF);
    EXPECT_EQ(frame.rawHeight, 0x8000);
}

// Verify the count limits: the payload, the claimed count and the storage, whichever is first.
TEST_F(FrameDecode, ContactCountIsBoundedByPayloadCountAndStorage) {
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
        {"compact, storage for 2", false, 9, 9, 63, 2 * sizeof(_HARDWARE_SDK_POINT), 2},
        {"extended, storage for 2 and a bit", true, 5, 5, 63,
         3 * sizeof(_HARDWARE_SDK_POINT) - 1, 2},
    };
    for (const auto& c : cases) {
        frame.pointBufferBytes = c.storageBytes;
        auto contacts = Numbered(c.contactsInPayload);
        auto payload = c.extended ? Extended(c.count, 100, 100, 400, 400, contacts, c.length)
                                  : Compact(c.count, 400, 400, contacts, c.length);
        EXPECT_TRUE(Decode(payload)) << c.what;
        EXPECT_EQ(Ids().size(), c.expected) << c.what;
    }
}

// Verify that the list runs in the reverse of the report's order, with every field decoded.
TEST_F(FrameDecode, ListIsReversedAndFieldsAreDecoded) {
    ASSERT_TRUE(Decode(Compact(3, 1000, 1000,
                               {{1, 0, 10, 20}, {2, 1, 0xFFFF, 0x8001}, {3, 2, 30, 40}})));
    EXPECT_EQ(Ids(), (std::vector<uint8_t>{3, 2, 1}));
    const _HARDWARE_SDK_POINT* second = frame.points->next;
    EXPECT_EQ(second->status, 1);
    EXPECT_EQ(second->rawX, 0xFFFF);
    EXPECT_EQ(second->rawY, 0x8001);
    EXPECT_EQ(second->area, 0);
    EXPECT_EQ(second->rawW, 0);
    EXPECT_EQ(second->rawH, 0);
    EXPECT_EQ(frame.points->next->next->next, nullptr);

    ASSERT_TRUE(Decode(Extended(2, 100, 100, 400, 400,
                                {{7, 1, 11, 12, 10, -3}, {9, 2, 21, 22, -32768, 2}})));
    EXPECT_EQ(Ids(), (std::vector<uint8_t>{9, 7}));
    const _HARDWARE_SDK_POINT* last = frame.points->next;
    EXPECT_EQ(last->rawW, 10);
    EXPECT_EQ(last->rawH, -3);
    EXPECT_EQ(last->area, -30);
    EXPECT_EQ(frame.points->area, -65536);
}

// Verify that the decoder clears the consumer slot but leaves the calibration outputs alone.
TEST_F(FrameDecode, DecoderLeavesOutputFieldsAndClearsUser) {
    auto* slot = reinterpret_cast<_HARDWARE_SDK_POINT*>(storage.data());
    slot->z = 1234;
    slot->x = 55;
    slot->user = slot;
    ASSERT_TRUE(Decode(Compact(1, 400, 400, Numbered(1))));
    ASSERT_EQ(frame.points, slot);
    EXPECT_EQ(slot->z, 1234);
    EXPECT_EQ(slot->x, 55);
    EXPECT_EQ(slot->user, nullptr);
}

// Verify that a misaligned or missing contact storage never receives contacts.
TEST_F(FrameDecode, UnusableStorageYieldsNoContacts) {
    frame.pointBuffer = storage.data() + 1;
    EXPECT_TRUE(Decode(Compact(2, 400, 400, Numbered(2))));
    EXPECT_EQ(frame.points, nullptr);
    frame.pointBuffer = nullptr;
    EXPECT_TRUE(Decode(Compact(2, 400, 400, Numbered(2))));
    EXPECT_EQ(frame.points, nullptr);
}

}  // namespace
