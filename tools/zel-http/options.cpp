// Declares the options of the command line and their help texts.

#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>

namespace tool {
namespace {

using zel::http::Method;
using zel::http::RequestConfig;

constexpr double longest_timeout = 1e9;  // seconds; about 32 years
constexpr std::size_t most_repeats = 1'000'000;
constexpr std::size_t most_parallel = 10'000;

constexpr const char* description =
    "Performs HTTP and HTTPS requests through libzel_http and prints each answer. Without a\n"
    "URL it starts servers of its own on loopback and shows the library at work against them.";

constexpr const char* footer =
    "Examples:\n"
    "  zel-http https://device.example/state\n"
    "        print the answer\n"
    "  zel-http -X PUT -H 'Content-Type: application/json' -d @state.json URL\n"
    "        send a file\n"
    "  zel-http -o image.bin URL\n"
    "        download with constant memory; image.bin is there when it is complete\n"
    "  zel-http -O downloads --parallel 4 URL1 URL2 URL3...\n"
    "        many downloads, four at a time\n"
    "  zel-http --repeat 1000 --parallel 8 URL\n"
    "        the latency of 1,000 requests, eight at a time\n"
    "  zel-http --json URL | jq .timings_ms\n"
    "        for scripts\n"
    "  zel-http --ca-file root.pem --cert device.pem --key device.key URL\n"
    "        mutual TLS\n"
    "  zel-http -v 6 URL\n"
    "        what the library logs\n"
    "\n"
    "Exit status: 0 all answered with a status below 400, 1 an error or a status from 400 on,\n"
    "2 a bad command line, 130 interrupted, 143 after SIGTERM, 129 after SIGHUP.\n"
    "\n"
    "A file appears when its body is whole; until then FILE.part is beside it. It stays after an\n"
    "interruption where the server tells versions apart, and -C - continues it. A file that is\n"
    "replaced keeps its permissions and, where you may set it, its owner, but no hard links.\n"
    "Binary bodies go to a terminal with -o - only.\n"
    "\n"
    "http_proxy, https_proxy and no_proxy of the environment apply, SSL_CERT_FILE, and NO_COLOR\n"
    "to -v.";

/// "one|other".
template <typename Value>
std::string choices(const std::map<std::string, Value>& names) {
    std::string text;
    for (const auto& [name, value] : names) text += (text.empty() ? "" : "|") + name;
    return text;
}

void declareRequest(CLI::App& app, Options& options, RequestConfig& config, CommandLine& line) {
    app.option_defaults()->group("Request");
    app.add_option("-X,--request", options.method, "The method")
        ->check(CLI::IsMember(&methodNames()))
        ->option_text(choices(methodNames()));
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
        ->check(CLI::Range(1, std::numeric_limits<std::int32_t>::max()))
        ->option_text("BYTES");
    app.add_flag("--reset-state", config.reset_state,
                 "Start clean: no cookies, connection or name look-up of before");
    app.add_option("--proxy", line.proxy, "Tunnel through this proxy")->option_text("URL");
    app.add_option("--proxy-user", options.proxy_credentials, "Credentials for the proxy")
        ->option_text("USER:PASSWORD");
}

void declareTls(CLI::App& app, Options& options, RequestConfig& config) {
    app.option_defaults()->group("TLS");
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

void declareOutput(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("Output");
    app.add_flag("-i,--include", line.show_headers, "Print the response's headers too");
    auto* file =
        app.add_option("-o,--output", options.output,
                       "Stream the body to a file, or with - to standard output; with a progress "
                       "bar on a terminal")
            ->option_text("FILE");
    app.add_option("-O,--output-dir", options.output_directory,
                   "Stream each body to a file here, named as the end of its URL's path")
        ->check(CLI::ExistingDirectory)
        ->excludes(file)
        ->option_text("PATH");
    app.add_option("-C,--continue-at", options.continue_at,
                   "With - goes on with what an interrupted download to the same file has left")
        ->check(CLI::IsMember({"-"}))
        ->option_text("-");
    app.add_flag("--timings", line.show_timings, "Tell how long each phase took");
    app.add_flag("--stats", line.show_statistics,
                 "Tell in the end what the engine has done, on standard error, or as JSON");
    app.add_flag("--json", line.json, "Print each outcome as a line of JSON, body included");
    app.add_flag("-q,--quiet", line.quiet, "Report failures only, and no progress");
}

void declareMany(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("Many requests");
    app.add_option(
           "--repeat", line.repeat,
           "Perform each request that often; bodies are dropped, latencies of answers summed up")
        ->check(CLI::Range(std::size_t{1}, most_repeats))
        ->option_text("N");
    app.add_option("--parallel", options.parallel,
                   "At most so many at a time; otherwise one for each URL")
        ->check(CLI::Range(std::size_t{1}, most_parallel))
        ->option_text("N");
}

void declareLog(CLI::App& app, CommandLine& line) {
    app.option_defaults()->group("Log");
    app.add_option("-v,--verbose", line.log_level,
                   "Log what the library does to standard error, from 1 (summaries) to 9")
        ->check(CLI::Range(0, 9))
        ->option_text("LEVEL");
}

}  // namespace

const std::map<std::string, Method>& methodNames() {
    static const std::map<std::string, Method> names = {
        {"GET", Method::GET},     {"POST", Method::POST},     {"PUT", Method::PUT},
        {"PATCH", Method::PATCH}, {"DELETE", Method::DELETE},
    };
    return names;
}

void declare(CLI::App& app, Options& options, RequestConfig& config, CommandLine& line) {
    app.description(description);
    app.footer(footer);
    app.add_option("URL", options.urls, "What to request; several run at once")->option_text("...");
    declareRequest(app, options, config, line);
    declareTls(app, options, config);
    declareOutput(app, options, line);
    declareMany(app, options, line);
    declareLog(app, line);
    app.option_defaults()->group("Help");
    app.set_help_flag("-h,--help", "Print this help");
    app.add_flag("-V,--version", options.version, "Print the versions of tool and libraries");
    app.add_flag("--manual", options.manual, "Print the manual page, for man(1)");
    app.add_option("--completion", options.completion, "Print the completion for a shell")
        ->check(CLI::IsMember({"bash"}))
        ->option_text("bash");
}

}  // namespace tool
