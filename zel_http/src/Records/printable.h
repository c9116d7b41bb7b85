#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace zel::http {

/// A tab is none here: it separates the fields of a cookie, and harms no line.
constexpr bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7f;
}

/// A text from outside as it stands in a log line: each control character as "\xNN", so that it
/// can neither begin a line of its own nor steer a terminal.
inline std::string printable(std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    if (std::none_of(text.begin(), text.end(), isControl)) return std::string(text);
    std::string shown;
    for (const char c : text) {
        if (!isControl(c)) {
            shown += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        shown += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xfU]};
    }
    return shown;
}

}  // namespace zel::http
