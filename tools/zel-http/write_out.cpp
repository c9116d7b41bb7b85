#include "write_out.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string_view>

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

std::string urlOf(const Outcome& outcome) {
    return outcome.facts.url.empty() ? outcome.request->url : outcome.facts.url;
}

std::string speed(std::uint64_t bytes, const Outcome& outcome) {
    const double total = std::chrono::duration<double>(outcome.facts.total).count();
    return fmt::format("{:.0f}", total > 0 ? static_cast<double>(bytes) / total : 0);
}

/// Where a redirect that was not followed leads to.
std::string redirectOf(const Outcome& outcome) {
    const std::string location = fieldOf(outcome, "Location");
    if (outcome.status / 100 != 3 || location.empty()) return {};
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
    char* text = nullptr;
    curl_url_set(url.get(), CURLUPART_URL, urlOf(outcome).c_str(), 0);
    curl_url_set(url.get(), CURLUPART_URL, location.c_str(), 0);
    curl_url_get(url.get(), CURLUPART_URL, &text, 0);
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
    return text == nullptr ? "" : withoutCredentials(text);
}

std::string schemeOf(const Outcome& outcome) {
    const std::string url = urlOf(outcome);
    return boost::algorithm::to_upper_copy(url.substr(0, url.find("://")));
}

std::string errorOf(const Outcome& outcome) {
    if (outcome.failure.empty() && outcome.is_error_answer) {
        return fmt::format("The requested URL returned error: {}", outcome.status);
    }
    return outcome.facts.curl_text.empty() ? outcome.message : outcome.facts.curl_text;
}

using Variable = std::function<std::string(const Outcome&)>;

const std::map<std::string, Variable>& variables() {
    using std::to_string;
    static const Variable status = [](const Outcome& o) { return fmt::format("{:03}", o.status); };
    static const std::map<std::string, Variable> table = {
        {"content_type", [](const Outcome& o) { return fieldOf(o, "Content-Type"); }},
        {"errormsg", errorOf},
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
        {"method", [](const Outcome& o) { return o.facts.method; }},
        {"num_connects",
         [](const Outcome& o) { return timingsOf(o.facts).new_connection ? "1" : "0"; }},
        {"num_headers", [](const Outcome& o) { return to_string(o.fields.size()); }},
        {"num_redirects", [](const Outcome& o) { return to_string(o.facts.redirects); }},
        {"redirect_url", redirectOf},
        {"remote_ip", [](const Outcome& o) { return o.facts.remote_address; }},
        {"remote_port", [](const Outcome& o) { return to_string(o.facts.remote_port); }},
        {"response_code", status},
        {"scheme", schemeOf},
        {"size_download", [](const Outcome& o) { return to_string(o.facts.bytes_received); }},
        {"size_upload", [](const Outcome& o) { return to_string(o.facts.bytes_sent); }},
        {"speed_download", [](const Outcome& o) { return speed(o.facts.bytes_received, o); }},
        {"speed_upload", [](const Outcome& o) { return speed(o.facts.bytes_sent, o); }},
        {"ssl_verify_result",
         [](const Outcome& o) { return to_string(o.facts.tls_verify_result); }},
        {"time_appconnect", [](const Outcome& o) { return seconds(o.facts.tls_done); }},
        {"time_connect", [](const Outcome& o) { return seconds(o.facts.connected); }},
        {"time_namelookup", [](const Outcome& o) { return seconds(o.facts.looked_up); }},
        {"time_pretransfer", [](const Outcome& o) { return seconds(o.facts.ready); }},
        {"time_redirect", [](const Outcome& o) { return seconds(o.facts.redirecting); }},
        {"time_starttransfer", [](const Outcome& o) { return seconds(o.facts.first_byte); }},
        {"time_total", [](const Outcome& o) { return seconds(o.facts.total); }},
        {"url", [](const Outcome& o) { return withoutCredentials(o.request->url); }},
        {"url_effective", [](const Outcome& o) { return withoutCredentials(urlOf(o)); }},
        {"urlnum", [](const Outcome& o) { return to_string(o.index); }},
    };
    return table;
}

class Writer {
public:
    explicit Writer(const Outcome& outcome) : outcome_(outcome) {}

    WriteOut write(std::string_view format) {
        while (!format.empty() && !silent_) format.remove_prefix(writeNext(format));
        return written_;
    }

private:
    /// Returns how much of `format` it has used.
    std::size_t writeNext(std::string_view format) {
        constexpr std::string_view variable = "%{";
        constexpr std::string_view header = "%header{";
        if (format.substr(0, 2) == "%%") return put(format[0], 2);
        if (format[0] == '\\' && format.size() > 1) {
            const auto control = controlOf(format[1]);
            *stream_ += control ? std::string{*control} : std::string(format.substr(0, 2));
            return 2;
        }
        const auto end = format[0] == '%' ? format.find('}') : std::string_view::npos;
        if (end == std::string_view::npos) return put(format[0], 1);
        if (format.substr(0, variable.size()) == variable) {
            writeVariable(boost::algorithm::to_lower_copy(std::string(format.substr(2, end - 2))));
            return end + 1;
        }
        if (format.substr(0, header.size()) == header) {
            const auto name = format.substr(header.size(), end - header.size());
            *stream_ += fieldOf(outcome_, std::string(name));
            return end + 1;
        }
        return put(format[0], 1);
    }

    std::size_t put(char letter, std::size_t used) {
        *stream_ += letter;
        return used;
    }

    void writeVariable(const std::string& name) {
        if (name == "stdout") {
            stream_ = &written_.output;
        } else if (name == "stderr") {
            stream_ = &written_.errors;
        } else if (name == "onerror") {
            silent_ = exitStatusOf(outcome_) == 0;
        } else if (const auto found = variables().find(name); found != variables().end()) {
            *stream_ += found->second(outcome_);
        } else {
            written_.errors += "zel-http: -w: unknown variable '" + name + "'\n";
        }
    }

    const Outcome& outcome_;
    WriteOut written_;
    std::string* stream_ = &written_.output;
    bool silent_ = false;
};

}  // namespace

WriteOut writeOut(const std::string& format, const Outcome& outcome) {
    return Writer(outcome).write(format);
}

}  // namespace tool
