#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "credentials.h"
#include "easy_setup.h"
#include "zel_http/records.h"

namespace tool {

/// When a request that failed is performed again.
struct RetrySettings {
    unsigned most = 0;
    bool refused_connections = false;
    bool all_errors = false;
    std::chrono::milliseconds delay{0};  ///< 0: growing ones
};

/// The parsed command line. Without `requests` the tool runs its demonstration.
struct CommandLine {
    std::vector<zel::http::RequestConfig> requests;
    EasySettings easy;
    RetrySettings retry;
    /// The most body bytes of an answer; 0 for no limit.
    std::uint64_t most_bytes = 0;
    /// Where the body of each request goes, in the same order, "-" for standard output.
    std::vector<std::string> files;
    /// Bodies are held in memory, and printed when they are whole.
    bool holds_bodies = false;
    /// Of what an interrupted download has left, only the rest is fetched.
    bool continues = false;
    /// How often each request is performed, and how many run at a time.
    std::size_t repeat = 1;
    std::size_t parallel = 1;
    std::string picture;
    bool resets_state = false;
    bool show_headers = false;
    bool fails_on_errors = false;
    std::string write_out;
    bool show_timings = false;
    bool show_statistics = false;
    bool json = false;
    bool show_outcomes = false;
    bool show_errors = true;
    bool show_progress = false;
    int log_level = 0;
    /// The proxy for all requests; empty for none.
    std::string proxy;
    Credentials proxy_credentials;
};

/// What ends the program at once: the text to print and the exit status, 0 for `--help` and the
/// like and 2 for a bad command line.
struct EarlyExit {
    std::string text;
    int status;
};

/// Reads the command line, and files that it names. Fills `command_line`, or returns what to print
/// before the program ends.
std::optional<EarlyExit> parse(int argc, const char* const* argv, CommandLine& command_line);

}  // namespace tool
