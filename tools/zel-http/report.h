#pragma once

#include <chrono>

#include "command_line.h"
#include "latency.h"
#include "outcome.h"
#include "zel_http/engine_statistics.h"

namespace tool {

/// Prints the outcomes of requests: responses and JSON on standard output, the rest on standard
/// error.
class Report {
public:
    explicit Report(const CommandLine& command_line) : command_line_(command_line) {}

    void add(const Outcome& outcome);
    /// Prints the latencies of repeated requests. Called once, after the last one or an
    /// interruption.
    void summarise(std::chrono::duration<double> took);
    /// Prints what the engine has done, as a line of JSON where outcomes are such.
    void add(const zel::http::EngineStatistics& statistics);
    /// Whether any request failed, or its answer was not printed.
    bool failed() const { return failed_; }

private:
    void printAnswer(const Outcome& outcome);
    void checkOutput();

    const CommandLine& command_line_;
    Latencies latencies_;
    bool failed_ = false;
    bool output_lost_ = false;
};

}  // namespace tool
