#include "TuioSettings.h"

#include <algorithm>

namespace {

constexpr size_t kMaxHostChars = 253;  // longest DNS name

bool HostChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '.' || c == '-' || c == '_';
}

bool Ipv6Char(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') ||
           c == ':' || c == '.';
}

bool Fail(std::string* error, std::string_view text, const std::string& why) {
    if (error != nullptr) {
        // The text may be anything: quote at most a bounded piece of it.
        *error = "TUIO target \"" + std::string(text.substr(0, 64)) + "\": " + why;
    }
    return false;
}

bool ParsePort(std::string_view digits, uint16_t* port) {
    if (digits.empty() || digits.size() > 5) return false;
    uint32_t value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value < 1 || value > 65535) return false;
    *port = static_cast<uint16_t>(value);
    return true;
}

}  // namespace

std::optional<TTuioTarget> ParseTuioTarget(std::string_view text, std::string* error) {
    TTuioTarget target;
    std::string_view portText = text;
    if (text.empty()) {
        Fail(error, text, "empty; expected [HOST:]PORT");
        return std::nullopt;
    }
    if (text.front() == '[') {
        const size_t close = text.find(']');
        if (close == std::string_view::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            Fail(error, text, "expected [IPV6-ADDRESS]:PORT");
            return std::nullopt;
        }
        const std::string_view host = text.substr(1, close - 1);
        if (host.empty() || host.size() > 45 || !std::all_of(host.begin(), host.end(), Ipv6Char)) {
            Fail(error, text, "not an IPv6 address in the brackets");
            return std::nullopt;
        }
        target.host = std::string(host);
        portText = text.substr(close + 2);
    } else if (const size_t colon = text.rfind(':'); colon != std::string_view::npos) {
        const std::string_view host = text.substr(0, colon);
        if (host.find(':') != std::string_view::npos) {
            Fail(error, text, "an IPv6 address goes in brackets: [ADDRESS]:PORT");
            return std::nullopt;
        }
        if (host.empty() || host.size() > kMaxHostChars ||
            !std::all_of(host.begin(), host.end(), HostChar)) {
            Fail(error, text, "not a host name or address");
            return std::nullopt;
        }
        target.host = std::string(host);
        portText = text.substr(colon + 1);
    }
    if (!ParsePort(portText, &target.port)) {
        Fail(error, text, "the port must be a number 1..65535");
        return std::nullopt;
    }
    return target;
}

std::string FormatTuioTarget(const TTuioTarget& target) {
    const std::string port = std::to_string(target.port);
    if (target.host.find(':') != std::string::npos) return "[" + target.host + "]:" + port;
    return target.host + ":" + port;
}
