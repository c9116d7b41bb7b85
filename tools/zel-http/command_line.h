#pragma once

#include <optional>
#include <string>
#include <vector>

#include "zel_http/records.h"

namespace tool {

/// What the user asked for. Without a URL in `requests` that is the demonstration.
struct CommandLine {
    std::vector<zel::http::RequestConfig> requests;
    bool show_headers = false;
    /// The file for the body; empty for standard output.
    std::string output;
    int log_level = 0;
    zel::http::LogFilter log_filter;
    /// The proxy for all requests; empty for none.
    std::string proxy;
    std::string proxy_user;
    std::string proxy_password;
};

/// What ends the program at once: the text to print and the exit status, 0 for `--help` and 2 for
/// a bad command line.
struct EarlyExit {
    std::string text;
    int status;
};

/// Reads the command line, and the body when it comes from a file. Either `command_line` is filled
/// or the way out is returned.
std::optional<EarlyExit> parse(int argc, const char* const* argv, CommandLine& command_line);

}  // namespace tool
