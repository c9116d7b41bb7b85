#pragma once

#include "Engine/active_task.h"
#include "zel_http/transfer_facts.h"

namespace zel::http {

/// Notes in the task what libcurl forgets when a transfer ends. At the end of a header block;
/// engine thread.
void noteTlsFacts(Engine::ActiveTask& task);

/// The facts of a transfer that ends with `result`. Engine thread.
TransferFacts factsOf(const Engine::ActiveTask& task, CURLcode result);

}  // namespace zel::http
