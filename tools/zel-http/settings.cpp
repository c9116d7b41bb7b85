#include "settings.h"

#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "form.h"
#include "refusal.h"
#include "text.h"

namespace tool {
namespace {

using std::chrono::milliseconds;
using zel::http::Method;
using zel::http::RequestConfig;

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

/// Each of these becomes a part of a line of the head, and must not begin another one.
void checkLines(const Options& options, const CommandLine& line) {
    const auto check = [](const char* option, const std::string& text) {
        reading(option, [&] { checkOneLine(text); });
    };
    check("-A", options.user_agent);
    check("-e", options.referer);
    check("-u", options.credentials);
    check("-U", options.proxy_credentials);
    check("-r", line.easy.range);
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
            reading("-H", [&] { checkOneLine(line); });
            const auto colon = line.find_first_of(":;");
            if (colon == 0 || colon == std::string::npos) {
                refuse("-H: a header is 'Name: value'");  // what stands there may be secret
            }
            easy.header_lines.push_back(line);
        }
    }
    // Servers that do not know it cost a second.
    if (!easy.names("Expect")) easy.header_lines.emplace_back("Expect:");
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
    if (options.digest) {
        const auto both = CURLAUTH_DIGEST | (options.basic ? CURLAUTH_BASIC : CURLAUTH_NONE);
        easy.authentication = static_cast<long>(both);
    }
    if (options.any_authentication) easy.authentication = static_cast<long>(CURLAUTH_ANY);
    if (options.http_1_1) easy.http_version = CURL_HTTP_VERSION_1_1;
    if (options.ipv4) easy.ip_version = CURL_IPRESOLVE_V4;
    if (options.ipv6) easy.ip_version = CURL_IPRESOLVE_V6;
    easy.connect_timeout = millisecondsOf(options.connect_timeout);
    easy.bytes_per_second = bytesOf("--limit-rate", options.rate);
    easy.tells_conversation = options.verbose > 0;
}

/// A lone number is where the range begins.
void completeRange(std::string& range) {
    const bool number = range.find_first_not_of("0123456789") == std::string::npos;
    if (number && !range.empty()) range += '-';
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
    std::error_code unknown;
    const bool pipe = std::filesystem::is_fifo(*easy.upload_file, unknown);
    if (*easy.upload_file == "-" || *easy.upload_file == "." || pipe) {
        const std::string source = pipe ? *easy.upload_file : "-";
        config.body = reading("-T", [&] { return contentOf(source); });
        easy.upload_file.reset();
    } else {
        reading("-T", [&] { checkReadable(*easy.upload_file); });
    }
}

void checkTlsFiles(const RequestConfig& config) {
    const auto check = [](const char* option, const std::optional<std::string>& path, int status) {
        if (!path || access(path->c_str(), R_OK) == 0) return;
        // With curl a password may stand behind it.
        const auto colon = option == std::string("--cert") ? path->find(':') : std::string::npos;
        const std::string shown = path->substr(0, colon);
        refuse(option + (": cannot open " + shown + (shown == *path ? "" : ":***")), status);
    };
    check("--cacert", config.ca_file, CURLE_SSL_CACERT_BADFILE);
    check("--capath", config.ca_dir, CURLE_SSL_CACERT_BADFILE);
    check("--cert", config.own_cert, CURLE_SSL_CERTPROBLEM);
    check("--key", config.own_pkey, CURLE_SSL_CERTPROBLEM);
}

}  // namespace

void completeSettings(RequestConfig& config, const Options& options, CommandLine& line) {
    checkLines(options, line);
    config.headers.clear();
    config.reset_state = line.resets_state;
    setEasySettings(options, line.easy);
    completeRange(line.easy.range);
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
    if (app.count("--noproxy") != 0) line.easy.direct_hosts = options.direct_hosts;
    if (!options.proxy_credentials.empty()) {
        line.proxy_credentials =
            reading("-U", [&] { return credentialsOf(options.proxy_credentials); });
    }
    if (!line.easy.uses_proxy) line.easy.environment_proxy = line.proxy_credentials;
    if (auto own = takeCredentials(line.proxy)) line.proxy_credentials = std::move(*own);
}

}  // namespace tool
