#include "command_line.h"

#include <curl/curl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "body.h"
#include "completion.h"
#include "config_file.h"
#include "curl_names.h"
#include "form.h"
#include "manual.h"
#include "options.h"
#include "text.h"

namespace tool {
namespace {

using std::chrono::milliseconds;
using zel::http::Method;
using zel::http::RequestConfig;

constexpr std::size_t usual_repeats = 100;

constexpr int bad_command_line = 2;

[[noreturn]] void refuse(const std::string& text, int status = bad_command_line) {
    throw CLI::ValidationError(text, status);
}

/// Runs `read`, and refuses what it throws in the name of an option.
template <typename Read>
auto reading(const char* option, Read read) {
    try {
        return read();
    } catch (const CLI::Error&) {
        throw;
    } catch (const UnreadableFile& error) {
        refuse(std::string(option) + ": " + error.what(), CURLE_READ_ERROR);
    } catch (const std::exception& error) {
        refuse(std::string(option) + ": " + error.what());
    }
}

milliseconds millisecondsOf(double seconds) {
    if (std::isnan(seconds)) refuse("'nan' is no time");
    return milliseconds(static_cast<std::int64_t>(std::ceil(seconds * 1000)));
}

/// "100", "1.5k", "20M", "1G".
std::uint64_t bytesOf(const char* option, const std::string& text) {
    if (text.empty()) return 0;
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const std::string unit = end;
    const std::string units = "kmgt";
    double factor = 1;
    if (!unit.empty()) {
        const auto power = units.find(static_cast<char>(std::tolower(unit[0])));
        if (unit.size() > 1 || power == std::string::npos)
            refuse(option + (": '" + text + "' is no size"));
        factor = std::pow(1024, power + 1);
    }
    constexpr double most = 1e18;
    if (end == text.c_str() || !(number >= 0) || number * factor > most) {
        refuse(option + (": '" + text + "' is no size"));
    }
    return static_cast<std::uint64_t>(number * factor);
}

bool names(const std::string& line, const std::string& field) {
    const auto colon = line.find_first_of(":;");
    return colon == field.size() && CLI::detail::to_lower(line.substr(0, colon)) == field;
}

/// Each of these becomes a part of a line of the head, and must not begin another one.
void checkLines(const Options& options, const CommandLine& line) {
    const auto check = [](const char* option, const std::string& text) {
        if (text.find_first_of("\r\n") == std::string::npos) return;
        refuse(std::string(option) + ": a header is one line");
    };
    check("-A", options.user_agent);
    check("-e", options.referer);
    check("-u", options.credentials);
    check("-U", options.proxy_credentials);
    check("-X", line.easy.method);
    for (const std::string& cookie : options.cookies) check("-b", cookie);
    for (const std::string& header : options.headers) check("-H", header);
}

/// The lines that libcurl gets. It adds what is not named here, such as Accept.
void setHeaderLines(const Options& options, EasySettings& easy) {
    for (const std::string& given : options.headers) {
        std::istringstream lines(given.substr(0, 1) == "@"
                                     ? reading("-H", [&] { return contentOf(given.substr(1)); })
                                     : given);
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.empty() && given[0] == '@') continue;
            if (line.find('\r') != std::string::npos) refuse("-H: a header is one line");
            const auto colon = line.find_first_of(":;");
            if (colon == 0 || colon == std::string::npos) {
                refuse("-H: '" + line + "' is not 'Name: value'");
            }
            easy.header_lines.push_back(line);
        }
    }
    const auto has = [&](const std::string& field) {
        return std::any_of(easy.header_lines.begin(), easy.header_lines.end(),
                           [&](const auto& line) { return names(line, field); });
    };
    // Servers that do not know it cost a second.
    if (!has("expect")) easy.header_lines.emplace_back("Expect:");
}

/// A download has a range of its own, and would miss what is outside of another.
bool asksForRange(const EasySettings& easy) {
    return std::any_of(easy.header_lines.begin(), easy.header_lines.end(),
                       [](const auto& line) { return names(line, "range"); });
}

/// "URL", "URL;auto" or ";auto".
void setReferer(const std::string& text, EasySettings& easy) {
    constexpr std::string_view automatic = ";auto";
    const auto mark = text.find(automatic);
    easy.referer = text.substr(0, mark);
    easy.refers_to_redirects = mark != std::string::npos;
}

