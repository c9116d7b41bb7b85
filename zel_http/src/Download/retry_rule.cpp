// When a failed try is repeated, and after how long. Plain values only.

#include "Download/retry_rule.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "Download/resume_rule.h"

namespace zel::http {

using std::chrono::milliseconds;

bool mayPass(Failure failure, const std::string& text) {
    switch (failure) {
        case Failure::DnsLookupFailure:
        case Failure::OperationTimedOut:
        case Failure::ConnectionFailure:
            return true;
        case Failure::ProtocolFailure:
            break;
        default:
            return false;
    }
    constexpr std::array cut = {CURLE_PARTIAL_FILE, CURLE_RECV_ERROR,        CURLE_SEND_ERROR,
                                CURLE_GOT_NOTHING,  CURLE_SSL_CONNECT_ERROR, CURLE_HTTP2,
                                CURLE_HTTP2_STREAM};
    return std::any_of(cut.begin(), cut.end(),
                       [&](CURLcode code) { return text == curl_easy_strerror(code); });
}

bool mayPass(std::uint32_t status) {
    constexpr std::array passing = {429U, 500U, 502U, 503U, 504U};
    return std::find(passing.begin(), passing.end(), status) != passing.end();
}

std::optional<milliseconds> parseRetryAfter(const std::string& text, std::time_t now) {
    constexpr std::int64_t day = 24 * 60 * 60;  // nobody waits longer, and nothing overflows
    std::int64_t seconds = 0;
    if (const auto number = parseNumber(text)) {
        seconds = static_cast<std::int64_t>(std::min<std::uint64_t>(*number, day));
    } else {
        const std::time_t date = curl_getdate(text.c_str(), nullptr);
        if (date == -1) return std::nullopt;
        seconds = std::clamp<std::int64_t>(std::int64_t{date} - now, 0, day);
    }
    return std::chrono::seconds(seconds);
}

milliseconds delayBefore(unsigned attempt, const RetryPolicy& policy, double share,
                         std::optional<milliseconds> retry_after) {
    const double grown = static_cast<double>(policy.base.count()) * std::exp2(attempt - 1.0);
    const double bound = std::min(grown, static_cast<double>(policy.cap.count()));
    const milliseconds delay(static_cast<milliseconds::rep>(std::max(bound, 0.0) * share));
    const milliseconds asked =
        std::min(retry_after.value_or(milliseconds(0)), policy.longest_retry_after);
    return std::max(delay, asked);
}

}  // namespace zel::http
