#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "exchange.h"
#include "timings.h"
#include "zel_http/records.h"

namespace tool {

/// What became of one request.
struct Outcome {
    const zel::http::RequestConfig* request = nullptr;
    /// Where the body went, "-" for standard output; empty when it is in `body`.
    std::string file;
    /// 0 without an answer.
    unsigned status = 0;
    /// Why there is no answer, or no whole one: the failure's name and what is known beside it.
    std::string failure;
    std::string message;
    std::string status_line;
    Fields fields;
    std::string body;
    std::uint64_t body_size = 0;
    Timings timings;
    /// From the start to the delivery on this thread.
    double milliseconds = 0;

    bool failed() const { return !failure.empty() || status >= 400; }
};

/// The names and milliseconds of the phases.
inline std::vector<std::pair<std::string, double>> phasesOf(const Outcome& outcome) {
    const Timings& timings = outcome.timings;
    return {{"lookup", timings.lookup},
            {"connect", timings.connect},
            {"tls", timings.tls},
            {"wait", timings.wait},
            {"receive", timings.receive},
            {"total", timings.total},
            {"delivered", outcome.milliseconds}};
}

}  // namespace tool
