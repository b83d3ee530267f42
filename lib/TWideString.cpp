#include "TWideString.h"

#include <algorithm>

int TWcsTextLength(const wchar_t* src, int srcChars) {
    if (src == nullptr) return 0;
    const int limit = std::min(srcChars, TWIDE_TEXT_MAX_CHARS);
    int n = 0;
    while (n < limit && src[n] != 0) ++n;
    return n;
}

int TWcsToUnsignedShort(unsigned short* dst, const wchar_t* src, int srcChars) {
    const int n = TWcsTextLength(src, srcChars);
    for (int i = 0; i < n; ++i) dst[i] = static_cast<unsigned short>(src[i] & 0xFFFF);
    dst[n] = 0;
    return n;
}

int TUnsigendShortToWcs(wchar_t* dst, const unsigned short* src, int srcUnits) {
    const int limit = src == nullptr ? 0 : std::min(srcUnits, TWIDE_TEXT_MAX_CHARS);
    int n = 0;
    for (; n < limit && src[n] != 0; ++n) dst[n] = static_cast<wchar_t>(src[n]);
    dst[n] = 0;
    return n;
}

int TUnsignedShortLength(const unsigned short* src, int srcUnits) {
    if (src == nullptr || srcUnits <= 0) return 0;
    int n = 0;
    while (n < srcUnits && src[n] != 0) ++n;
    return n;
}
