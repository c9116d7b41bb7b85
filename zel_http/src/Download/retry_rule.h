#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "Download/resume_rule.h"
#include "zel_http/download.h"

namespace zel::http {

/// Whether another try may succeed where this one failed. `text` is the engine's, which tells a
/// body that was cut from, say, a certificate that is not trusted.
inline bool mayPass(Failure failure, const std::string& text) {
    if (failure == Failure::DnsLookupFailure || failure == Failure::OperationTimedOut ||
        failure == Failure::ConnectionFailure) {
        return true;
    }
    if (failure != Failure::ProtocolFailure) return false;
    constexpr std::array cut = {CURLE_PARTIAL_FILE, CURLE_RECV_ERROR,        CURLE_SEND_ERROR,
                                CURLE_GOT_NOTHING,  CURLE_SSL_CONNECT_ERROR, CURLE_HTTP2,
                                CURLE_HTTP2_STREAM};
    return std::any_of(cut.begin(), cut.end(),
                       [&](CURLcode code) { return text == curl_easy_strerror(code); });
}

inline bool mayPass(std::uint32_t status) {
    constexpr std::array passing = {429U, 500U, 502U, 503U, 504U};
    return std::find(passing.begin(), passing.end(), status) != passing.end();
}

/// What a Retry-After asks for, in seconds or as a date; nothing for other texts.
inline std::optional<std::chrono::milliseconds> parseRetryAfter(const std::string& text,
                                                                std::time_t now) {
    constexpr std::int64_t day =
        std::int64_t{24} * 60 * 60;  // nobody waits longer, and nothing overflows
    if (const auto seconds = parseNumber(text)) {
        return std::chrono::seconds(std::min<std::uint64_t>(*seconds, day));
    }
    const std::time_t date = curl_getdate(text.c_str(), nullptr);
    if (date == -1) return std::nullopt;
    return std::chrono::seconds(std::clamp<std::int64_t>(std::int64_t{date} - now, 0, day));
}

/// The delay before the `attempt`-th retry, 1 for the first. `share` is random, from 0 to 1: it
/// keeps devices apart that failed together, also those that a server has told the same time.
inline std::chrono::milliseconds delayBefore(unsigned attempt, const RetryPolicy& policy,
                                             double share,
                                             std::optional<std::chrono::milliseconds> retry_after) {
    using std::chrono::milliseconds;
    constexpr double year = 365.0 * 24 * 60 * 60 * 1000;  // a longer one overflows a clock
    const double grown =
        static_cast<double>(policy.base.count()) * std::exp2(std::min(attempt - 1.0, 100.0));
    const double bound = std::min({grown, static_cast<double>(policy.cap.count()), year});
    const milliseconds asked =
        std::min(retry_after.value_or(milliseconds(0)), policy.longest_retry_after);
    const double range = std::max({bound, 0.0, static_cast<double>(asked.count())});
    return asked + milliseconds(static_cast<milliseconds::rep>(range * share));
}

}  // namespace zel::http
