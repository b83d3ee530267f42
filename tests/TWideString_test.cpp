#include "TWideString.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::wstring Wide(const wchar_t* s) { return s; }

// Verify that every conversion stops at the first zero, at the element count it is given, or at
// 31 characters, and always writes its zero.
TEST(TWideString, ConversionsAreBounded) {
    struct Case {
        std::vector<unsigned short> units;
        int srcUnits;
        std::wstring expected;
    } cases[] = {
        {{'a', 'b', 0, 'c'}, 4, L"ab"},
        {{'a', 'b', 'c'}, 2, L"ab"},
        {{'a'}, 0, L""},
        {{'a'}, -5, L""},
        {std::vector<unsigned short>(40, 'x'), 40, std::wstring(31, L'x')},
        {{0xFFFF, 0xD800, 0}, 3, std::wstring{wchar_t(0xFFFF), wchar_t(0xD800)}},
    };
    for (const auto& c : cases) {
        std::vector<wchar_t> out(TWIDE_TEXT_CHARS, L'#');
        const int n = TUnsigendShortToWcs(out.data(), c.units.data(), c.srcUnits);
        EXPECT_EQ(n, static_cast<int>(c.expected.size()));
        EXPECT_EQ(std::wstring(out.data()), c.expected);
    }
    wchar_t out[TWIDE_TEXT_CHARS];
    EXPECT_EQ(TUnsigendShortToWcs(out, nullptr, 5), 0);
    EXPECT_EQ(out[0], 0);
}

TEST(TWideString, WideToUnitsKeepsLow16Bits) {
    unsigned short out[TWIDE_TEXT_CHARS];
    const wchar_t text[] = {L'A', wchar_t(0x1F600), wchar_t(0x263A), 0, L'Z'};
    EXPECT_EQ(TWcsToUnsignedShort(out, text, 5), 3);
    EXPECT_EQ(std::vector<unsigned short>(out, out + 4),
              (std::vector<unsigned short>{'A', 0xF600, 0x263A, 0}));

    const std::wstring longText(50, L'q');  // no zero within 32 elements of a text
    std::vector<unsigned short> wide(TWIDE_TEXT_CHARS + 8, 0xAAAA);
    EXPECT_EQ(TWcsToUnsignedShort(wide.data(), longText.data(), 50), 31);
    std::vector<unsigned short> expected(31, 'q');
    expected.push_back(0);
    expected.resize(wide.size(), 0xAAAA);  // nothing beyond the zero
    EXPECT_EQ(wide, expected);
    EXPECT_EQ(TWcsToUnsignedShort(out, longText.data(), 2), 2);
}

TEST(TWideString, Lengths) {
    EXPECT_EQ(TWcsTextLength(Wide(L"abc").c_str(), 32), 3);
    EXPECT_EQ(TWcsTextLength(Wide(L"abc").c_str(), 2), 2);
    EXPECT_EQ(TWcsTextLength(std::wstring(40, L'x').c_str(), 40), 31);
    EXPECT_EQ(TWcsTextLength(nullptr, 10), 0);
    const unsigned short units[] = {'a', 'b', 0, 'c'};
    EXPECT_EQ(TUnsignedShortLength(units, 4), 2);
    EXPECT_EQ(TUnsignedShortLength(units, 1), 1);
    EXPECT_EQ(TUnsignedShortLength(units, 0), 0);
    const std::vector<unsigned short> many(40, 'y');
    EXPECT_EQ(TUnsignedShortLength(many.data(), 40), 40) << "not limited to 31";
}

}  // namespace
