#pragma once

#include <chrono>
#include <string>

#include "latency.h"
#include "outcome.h"
#include "zel_http/engine_statistics.h"

namespace tool {

/// An outcome as one line of JSON, without the line's end. A body that is not UTF-8 is encoded as
/// "body_base64" instead of "body".
std::string jsonLine(const Outcome& outcome, bool with_body);

/// As -w has them: {"name":["value",...],...} with names in small letters.
std::string jsonFields(const Fields& fields);

/// The latencies of all requests as one line of JSON.
std::string jsonSummary(const Latencies& latencies, std::chrono::duration<double> took);

/// The fields of the statistics, below "statistics", as one line of JSON.
std::string jsonStatistics(const zel::http::EngineStatistics& engine);

}  // namespace tool
