#pragma once

#include <chrono>
#include <iosfwd>

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
    void addRetry(const Outcome& outcome, std::chrono::milliseconds delay) const;
    /// Prints the latencies of repeated requests. Called once, after the last one or an
    /// interruption.
    void summarise(std::chrono::duration<double> took);
    /// Prints what the engine has done, as a line of JSON where outcomes are such.
    void add(const zel::http::EngineStatistics& statistics);
    /// That of the last outcome that failed, or of an answer that was not printed; 0 if none did.
    int exitStatus() const { return exit_status_; }

private:
    void print(const Outcome& outcome);
    void printAnswer(const Outcome& outcome, std::ostream& stream);
    void printLatencies(std::chrono::duration<double> took);
    void drawLatencies();
    void checkOutput();

    const CommandLine& command_line_;
    Latencies latencies_;
    int exit_status_ = 0;
    bool output_lost_ = false;
};

}  // namespace tool