void setEasySettings(const Options& options, EasySettings& easy) {
    setHeaderLines(options, easy);
    easy.user_agent = options.user_agent;
    if (easy.user_agent.empty()) easy.header_lines.emplace_back("User-Agent:");
    for (const std::string& cookie : options.cookies) {
        if (cookie.rfind('@', 0) == 0) {
            easy.cookie_files.push_back(cookie.substr(1));
        } else if (cookie.find('=') == std::string::npos) {
            easy.cookie_files.push_back(cookie);
        } else {
            easy.cookies += (easy.cookies.empty() ? "" : ";") + cookie;
        }
    }
    setReferer(options.referer, easy);
    for (const std::string& part : options.form) {
        easy.form.push_back(reading("-F", [&] { return parseFormPart(part); }));
    }
    if (options.digest) easy.authentication = static_cast<long>(CURLAUTH_DIGEST);
    if (options.any_authentication) easy.authentication = static_cast<long>(CURLAUTH_ANY);
    if (options.http_1_1) easy.http_version = CURL_HTTP_VERSION_1_1;
    if (options.ipv4) easy.ip_version = CURL_IPRESOLVE_V4;
    if (options.ipv6) easy.ip_version = CURL_IPRESOLVE_V6;
    easy.connect_timeout = millisecondsOf(options.connect_timeout);
    easy.bytes_per_second = bytesOf("--limit-rate", options.rate);
    easy.tells_conversation = options.verbose > 0;
}

/// Method and body, of which there is one kind.
void setBody(const Options& options, CommandLine& line, RequestConfig& config) {
    EasySettings& easy = line.easy;
    const bool posts = !options.data.empty() && !options.data_to_url;
    const int bodies = int(posts) + int(!easy.form.empty()) + int(easy.upload_file.has_value());
    if (bodies > 1) refuse("-d, -F and -T exclude each other");
    if (bodies > 0 && easy.head) refuse("-I: goes without a body");
    if (posts || !easy.form.empty()) config.method = Method::POST;
    if (posts) config.body = reading("-d", [&] { return joined(options.data); });
    if (!easy.upload_file) return;
    config.method = Method::PUT;
    if (*easy.upload_file == "-" || *easy.upload_file == ".") {
        config.body = reading("-T", [] { return contentOf("-"); });
        easy.upload_file.reset();
    } else {
        reading("-T", [&] { checkReadable(*easy.upload_file); });
    }
}

void checkTlsFiles(const RequestConfig& config) {
    const auto check = [](const char* option, const std::optional<std::string>& path, int status) {
        if (!path || access(path->c_str(), R_OK) == 0) return;
        refuse(std::string(option) + ": cannot open " + *path, status);
    };
    check("--cacert", config.ca_file, CURLE_SSL_CACERT_BADFILE);
    check("--capath", config.ca_dir, CURLE_SSL_CACERT_BADFILE);
    check("--cert", config.own_cert, CURLE_SSL_CERTPROBLEM);
    check("--key", config.own_pkey, CURLE_SSL_CERTPROBLEM);
}

void complete(RequestConfig& config, const Options& options, CommandLine& line) {
    checkLines(options, line);
    config.headers.clear();
    config.reset_state = line.resets_state;
    setEasySettings(options, line.easy);
    setBody(options, line, config);
    if (options.credentials.rfind(':', 0) == 0) {
        line.easy.password = options.credentials.substr(1);
    } else if (!options.credentials.empty()) {
        auto own = reading("-u", [&] { return credentialsOf(options.credentials); });
        config.user = std::move(own.user);
        config.password = std::move(own.password);
    }
    if (config.own_pkey && !config.own_cert) refuse("--key: goes with --cert");
    checkTlsFiles(config);
    if (config.own_cert && !config.own_pkey) config.own_pkey = config.own_cert;
    config.tls_verify = !options.insecure;
    config.timeout = millisecondsOf(options.timeout);
    line.most_bytes = bytesOf("--max-filesize", options.most_bytes);
    line.write_out = reading("-w", [&] { return joined({{DataPiece::Text, line.write_out}}); });
    line.retry.delay = millisecondsOf(options.retry_delay);
}

void chooseProxy(const CLI::App& app, const Options& options, CommandLine& line) {
    line.easy.uses_proxy = !line.proxy.empty();
    line.easy.uses_no_proxy = line.proxy.empty() && app.count("--proxy") != 0;
    if (!options.proxy_credentials.empty()) {
        line.proxy_credentials =
            reading("-U", [&] { return credentialsOf(options.proxy_credentials); });
    }
    if (!line.easy.uses_proxy) line.easy.environment_proxy = line.proxy_credentials;
    if (auto own = takeCredentials(line.proxy)) line.proxy_credentials = std::move(*own);
}

