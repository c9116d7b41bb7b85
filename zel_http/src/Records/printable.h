#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace zel::http {

/// A tab does not count: it separates the fields of a cookie, and cannot end a log line.
constexpr bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7f;
}

/// A text from outside for a log line: control characters become "\xNN", so that the text can
/// neither begin a line of its own nor control a terminal.
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
