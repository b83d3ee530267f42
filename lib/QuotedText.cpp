#include "QuotedText.h"

namespace {

// Escapes `text` into `out` up to `maxChars` characters; true when all of it fitted.
bool Escape(std::string_view text, size_t maxChars, std::string* out) {
    static const char kHex[] = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char piece[4];
        size_t length = 1;
        if (byte == '\\') {
            piece[0] = piece[1] = '\\';
            length = 2;
        } else if (byte >= 0x20 && byte < 0x7F) {
            piece[0] = c;
        } else {
            piece[0] = '\\';
            piece[1] = 'x';
            piece[2] = kHex[byte >> 4];
            piece[3] = kHex[byte & 15];
            length = 4;
        }
        // An escape is never split: the cut comes before it.
        if (out->size() + length > maxChars) return false;
        out->append(piece, length);
    }
    return true;
}

}  // namespace

std::string EscapedText(std::string_view text, size_t maxChars) {
    std::string out;
    if (!Escape(text, maxChars, &out)) out += "...";
    return out;
}

std::string QuotedText(std::string_view text, size_t maxChars) {
    std::string out = "'";
    out.reserve(maxChars + 2);
    std::string escaped;
    const bool whole = Escape(text, maxChars, &escaped);
    out += escaped;
    out += '\'';
    if (!whole) out += "... (" + std::to_string(text.size()) + " bytes)";
    return out;
}
