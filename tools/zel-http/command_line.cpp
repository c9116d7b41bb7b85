#include "command_line.h"

#include <curl/curl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>

#include "manual.h"
#include "options.h"

namespace tool {
namespace {

using zel::http::AuthMethod;
using zel::http::Method;
using zel::http::RequestConfig;

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

/// Sets the fields of `config` whose values are parsed, read from a file, or depend on several
/// options.
void complete(RequestConfig& config, const Options& options) {
    config.method = options.data ? Method::POST : Method::GET;
    if (!options.method.empty()) config.method = methodNames().at(options.method);
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
    config.timeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(options.timeout * 1000)));
}

/// The file that a URL's body goes to: the end of its path, below `directory`.
std::string fileFor(const std::string& url, const std::string& directory) {
    const auto host = url.find("://");
    const auto begin = url.find('/', host == std::string::npos ? 0 : host + 3);
    const std::string path =
        begin == std::string::npos ? "" : url.substr(begin, url.find_first_of("?#", begin) - begin);
    const std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") refuse("-O: " + url + " names no file");
    return directory + '/' + name;
}

/// Whether the one body can go to standard output as it comes. A terminal is to show no binary
/// bodies, and several bodies come in any order.
bool streams(const Options& options, const CommandLine& command_line) {
    return options.urls.size() == 1 && command_line.repeat == 1 && !command_line.show_headers &&
           !command_line.json && isatty(STDOUT_FILENO) == 0;
}

void chooseFiles(const Options& options, CommandLine& command_line) {
    command_line.continues = !options.continue_at.empty();
    if (!options.output && options.output_directory.empty()) {
        if (command_line.continues) refuse("-C: goes with -o and -O");
        if (streams(options, command_line)) command_line.files = {"-"};
        return;
    }
    if (command_line.repeat > 1) refuse("--repeat: drops the bodies, so -o and -O have no use");
    if (options.output) {
        if (options.output->empty()) refuse("-o: the file has no name");
        if (options.urls.size() != 1) refuse("-o: takes the body of one URL; see -O");
        const bool standard = options.output == "-" || options.output == "/dev/stdout";
        if (standard && (command_line.show_headers || command_line.json)) {
            refuse("-o: the body alone goes to standard output, without -i and --json");
        }
        command_line.files = {standard ? "-" : *options.output};
        return;
    }
    std::set<std::string> names;
    for (const auto& url : options.urls) {
        command_line.files.push_back(fileFor(url, options.output_directory));
        const std::string& file = command_line.files.back();
        if (!names.insert(file).second) refuse("-O: two URLs would be saved as " + file);
    }
}

std::string versions() {
    std::ostringstream text;
    text << "zel-http " ZEL_HTTP_VERSION "\n" << curl_version() << '\n';
    return text.str();
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
    CLI::App app("", "zel-http");
    app.failure_message(oneLine);
    Options options;
    RequestConfig config;
    declare(app, options, config, command_line);
    try {
        app.parse(argc, argv);
        if (options.version) return EarlyExit{versions(), 0};
        if (options.manual) return EarlyExit{manualPage(app), 0};
        if (!options.completion.empty()) return EarlyExit{bashCompletion(app), 0};
        complete(config, options);
        if (!options.proxy_credentials.empty()) {
            splitCredentials(options.proxy_credentials, "--proxy-user", command_line.proxy_user,
                             command_line.proxy_password);
        }
        chooseFiles(options, command_line);
        command_line.show_progress = !command_line.files.empty() && !command_line.quiet;
        for (const auto& url : options.urls) {
            command_line.requests.push_back(config);
            command_line.requests.back().url = url;
        }
        command_line.parallel = options.parallel != 0 ? options.parallel : options.urls.size();
    } catch (const CLI::ParseError& error) {
        return exitFor(app, error);
    }
    return std::nullopt;
}

}  // namespace tool
