#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "zel_http/records.h"

namespace tool {

/// "17 bytes", "4.0 KiB", "1.5 MiB".
std::string sizeText(std::uint64_t bytes);

/// The text with "***" in place of the user and password of each URL in it.
std::string withoutCredentials(std::string text);

/// What "\n", "\r" and "\t" stand for; nothing for a backslash before another letter.
std::optional<char> controlOf(char letter);

/// Throws `std::runtime_error` for what would begin another line of a head.
void checkOneLine(const std::string& text);

/// Whether `bytes` contain a control character that does not occur in texts.
bool isBinary(std::string_view bytes);

/// What an enumeration of the library prints, such as "<Operation timed out>".
template <typename Enumeration>
std::string nameOf(Enumeration value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

/// "<Operation timed out> (Timeout was reached)".
std::string errorText(const zel::http::ErrorData& error);

/// A line of a table: whether the outcome was the expected one, the name, and the outcome or both.
std::string comparison(const std::string& name, std::size_t name_width, const std::string& expected,
                       const std::string& actual);

}  // namespace tool
