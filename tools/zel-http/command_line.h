#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "zel_http/records.h"

namespace tool {

/// The parsed command line. Without `requests` the tool runs its demonstration.
struct CommandLine {
    std::vector<zel::http::RequestConfig> requests;
    /// The file for the body of each request, in the same order, "-" for standard output. Empty:
    /// bodies are held in memory, and printed when they are whole.
    std::vector<std::string> files;
    /// Of what an interrupted download has left, only the rest is fetched.
    bool continues = false;
    /// How often each request is performed, and how many run at a time.
    std::size_t repeat = 1;
    std::size_t parallel = 1;
    bool show_headers = false;
    bool show_timings = false;
    bool show_statistics = false;
    bool json = false;
    /// Report failures only.
    bool quiet = false;
    bool show_progress = false;
    int log_level = 0;
    /// The proxy for all requests; empty for none.
    std::string proxy;
    std::string proxy_user;
    std::string proxy_password;
};

/// What ends the program at once: the text to print and the exit status, 0 for `--help` and the
/// like and 2 for a bad command line.
struct EarlyExit {
    std::string text;
    int status;
};

/// Reads the command line, and the body when it comes from a file. Fills `command_line`, or returns
/// what to print before the program ends.
std::optional<EarlyExit> parse(int argc, const char* const* argv, CommandLine& command_line);

}  // namespace tool
