#include "write_out.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <functional>
#include <iostream>
#include <map>
#include <memory>

#include "exit_status.h"
#include "json.h"
#include "text.h"

namespace tool {
namespace {

std::string seconds(std::chrono::microseconds time) {
    return fmt::format("{:.6f}", std::chrono::duration<double>(time).count());
}

std::string fieldOf(const Outcome& outcome, const std::string& name) {
    const auto field = std::find_if(
        outcome.fields.begin(), outcome.fields.end(),
        [&](const auto& candidate) { return boost::algorithm::iequals(candidate.first, name); });
    return field == outcome.fields.end() ? "" : field->second;
}

std::string speed(std::uint64_t bytes, const Outcome& outcome) {
    const double total = std::chrono::duration<double>(outcome.facts.total).count();
    return fmt::format("{:.0f}", total > 0 ? static_cast<double>(bytes) / total : 0);
}

const std::string& urlOf(const Outcome& outcome) {
    return outcome.facts.url.empty() ? outcome.request->url : outcome.facts.url;
}

/// Where a redirect that was not followed leads.
std::string redirectOf(const Outcome& outcome) {
    constexpr unsigned redirects = 3;
    const std::string location = fieldOf(outcome, "Location");
    if (outcome.status / 100 != redirects || location.empty()) return {};
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
    char* text = nullptr;
    if (curl_url_set(url.get(), CURLUPART_URL, urlOf(outcome).c_str(), 0) != CURLUE_OK ||
        curl_url_set(url.get(), CURLUPART_URL, location.c_str(), 0) != CURLUE_OK ||
        curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        return {};
    }
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
    return withoutCredentials(text);
}

using Variable = std::function<std::string(const Outcome&)>;

const std::map<std::string, Variable>& variables() {
    using std::to_string;
    static const Variable status = [](const Outcome& o) { return fmt::format("{:03}", o.status); };
    static const std::map<std::string, Variable> table = {
        {"content_type", [](const Outcome& o) { return fieldOf(o, "Content-Type"); }},
        {"errormsg",
         [](const Outcome& o) {
             return o.facts.curl_text.empty() ? o.message : o.facts.curl_text;
         }},
        {"exitcode", [](const Outcome& o) { return to_string(exitStatusOf(o)); }},
        {"filename_effective", [](const Outcome& o) { return o.file == "-" ? "" : o.file; }},
        {"header_json", [](const Outcome& o) { return jsonFields(o.fields); }},
        {"http_code", status},
        {"http_version",
         [](const Outcome& o) {
             const std::string version = timingsOf(o.facts).http_version;
             return version.empty() ? "0" : version == "1.0" ? "1" : version;
         }},
        {"local_ip", [](const Outcome& o) { return o.facts.local_address; }},
        {"local_port", [](const Outcome& o) { return to_string(o.facts.local_port); }},
        {"num_connects",
         [](const Outcome& o) { return timingsOf(o.facts).new_connection ? "1" : "0"; }},
        {"num_headers", [](const Outcome& o) { return to_string(o.fields.size()); }},
        {"num_redirects", [](const Outcome& o) { return to_string(o.facts.redirects); }},
        {"redirect_url", redirectOf},
        {"remote_ip", [](const Outcome& o) { return o.facts.remote_address; }},
        {"remote_port", [](const Outcome& o) { return to_string(o.facts.remote_port); }},
        {"response_code", status},
        {"scheme",
         [](const Outcome& o) {
             const std::string url = urlOf(o);
             return boost::algorithm::to_upper_copy(url.substr(0, url.find(':')));
         }},
        {"size_download", [](const Outcome& o) { return to_string(o.body_size); }},
        {"size_upload", [](const Outcome& o) { return to_string(o.facts.bytes_sent); }},
        {"speed_download", [](const Outcome& o) { return speed(o.body_size, o); }},
        {"speed_upload", [](const Outcome& o) { return speed(o.facts.bytes_sent, o); }},
        {"time_appconnect", [](const Outcome& o) { return seconds(o.facts.tls_done); }},
        {"time_connect", [](const Outcome& o) { return seconds(o.facts.connected); }},
        {"time_namelookup", [](const Outcome& o) { return seconds(o.facts.looked_up); }},
        {"time_pretransfer",
         [](const Outcome& o) {
             return seconds(std::max({o.facts.looked_up, o.facts.connected, o.facts.tls_done}));
         }},
        {"time_starttransfer", [](const Outcome& o) { return seconds(o.facts.first_byte); }},
        {"time_total", [](const Outcome& o) { return seconds(o.facts.total); }},
        {"url", [](const Outcome& o) { return withoutCredentials(o.request->url); }},
        {"url_effective", [](const Outcome& o) { return withoutCredentials(urlOf(o)); }},
    };
    return table;
}

std::string valueOf(const std::string& name, const Outcome& outcome) {
    const auto variable = variables().find(name);
    if (variable != variables().end()) return variable->second(outcome);
    std::cerr << "zel-http: -w: no variable '" << name << "'\n";
    return {};
}

std::string unescaped(char letter) {
    switch (letter) {
        case 'n':
            return "\n";
        case 'r':
            return "\r";
        case 't':
            return "\t";
        default:
            return {'\\', letter};
    }
}

}  // namespace

void writeOut(const std::string& format, const Outcome& outcome) {
    constexpr std::string_view field = "%header{";
    std::ostream* stream = &std::cout;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char next = i + 1 < format.size() ? format[i + 1] : '\0';
        const auto end = format.find('}', i);
        const bool closed = end != std::string::npos;
        if (format[i] == '%' && next == '%') {
            *stream << format[++i];
        } else if (closed && format.compare(i, field.size(), field) == 0) {
            const auto begin = i + field.size();
            *stream << fieldOf(outcome, format.substr(begin, end - begin));
            i = end;
        } else if (closed && format[i] == '%' && next == '{') {
            const auto name = boost::algorithm::to_lower_copy(format.substr(i + 2, end - i - 2));
            i = end;
            if (name == "stdout") {
                stream = &std::cout;
            } else if (name == "stderr") {
                stream = &std::cerr;
            } else if (name != "onerror") {
                *stream << valueOf(name, outcome);
            } else if (exitStatusOf(outcome) == 0) {
                break;
            }
        } else if (format[i] == '\\' && next != '\0') {
            *stream << unescaped(next);
            ++i;
        } else {
            *stream << format[i];
        }
    }
    std::cout << std::flush;
}

}  // namespace tool
