#pragma once

#include <string_view>

#include "Engine/active_task.h"

namespace zel::http {

/// Gets each header line of a response. A body that ends with its TLS connection is whole only if
/// the server says so with a close_notify; libcurl (7.88) takes any end for that one. Notes with
/// the task whether it must come, and when it does. Engine thread.
void watchForCloseNotify(Engine::ActiveTask& task, std::string_view line);

/// Whether OpenSSL has given up the transfer's connection. Engine thread.
bool hasBrokenTls(CURL* curl);

}  // namespace zel::http
