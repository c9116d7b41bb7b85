#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"

namespace CLI {
class App;
}

namespace tool {

/// The options as text, before they become requests.
struct Options {
    std::vector<std::string> urls;
    std::string method;
    std::vector<std::string> headers;
    std::optional<std::string> data;
    std::string credentials;
    bool basic = false;
    double timeout = 0;
    bool insecure = false;
    std::string proxy_credentials;
    std::optional<std::string> output;
    std::string output_directory;
    std::string continue_at;
    std::size_t parallel = 0;  // 0: one for each URL
    std::string completion;
    bool manual = false;
    bool version = false;
};

const std::map<std::string, zel::http::Method>& methodNames();

/// Declares every option with its help: `--help`, the manual page and the completion are made of
/// this. An option that depends on no other is stored in `config` or `command_line` directly.
void declare(CLI::App& app, Options& options, zel::http::RequestConfig& config,
             CommandLine& command_line);

}  // namespace tool
