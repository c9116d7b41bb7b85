#pragma once

#include <chrono>
#include <string>

#include "latency.h"
#include "outcome.h"

namespace tool {

/// An outcome as one line of JSON, without the line's end. A body that is no UTF-8 stands as
/// "body_base64".
std::string jsonLine(const Outcome& outcome, bool with_body);

/// The latencies of all requests as one line of JSON.
std::string jsonSummary(const Latencies& latencies, std::chrono::duration<double> took);

}  // namespace tool
