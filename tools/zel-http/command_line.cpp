#include "command_line.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <utility>

namespace tool {
namespace {

using zel::http::AuthMethod;
using zel::http::LogFilter;
using zel::http::Method;
using zel::http::RequestConfig;

constexpr double longest_timeout = 1e9;  // seconds; about 32 years

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
};

/// What all requests have in common goes straight into their configuration.

const std::map<std::string, LogFilter::Payload> payloads = {
    {"none", LogFilter::None},
    {"errors", LogFilter::Verbose},
    {"requests", LogFilter::RequestBodies},
    {"all", LogFilter::Full},
};

const std::map<std::string, Method> methods = {
    {"GET", Method::GET},     {"POST", Method::POST},     {"PUT", Method::PUT},
    {"PATCH", Method::PATCH}, {"DELETE", Method::DELETE},
};

[[noreturn]] void refuse(const std::string& text) { throw CLI::ValidationError(text); }

std::string readAll(std::istream& stream, const std::string& name) {
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (stream.bad()) refuse("-d: cannot read " + name);
    return text;
}

std::string readBody(const std::string& data) {
    if (data.empty() || data.front() != '@') return data;
    const std::string path = data.substr(1);
    if (path == "-") return readAll(std::cin, "standard input");
    std::ifstream file(path, std::ios::binary);
    if (!file) refuse("-d: cannot open " + path);
    return readAll(file, path);
}

void addHeader(const std::string& line, zel::http::HeaderMap& headers) {
    const auto colon = line.find(':');
    if (colon == 0 || colon == std::string::npos) refuse("-H: '" + line + "' is not 'Name: value'");
    if (line.find_first_of("\r\n") != std::string::npos) refuse("-H: a header is one line");
    const auto value = line.find_first_not_of(" \t", colon + 1);
    headers.insert_or_assign(line.substr(0, colon),
                             value == std::string::npos ? "" : line.substr(value));
}

/// "user:password"; the password is empty without a colon.
void splitCredentials(const std::string& text, const char* option, std::string& user,
                      std::string& password) {
    const auto colon = text.find(':');
    user = text.substr(0, colon);
    if (user.empty()) refuse(std::string(option) + ": the user name is empty");
    if (colon != std::string::npos) password = text.substr(colon + 1);
}

/// Adds to `config` what is more than one option's value.
void complete(RequestConfig& config, const Options& options) {
    config.method = options.data ? Method::POST : Method::GET;
    if (!options.method.empty()) config.method = methods.at(options.method);
    if (options.data) {
        if (config.method == Method::GET || config.method == Method::DELETE) {
            refuse("-d: a body goes with POST, PUT and PATCH only");
        }
        config.body = readBody(*options.data);
    }
    for (const auto& line : options.headers) addHeader(line, config.headers);
    if (!options.credentials.empty()) {
        splitCredentials(options.credentials, "-u", config.user, config.password);
    }
    if (config.own_cert.has_value() != config.own_pkey.has_value()) {
        refuse("--cert and --key go together");
    }
    config.tls_verify = !options.insecure;
    if (options.basic) config.auth_method = AuthMethod::BASIC;
    config.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(options.timeout * 1000));
}

void declareTls(CLI::App& app, Options& options, RequestConfig& config) {
    const auto file = [&](const char* name, std::optional<std::string>& path, const char* help) {
        app.add_option(name, path, help)->check(CLI::ExistingPath)->option_text("PATH");
    };
    file("--ca-file", config.ca_file, "Trusted authorities, PEM, instead of the system's");
    file("--ca-dir", config.ca_dir, "A directory of trusted authorities, hashed");
    file("--cert", config.own_cert, "The client's own certificate, PEM");
    file("--key", config.own_pkey, "The private key of --cert, PEM");
    app.add_flag("--partial-chain", config.tls_partial_chain,
                 "Let a chain end at any trusted certificate");
    app.add_flag("--insecure", options.insecure, "Do not verify the server");
}

