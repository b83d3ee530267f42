// Wide strings and 16-bit code-unit strings: the conversions the configuration codec needs.
//
// Device texts are stored as 16-bit code units (one unit per character) and held in memory as
// wide characters. Every conversion is bounded: it reads at most the number of elements it is
// given, never more than TWIDE_TEXT_MAX_CHARS characters, and always writes a terminating zero,
// whatever the source holds. A destination must hold TWIDE_TEXT_CHARS elements.
#pragma once

constexpr int TWIDE_TEXT_CHARS = 32;                     // buffer size of one text
constexpr int TWIDE_TEXT_MAX_CHARS = TWIDE_TEXT_CHARS - 1;  // characters before the zero

// Number of characters of `src` before its first zero, looking at no more than `srcChars`
// elements and counting at most TWIDE_TEXT_MAX_CHARS.
int TWcsTextLength(const wchar_t* src, int srcChars);

// Wide string to code units: each character keeps its low 16 bits. Converts up to the first
// zero of `src` (at most `srcChars` elements, at most 31 characters), then writes a zero unit.
// Returns the number of units written before the zero.
int TWcsToUnsignedShort(unsigned short* dst, const wchar_t* src, int srcChars);

// Code units to a wide string: converts up to the first zero unit of `src` (at most `srcUnits`
// units, at most 31 characters), then writes a zero. Returns the number of characters written
// before the zero.
int TUnsigendShortToWcs(wchar_t* dst, const unsigned short* src, int srcUnits);

// Number of code units before the first zero unit within `srcUnits` units; `srcUnits` when no
// zero lies within them. Not limited to 31: callers use it to refuse texts that are too long.
int TUnsignedShortLength(const unsigned short* src, int srcUnits);
