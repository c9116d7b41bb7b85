#pragma once

#include <cstddef>
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
    std::size_t index = 0;  ///< of its URL in the command line
    /// Where the body is to go, "-" for standard output.
    std::string file = "-";
    /// 0 without an answer.
    unsigned status = 0;
    /// Why there is no answer, or no whole one: the failure's name and what is known beside it.
    std::string failure;
    std::string message;
    /// @{
    /// Of the final response. Head and trailers are as they came, where bodies are held in memory.
    std::string head;
    std::string trailers;
    Fields fields;
    /// @}
    std::string body;
    std::uint64_t body_size = 0;
    bool is_written = false;  ///< bytes went where they cannot be taken back
    zel::http::TransferFacts facts;
    /// From the start to the delivery on this thread.
    double milliseconds = 0;

    /// A status from 400 on, where that is a failure.
    bool is_error_answer = false;
    /// What a failure of the tool's own, of which libcurl knows nothing, ends the program with.
    int exit_status = 0;

    bool failed() const { return !failure.empty() || is_error_answer; }
    /// Whether a file gets it: neither an error nor less than a whole answer replaces one, and "not
    /// modified" stands for what is there.
    bool replacesFile() const {
        constexpr unsigned not_modified = 304;
        return !failed() && status != not_modified;
    }
};

/// The names and milliseconds of the phases.
inline std::vector<std::pair<std::string, double>> phasesOf(const Outcome& outcome) {
    const Timings timings = timingsOf(outcome.facts);
    return {{"lookup", timings.lookup},
            {"connect", timings.connect},
            {"tls", timings.tls},
            {"wait", timings.wait},
            {"receive", timings.receive},
            {"total", timings.total},
            {"delivered", outcome.milliseconds}};
}

}  // namespace tool
