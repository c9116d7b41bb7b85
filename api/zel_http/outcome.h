#pragma once

#include <variant>

#include "zel_http/records.h"

namespace zel::http {

/// What a request came to: the answer of a server, whatever its status, or why there is none.
using Outcome = std::variant<ResponseData, ErrorData>;

}  // namespace zel::http
