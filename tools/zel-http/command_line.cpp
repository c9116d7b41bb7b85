#include "command_line.h"

#include <curl/curl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <utility>

#include "arguments.h"
#include "completion.h"
#include "curl_names.h"
#include "manual.h"
#include "options.h"
#include "refusal.h"
#include "settings.h"
#include "targets.h"
#include "text.h"

namespace tool {
namespace {

using zel::http::RequestConfig;

constexpr std::size_t usual_repeats = 100;

void chooseReports(const Options& options, CommandLine& line) {
    const bool terminal = isatty(STDERR_FILENO) == 1;
    line.show_errors = !options.silent || options.show_error;
    line.show_outcomes = !options.silent && terminal;
    line.show_progress = !options.silent && !line.holds_bodies;
    if (options.verbose > 1 && line.log_level == 0) line.log_level = 6;
}

std::string refusalOf(const std::string& option) {
    switch (kindOf(option)) {
        case OptionKind::OfCurl:
            return option + ": an option of curl's that is not here";
        case OptionKind::Shortened:
            return option + ": options have their whole names here";
        default:
            return option + ": no such option";
    }
}

/// An option that is a digit looks like a number, and so like a URL.
void checkUrls(const Options& options, bool json, int argc, const char* const* argv) {
    if (options.urls.empty() && argc > 1) refuse("there is no URL");
    const bool marked =
        std::any_of(argv, argv + argc, [](const char* word) { return word == std::string("--"); });
    for (const std::string& url : options.urls) {
        if (!marked && url.rfind('-', 0) == 0) refuse(refusalOf(url));
        if (json && url.find_first_of("{\"@") == 0) {
            refuse(
                "--json: takes nothing here; -d and -H 'Content-Type: application/json' send JSON");
        }
    }
}

std::string versions() {
    std::ostringstream text;
    text << "zel-http " ZEL_HTTP_VERSION "\n" << curl_version() << '\n';
    return text.str();
}

std::string oneLine(const CLI::App* /*app*/, const CLI::Error& error) {
    return "zel-http: " + withoutCredentials(error.what()) + " (see --help)\n";
}

EarlyExit exitFor(const CLI::App& app, const CLI::ParseError& error) {
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
        for (const std::string& argument : app.remaining()) {
            if (argument.size() < 2 || argument[0] != '-') continue;
            // What follows the name may be a secret value.
            const auto end = argument[1] == '-' ? argument.find('=') : 2;
            return {"zel-http: " + refusalOf(argument.substr(0, end)) + " (see --help)\n",
                    bad_command_line};
        }
    }
    std::ostringstream text;
    const int status = app.exit(error, text, text);
    constexpr int first_of_parser = 100;
    return {text.str(), status < first_of_parser ? status : bad_command_line};
}

}  // namespace

std::optional<EarlyExit> parse(int argc, const char* const* argv, CommandLine& command_line) {
    CLI::App app("", "zel-http");
    app.failure_message(oneLine);
    Options options;
    RequestConfig config;
    declare(app, options, config, command_line);
    try {
        const auto takes_value = [&](const std::string& name) -> std::optional<bool> {
            const auto* option = app.get_option_no_throw(name);
            if (option == nullptr) return std::nullopt;
            return option->get_items_expected_min() != 0;
        };
        auto arguments = reading("-K", [&] { return argumentsOf(argc, argv, takes_value); });
        std::reverse(arguments.begin(), arguments.end());  // as it takes them
        app.parse(std::move(arguments));
        putInOrder(app, options);
        if (options.version) return EarlyExit{versions(), 0};
        if (options.manual) return EarlyExit{manualPage(app), 0};
        if (!options.completion.empty()) return EarlyExit{completion(app, options.completion), 0};
        checkUrls(options, command_line.json, argc, argv);
        completeUrls(options);
        if (options.latency && command_line.repeat == 1) command_line.repeat = usual_repeats;
        completeSettings(config, options, command_line);
        chooseProxy(app, options, command_line);
        chooseFiles(options, command_line);
        chooseReports(options, command_line);
        addRequests(options, config, command_line);
    } catch (const CLI::ParseError& error) {
        return exitFor(app, error);
    }
    return std::nullopt;
}

}  // namespace tool