void declare(CLI::App& app, Options& options, RequestConfig& config, CommandLine& command_line) {
    constexpr auto largest = std::numeric_limits<std::int32_t>::max();
    app.add_option("URL", options.urls, "What to request; several run at once");
    app.add_option("-X,--request", options.method, "The method: GET, POST, PUT, PATCH or DELETE")
        ->check(CLI::IsMember(&methods))
        ->option_text("METHOD");
    app.add_option("-H,--header", options.headers, "A request header, 'Name: value'; repeatable")
        ->option_text("LINE")
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("-d,--data", options.data,
                   "The body; @FILE reads it from a file, @- from standard input. Implies POST")
        ->option_text("TEXT");
    app.add_option("-u,--user", options.credentials, "Credentials for the server")
        ->option_text("USER:PASSWORD");
    app.add_flag("--basic", options.basic, "Offer Basic authentication only");
    app.add_option("--timeout", options.timeout, "Seconds for the whole exchange; 0 for no limit")
        ->check(CLI::Range(0.0, longest_timeout))
        ->option_text("SECONDS");
    app.add_option("--max-size", config.max_download_size, "The most body bytes accepted")
        ->check(CLI::Range(0, largest))
        ->option_text("BYTES");
    app.add_flag("--reset-state", config.reset_state,
                 "Start clean: no cookies, connection or name look-up of before");
    app.add_option("--proxy", command_line.proxy, "Tunnel through this proxy")->option_text("URL");
    app.add_option("--proxy-user", options.proxy_credentials, "Credentials for the proxy")
        ->option_text("USER:PASSWORD");
    declareTls(app, options, config);
    app.add_flag("-i,--include", command_line.show_headers, "Print the response's headers too");
    app.add_option("-o,--output", command_line.output, "Write the body to a file")
        ->option_text("FILE");
    app.add_option("-v,--verbose", command_line.log_level,
                   "Log to standard error, from 1 (summaries) to 9 (everything)")
        ->check(CLI::Range(0, 9))
        ->option_text("LEVEL");
    app.add_option("--log-bodies", command_line.log_filter.payload,
                   "Which bodies -v shows: none (and nothing else of the requests), errors, "
                   "requests or all")
        ->transform(CLI::CheckedTransformer(payloads).description(""))
        ->option_text("WHICH");
}

std::string oneLine(const CLI::App* /*app*/, const CLI::Error& error) {
    return "zel-http: " + std::string(error.what()) + " (see --help)\n";
}

EarlyExit exitFor(const CLI::App& app, const CLI::ParseError& error) {
    std::ostringstream text;
    const bool asked = app.exit(error, text, text) == 0;
    return {text.str(), asked ? 0 : 2};
}

}  // namespace

std::optional<EarlyExit> parse(int argc, const char* const* argv, CommandLine& command_line) {
    CLI::App app(
        "Performs HTTP requests through libzel_http and prints each outcome. Without a URL it\n"
        "starts an origin of its own on loopback and shows the library at work against it.\n"
        "Exit status: 0 all answered with a status below 400, 1 an error or a status from 400 on,\n"
        "2 a bad command line, 130 interrupted.",
        "zel-http");
    app.failure_message(oneLine);
    Options options;
    RequestConfig config;
    declare(app, options, config, command_line);
    try {
        app.parse(argc, argv);
        if (options.urls.size() > 1 && !command_line.output.empty()) {
            refuse("-o: takes the body of one URL only");
        }
        complete(config, options);
        if (!options.proxy_credentials.empty()) {
            splitCredentials(options.proxy_credentials, "--proxy-user", command_line.proxy_user,
                             command_line.proxy_password);
        }
        for (const auto& url : options.urls) {
            command_line.requests.push_back(config);
            command_line.requests.back().url = url;
        }
    } catch (const CLI::ParseError& error) {
        return exitFor(app, error);
    }
    return std::nullopt;
}

}  // namespace tool
