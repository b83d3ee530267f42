// Text from outside (a file's bytes, a file name, a token of a script or a command line) shown in
// a message: one line, readable, never the raw bytes and never more than a few dozen characters.
// A byte that is not printable ASCII is written \xNN and a backslash \\, so that a terminal never
// receives control sequences and the message stays one line; what is longer than
// kQuotedTextMaxChars characters (after escaping) is cut, the cut shown by "..." and the length.
//
// Example: QuotedText("a\x1b[2Jb") == "'a\\x1b[2Jb'"
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

inline constexpr size_t kQuotedTextMaxChars = 80;

// The text escaped and cut, without quotes.
std::string EscapedText(std::string_view text, size_t maxChars = kQuotedTextMaxChars);
// The text escaped and cut, in single quotes: 'text', or 'text'... (N bytes) when cut.
std::string QuotedText(std::string_view text, size_t maxChars = kQuotedTextMaxChars);
