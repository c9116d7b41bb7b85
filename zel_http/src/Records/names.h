#pragma once

#include <string_view>

#include "zel_http/download.h"
#include "zel_http/records.h"

namespace zel::http {

/// The printed name of a value; empty for one outside the enumeration.
std::string_view nameOf(Method method);
std::string_view nameOf(AuthMethod method);
std::string_view nameOf(Failure failure);
std::string_view nameOf(ClientFailure failure);
std::string_view nameOf(DownloadFailure failure);

}  // namespace zel::http
