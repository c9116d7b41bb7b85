#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "body.h"
#include "command_line.h"

namespace CLI {
class App;
}

namespace tool {

/// The options as text, before they become requests.
struct Options {
    std::vector<std::string> urls;
    std::vector<std::string> more_urls;
    std::vector<std::string> headers;
    std::vector<DataPiece> data;
    std::string config;
    std::vector<std::string> cookies;
    std::vector<std::string> form;
    std::string user_agent = "zel-http/" ZEL_HTTP_VERSION;
    std::string referer;
    std::string credentials;
    std::string rate;
    std::string most_bytes;
    std::string proxy_credentials;
    std::string direct_hosts;
    std::vector<std::string> output;
    /// Of -o and -O in their order; nothing for -O.
    std::vector<std::optional<std::string>> files;
    std::string output_directory = ".";
    std::string continue_at;
    std::string completion;
    double timeout = 0;
    double connect_timeout = 0;
    double retry_delay = 0;
    std::size_t parallel = 1;
    int verbose = 0;
    bool data_to_url = false;
    bool basic = false;
    bool digest = false;
    bool any_authentication = false;
    bool http_1_1 = false;
    bool ipv4 = false;
    bool ipv6 = false;
    bool insecure = false;
    bool remote_name = false;
    bool silent = false;
    bool show_error = false;
    bool latency = false;
    bool manual = false;
    bool version = false;
};

/// Declares every option with its help: `--help`, the manual page and the completions are made of
/// this. An option that depends on no other is stored in `config` or `command_line` directly.
void declare(CLI::App& app, Options& options, zel::http::RequestConfig& config,
             CommandLine& command_line);

}  // namespace tool
