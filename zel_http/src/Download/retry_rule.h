#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

#include "zel_http/download.h"

namespace zel::http {

/// Whether another try may succeed where this one failed. `text` is the engine's, which tells a
/// body that was cut from, say, a certificate that is not trusted.
bool mayPass(Failure failure, const std::string& text);
bool mayPass(std::uint32_t status);

/// What a Retry-After asks for, in seconds or as a date; nothing for other texts.
std::optional<std::chrono::milliseconds> parseRetryAfter(const std::string& text, std::time_t now);

/// The delay before the `attempt`-th retry, 1 for the first. `share` is random, from 0 to 1.
std::chrono::milliseconds delayBefore(unsigned attempt, const RetryPolicy& policy, double share,
                                      std::optional<std::chrono::milliseconds> retry_after);

}  // namespace zel::http
