#include "LittleEndian.h"

#include <gtest/gtest.h>

#include <array>

namespace {

// Reads and writes at an odd offset, so an aligned word access would show.
TEST(LittleEndian, SixteenBitValuesBothWays) {
    struct Case {
        std::array<uint8_t, 2> bytes;
        uint16_t u;
        int16_t i;
    };
    const Case cases[] = {
        {{0x34, 0x12}, 0x1234, 0x1234},
        {{0xFF, 0x7F}, 0x7FFF, 32767},
        {{0x00, 0x80}, 0x8000, -32768},
        {{0xFF, 0xFF}, 0xFFFF, -1},
    };
    for (const Case& c : cases) {
        std::array<uint8_t, 4> buffer{0xAA, c.bytes[0], c.bytes[1], 0xAA};
        EXPECT_EQ(ReadLeU16(buffer.data() + 1), c.u);
        EXPECT_EQ(ReadLeI16(buffer.data() + 1), c.i);
        std::array<uint8_t, 4> written{0xAA, 0, 0, 0xAA};
        WriteLeU16(written.data() + 1, c.u);
        EXPECT_EQ(written, buffer) << c.u;
    }
}

TEST(LittleEndian, ThirtyTwoBitValuesBothWays) {
    struct Case {
        std::array<uint8_t, 4> bytes;
        uint32_t value;
    };
    const Case cases[] = {
        {{0x78, 0x56, 0x34, 0x12}, 0x12345678u},
        {{0x00, 0x00, 0x00, 0x80}, 0x80000000u},
        {{0xFF, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFFu},
    };
    for (const Case& c : cases) {
        std::array<uint8_t, 6> buffer{0xAA, c.bytes[0], c.bytes[1], c.bytes[2], c.bytes[3], 0xAA};
        EXPECT_EQ(ReadLeU32(buffer.data() + 1), c.value);
        std::array<uint8_t, 6> written{0xAA, 0, 0, 0, 0, 0xAA};
        WriteLeU32(written.data() + 1, c.value);
        EXPECT_EQ(written, buffer) << c.value;
    }
}

}  // namespace
