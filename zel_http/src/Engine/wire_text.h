#pragma once

#include <algorithm>
#include <string_view>

#include "Records/printable.h"

namespace zel::http {

/// Whether a caller's text would end its line on the wire, and so become a header or a request that
/// nobody asked for, or be cut at a NUL on the way to libcurl.
inline bool breaksLine(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

/// Whether a line that begins with the text would continue the header line before it.
inline bool continuesLine(std::string_view text) {
    return !text.empty() && (text.front() == ' ' || text.front() == '\t');
}

}  // namespace zel::http