/// URLs with and without --url, and what -o and -O say, count in the order in which they stand.
void putInOrder(const CLI::App& app, Options& options) {
    const auto plain = std::exchange(options.urls, {});
    std::size_t plain_taken = 0;
    std::size_t marked_taken = 0;
    for (const CLI::Option* option : app.parse_order()) {
        if (option->get_positional() && plain_taken < plain.size()) {
            options.urls.push_back(plain[plain_taken++]);
        } else if (option->check_name("--url")) {
            options.urls.push_back(options.more_urls[marked_taken++]);
        } else if (option->check_name("--remote-name")) {
            options.files.emplace_back();
        } else if (option->check_name("--output")) {
            const auto before = std::count_if(options.files.begin(), options.files.end(),
                                              [](const auto& file) { return file.has_value(); });
            options.files.emplace_back(options.output[static_cast<std::size_t>(before)]);
        }
    }
}

/// The end of a URL's path, which names a file.
std::string nameIn(const std::string& url) {
    const auto host = url.find("://");
    const auto begin = url.find('/', host == std::string::npos ? 0 : host + 3);
    const std::string path =
        begin == std::string::npos ? "" : url.substr(begin, url.find_first_of("?#", begin) - begin);
    std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") {
        refuse("-O: " + withoutCredentials(url) + " names no file", CURLE_WRITE_ERROR);
    }
    return name;
}

std::string withDirectory(const std::string& directory, const std::string& file) {
    return directory == "." || file[0] == '/' ? file : directory + '/' + file;
}

void chooseFiles(const Options& options, CommandLine& line) {
    std::set<std::string> names;
    for (std::size_t i = 0; i < options.urls.size(); ++i) {
        std::string file = "-";
        if (i < options.files.size() && options.files[i]) {
            file = *options.files[i];
            if (file.empty()) refuse("-o: the file has no name");
            if (file == "/dev/stdout") file = "-";
            if (file != "-") file = withDirectory(options.output_directory, file);
        } else if (options.remote_name) {
            file = withDirectory(options.output_directory, nameIn(options.urls[i]));
        }
        const bool first = names.insert(file).second;
        if (!first && file != "-" && file.substr(0, 5) != "/dev/") {
            refuse("-O: two URLs would be saved as " + file);
        }
        line.files.push_back(file);
    }
    const bool saves =
        std::any_of(names.begin(), names.end(), [](auto& file) { return file != "-"; });
    line.continues = !options.continue_at.empty();
    if (line.continues && !saves) refuse("-C: goes with -o and -O");
    if (line.repeat > 1 && saves) refuse("--repeat: drops the bodies, so -o and -O have no use");
    // The declared length of a compressed body is not that of what is saved.
    if (line.show_headers || line.easy.head || line.easy.compressed || asksForRange(line.easy) ||
        line.repeat > 1) {
        line.holds_bodies = true;
    } else if (!saves) {
        // A terminal is to show no binary bodies, and several bodies come in any order.
        const bool streams = options.urls.size() == 1 && !line.json;
        const bool asked = !options.output.empty();
        line.holds_bodies = !streams || (!asked && isatty(STDOUT_FILENO) == 1);
    }
}

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
        if (json && url.find_first_of("{[\"@") == 0) {
            refuse(
                "--json: takes nothing here; -d and -H 'Content-Type: application/json' send JSON");
        }
    }
}

/// A URL whose path ends with / gets the name of the file that is sent.
void addFileName(std::string& url, const std::string& file) {
    const auto path = url.find('/', url.find("://") + 3);
    auto end = std::min(url.find_first_of("?#"), url.size());
    if (path > end) url.insert(end++, 1, '/');
    if (url[end - 1] == '/') url.insert(end, escaped(file.substr(file.rfind('/') + 1)));
}

void addQuery(std::string& url, const std::string& query) {
    const auto end = std::min(url.find('#'), url.size());
    const auto begin = url.find('?');
    const std::string before = begin >= end ? "?" : begin + 1 == end ? "" : "&";
    url.insert(end, before + query);
}

void addRequests(const Options& options, const RequestConfig& config, CommandLine& line) {
    const std::string query =
        options.data_to_url ? reading("-d", [&] { return joined(options.data); }) : "";
    for (std::string url : options.urls) {
        if (url.find("://") == std::string::npos) url.insert(0, "http://");
        line.requests.push_back(config);
        RequestConfig& request = line.requests.back();
        // -u has priority.
        if (auto own = takeCredentials(url); own && request.user.empty()) {
            request.user = std::move(own->user);
            request.password = std::move(own->password);
        }
        if (line.easy.upload_file) addFileName(url, *line.easy.upload_file);
        if (!query.empty()) addQuery(url, query);
        request.url = url;
    }
    line.parallel = options.parallel;
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
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
        for (const std::string& argument : app.remaining()) {
            if (argument.size() < 2 || argument[0] != '-') continue;
            const std::string name =
                argument.substr(0, argument.find('='));  // a value may be secret
            return {"zel-http: " + refusalOf(name) + " (see --help)\n", bad_command_line};
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
        if (options.latency && command_line.repeat == 1) command_line.repeat = usual_repeats;
        complete(config, options, command_line);
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
