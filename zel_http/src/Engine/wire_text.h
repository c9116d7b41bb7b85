#pragma once

#include <algorithm>
#include <string_view>

#include "Records/printable.h"

namespace zel::http {

/// Whether a caller's text contains CR or LF, which would end its line and begin a header field or
/// request that nobody asked for, or NUL, at which libcurl would cut it.
inline bool hasCrLfOrNul(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

/// Whether a header line that begins with the text would continue the line before it (folding).
inline bool continuesLine(std::string_view text) {
    return !text.empty() && (text.front() == ' ' || text.front() == '\t');
}

}  // namespace zel::http
