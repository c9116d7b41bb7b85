#pragma once

#include <chrono>
#include <optional>

#include "command_line.h"
#include "outcome.h"

namespace tool {

/// Whether an answer with this status is asked for again, so that its body is of no use.
bool isRetried(const RetrySettings& settings, unsigned tries, unsigned status);

/// How long to wait before the next try after `tries` of them, the last of which ended so; nothing
/// when there is none. What was printed already is not asked for again.
std::optional<std::chrono::milliseconds> delayBeforeRetry(const RetrySettings& settings,
                                                          unsigned tries, const Outcome& outcome);

}  // namespace tool
