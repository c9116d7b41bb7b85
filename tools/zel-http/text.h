#pragma once

#include <cstddef>
#include <string>

#include "zel_http/records.h"

namespace tool {

/// "17 bytes", "4.0 KiB", "1.5 MiB".
std::string sizeText(std::size_t bytes);

/// "<Operation timed out> (Timeout was reached)".
std::string errorText(const zel::http::ErrorData& error);

/// A line of a table that compares: the name, and what was expected and what came.
std::string comparison(const std::string& name, std::size_t name_width, const std::string& expected,
                       const std::string& came);

}  // namespace tool
