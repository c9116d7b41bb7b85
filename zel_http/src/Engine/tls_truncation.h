#pragma once

#include <string_view>

#include "Engine/active_task.h"
#include "Records/header_line.h"

namespace zel::http {

/// Called with each header line of a response. A body that ends with its TLS connection is complete
/// only if the server has sent a close_notify; libcurl (7.88) accepts any end. Sets `endAwaited` of
/// the task when a close_notify must come, until it comes. Engine thread.
void watchForCloseNotify(Engine::ActiveTask& task, std::string_view line, LineKind kind);

/// Whether the transfer's TLS connection is in OpenSSL's error state. Engine thread.
bool hasBrokenTls(CURL* curl);

}  // namespace zel::http
