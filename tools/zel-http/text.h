#pragma once

#include <cstddef>
#include <string>

#include "zel_http/records.h"

namespace tool {

/// "17 bytes", "4.0 KiB", "1.5 MiB".
std::string sizeText(std::size_t bytes);

/// "<Operation timed out> (Timeout was reached)".
std::string errorText(const zel::http::ErrorData& error);

}  // namespace tool
