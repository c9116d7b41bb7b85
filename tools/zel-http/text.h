#pragma once

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

#include "zel_http/records.h"

namespace tool {

/// "17 bytes", "4.0 KiB", "1.5 MiB".
std::string sizeText(std::uint64_t bytes);

/// Whether there are control bytes in it that no text has.
bool isBinary(std::string_view bytes);

/// "<Operation timed out>".
template <typename Failure>
std::string nameOf(Failure failure) {
    std::ostringstream text;
    text << failure;
    return text.str();
}

/// "<Operation timed out> (Timeout was reached)".
std::string errorText(const zel::http::ErrorData& error);

/// A line of a table that compares: the name, and what was expected and what came.
std::string comparison(const std::string& name, std::size_t name_width, const std::string& expected,
                       const std::string& came);

}  // namespace tool
