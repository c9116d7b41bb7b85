#pragma once

#include "Engine/active_task.h"
#include "zel_http/transfer_facts.h"

namespace zel::http {

/// Notes in the task what libcurl forgets when a transfer ends. At the end of a header block;
/// engine thread.
void noteTlsFacts(Engine::ActiveTask& task);

/// libcurl's own words about a failure, on one line. They may repeat the environment's proxy; that
/// is left out, since it may have a password.
std::string reasonOf(const Engine::ActiveTask& task);

/// The facts of a transfer that ends with `result`. Engine thread.
TransferFacts factsOf(const Engine::ActiveTask& task, CURLcode result);

}  // namespace zel::http
