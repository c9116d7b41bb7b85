#include "write_out.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <functional>
#include <map>

#include "exit_status.h"
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

using Variable = std::function<std::string(const Outcome&)>;

const std::map<std::string, Variable>& variables() {
    using std::to_string;
    static const Variable status = [](const Outcome& o) { return fmt::format("{:03}", o.status); };
    static const std::map<std::string, Variable> table = {
        {"content_type", [](const Outcome& o) { return fieldOf(o, "Content-Type"); }},
        {"errormsg", [](const Outcome& o) { return o.message; }},
        {"exitcode", [](const Outcome& o) { return to_string(exitStatusOf(o)); }},
        {"filename_effective", [](const Outcome& o) { return o.file == "-" ? "" : o.file; }},
        {"http_code", status},
        {"http_version",
         [](const Outcome& o) {
             const std::string version = timingsOf(o.facts).http_version;
             return version.empty() ? "0" : version;
         }},
        {"local_ip", [](const Outcome& o) { return o.facts.local_address; }},
        {"local_port", [](const Outcome& o) { return to_string(o.facts.local_port); }},
        {"num_connects",
         [](const Outcome& o) { return timingsOf(o.facts).new_connection ? "1" : "0"; }},
        {"num_redirects", [](const Outcome& o) { return to_string(o.facts.redirects); }},
        {"remote_ip", [](const Outcome& o) { return o.facts.remote_address; }},
        {"remote_port", [](const Outcome& o) { return to_string(o.facts.remote_port); }},
        {"response_code", status},
        {"size_download", [](const Outcome& o) { return to_string(o.body_size); }},
        {"size_upload", [](const Outcome& o) { return to_string(o.facts.bytes_sent); }},
        {"speed_download", [](const Outcome& o) { return speed(o.body_size, o); }},
        {"speed_upload", [](const Outcome& o) { return speed(o.facts.bytes_sent, o); }},
        {"time_appconnect", [](const Outcome& o) { return seconds(o.facts.tls_done); }},
        {"time_connect", [](const Outcome& o) { return seconds(o.facts.connected); }},
        {"time_namelookup", [](const Outcome& o) { return seconds(o.facts.looked_up); }},
        {"time_starttransfer", [](const Outcome& o) { return seconds(o.facts.first_byte); }},
        {"time_total", [](const Outcome& o) { return seconds(o.facts.total); }},
        {"url", [](const Outcome& o) { return withoutCredentials(o.request->url); }},
        {"url_effective",
         [](const Outcome& o) {
             return withoutCredentials(o.facts.url.empty() ? o.request->url : o.facts.url);
         }},
    };
    return table;
}

std::string valueOf(const std::string& name, const Outcome& outcome) {
    const auto variable = variables().find(name);
    return variable == variables().end() ? "" : variable->second(outcome);
}

char unescaped(char letter) {
    switch (letter) {
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        default:
            return '\0';
    }
}

}  // namespace

std::string writeOut(const std::string& format, const Outcome& outcome) {
    std::string text;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char next = i + 1 < format.size() ? format[i + 1] : '\0';
        if (format[i] == '%' && next == '%') {
            text += format[++i];
        } else if (const auto end = format.find('}', i);
                   format[i] == '%' && next == '{' && end != std::string::npos) {
            text += valueOf(format.substr(i + 2, end - i - 2), outcome);
            i = end;
        } else if (const char escape = unescaped(next); format[i] == '\\' && escape != '\0') {
            text += escape;
            ++i;
        } else {
            text += format[i];
        }
    }
    return text;
}

}  // namespace tool
