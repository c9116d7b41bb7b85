#include "Client/exchange_log.h"

#include <algorithm>
#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "Records/printable.h"

namespace zel::http {
namespace {

using StringFilter = std::function<std::string(const std::string&)>;
using HeadersFilter = std::function<HeaderMap(const HeaderMap&)>;

constexpr std::array<std::string_view, 2> request_log_headers = {"trackingid", "warning"};
constexpr std::array<std::string_view, 3> response_log_headers = {"location", "warning",
                                                                  "Retry-After"};
constexpr std::array<std::string_view, 3> logged_body_types = {
    "application/json", "application/x-www-form-urlencoded", "text/html"};

constexpr int summary_level = 1;
constexpr int header_level = 6;
constexpr int body_level = 9;
constexpr std::size_t chunk_size = 8000;
constexpr std::size_t usual_chunks = 3;
constexpr std::size_t most_chunks = 32;

std::string apply_string_filter(const std::string& text, const StringFilter& filter) {
    return filter ? filter(text) : text;
}

template <std::size_t N>
bool lists(const std::array<std::string_view, N>& names, const std::string& name) {
    return std::any_of(names.begin(), names.end(), [&](std::string_view listed) {
        return listed.size() == name.size() && boost::algorithm::iequals(listed, name);
    });
}

bool loggable(const std::string& content_type) {
    return std::any_of(logged_body_types.begin(), logged_body_types.end(),
                       [&](auto type) { return content_type.find(type) != std::string::npos; });
}

void log_headers(logging::Logger& logger, const HeaderMap& headers, bool is_response) {
    for (const auto& [name, value] : headers) {
        const bool listed =
            is_response ? lists(response_log_headers, name) : lists(request_log_headers, name);
        logger.debugStream(listed ? summary_level : header_level)
            << ' ' << printable(name) << ": " << printable(value);
    }
}

void log_body(logging::Logger& logger, std::string_view text) {
    const std::size_t limit = logger.isDebugEnabled(body_level) ? most_chunks : usual_chunks;
    const std::size_t count = std::max<std::size_t>((text.size() + chunk_size - 1) / chunk_size, 1);
    for (std::size_t number = 1; number <= std::min(count, limit); ++number) {
        auto line = logger.debugStream(summary_level);
        line << " Body";
        if (count > 1) line << '[' << number << '/' << count << ']';
        line << ": " << text.substr((number - 1) * chunk_size, chunk_size);
    }
}

void log_exchange(logging::Logger& logger, const HeaderMap& headers, const std::string& body,
                  bool is_response, bool body_allowed, const HeadersFilter& headers_filter,
                  const StringFilter& body_filter) {
    if (headers_filter) {
        log_headers(logger, headers_filter(headers), is_response);
    } else {
        log_headers(logger, headers, is_response);
    }
    const auto content_type = headers.find("Content-Type");
    if (content_type == headers.end() || !loggable(content_type->second) || !body_allowed) return;
    if (body_filter) {
        log_body(logger, apply_string_filter(body, body_filter));
    } else {
        log_body(logger, body);  // not copied
    }
}

/// Whether nothing is to be done: no line would be written, and no filter function must be called.
bool silent(const logging::Logger& logger, const LogFilter& filter) {
    return !logger.isDebugEnabled(summary_level) && !filter.url_filter && !filter.headers_filter &&
           !filter.request_body_filter && !filter.response_body_filter;
}

}  // namespace

void log_request(logging::Logger& logger, Client::RequestId id, const RequestConfig& config,
                 const LogFilter& filter) {
    if (silent(logger, filter)) return;
    const bool body_allowed = filter.payload == LogFilter::Full ||
                              filter.payload == LogFilter::RequestBodies ||
                              logger.isDebugEnabled(body_level);
    logger.debugStream(summary_level)
        << "HTTP(" << id << ") => " << config.method << ' '
        << printable(apply_string_filter(config.url, filter.url_filter));
    log_exchange(logger, config.headers, config.body, false, body_allowed, filter.headers_filter,
                 filter.request_body_filter);
}

void log_response(logging::Logger& logger, Client::RequestId id, const ResponseData& response,
                  const LogFilter& filter) {
    if (silent(logger, filter)) return;
    const bool success = response.status >= 200 && response.status <= 299;
    const bool body_allowed =
        filter.payload == LogFilter::Full || !success || logger.isDebugEnabled(body_level);
    logger.debugStream(summary_level) << "HTTP(" << id << ") <= " << response.status;
    log_exchange(logger, response.headers, response.body, true, body_allowed, filter.headers_filter,
                 filter.response_body_filter);
}

void log_cancel(logging::Logger& logger, Client::RequestId id) {
    logger.infoStream() << "HTTP(" << id << ") Cancelling";
}

void log_error(logging::Logger& logger, Client::RequestId id, const ErrorData& error) {
    auto line = logger.infoStream();
    line << "HTTP(" << id << ") Error: " << error.failure;
    if (!error.message.empty()) line << " (" << printable(error.message) << ')';
}

}  // namespace zel::http
