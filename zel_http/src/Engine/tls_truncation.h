#pragma once

#include "Engine/active_task.h"

namespace zel::http {

/// At the end of a response's header lines: a body that ends with its TLS connection is whole only
/// if the server says so with a close_notify. libcurl (7.88, 8.14) takes any end for that one.
/// Notes with the task whether it must come, and when it does. Engine thread.
void watchForCloseNotify(Engine::ActiveTask& task);

}  // namespace zel::http
