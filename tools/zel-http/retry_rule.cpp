#include "retry_rule.h"

#include <curl/curl.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <cstdlib>

#include "exit_status.h"

namespace tool {
namespace {

using std::chrono::milliseconds;

template <typename Values, typename Value>
bool has(const Values& values, Value value) {
    return std::find(std::begin(values), std::end(values), value) != std::end(values);
}

bool statusMayPass(unsigned status) {
    constexpr unsigned passing[] = {408, 429, 500, 502, 503, 504};
    return has(passing, status);
}

bool mayPass(const Outcome& outcome) {
    constexpr int passing[] = {CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST,
                               CURLE_OPERATION_TIMEDOUT};
    if (outcome.failure.empty()) return statusMayPass(outcome.status);
    return has(passing, exitStatusOf(outcome));
}

/// The seconds of a Retry-After; 0 without one.
milliseconds askedDelay(const Outcome& outcome) {
    for (const auto& [name, value] : outcome.fields) {
        if (!boost::algorithm::iequals(name, "Retry-After")) continue;
        constexpr long longest = 21600;  // six hours
        constexpr int decimal = 10;
        const long seconds = std::strtol(value.c_str(), nullptr, decimal);
        return std::chrono::seconds(std::clamp(seconds, 0L, longest));
    }
    return {};
}

}  // namespace

bool isRetried(const RetrySettings& settings, unsigned tries, unsigned status) {
    return tries <= settings.most && statusMayPass(status);
}

std::optional<milliseconds> delayBeforeRetry(const RetrySettings& settings, unsigned tries,
                                             const Outcome& outcome) {
    if (tries > settings.most) return std::nullopt;
    const bool failed = !outcome.failure.empty() || outcome.is_error_answer;
    const bool refused = outcome.facts.curl_code == CURLE_COULDNT_CONNECT;
    const bool repeats = mayPass(outcome) || (settings.refused_connections && refused) ||
                         (settings.all_errors && failed);
    if (!repeats || outcome.is_written) return std::nullopt;
    constexpr milliseconds longest(600000);
    constexpr milliseconds first(1000);
    const milliseconds growing = std::min(longest, first * (1U << std::min(tries - 1, 10U)));
    return std::max(settings.delay.count() != 0 ? settings.delay : growing, askedDelay(outcome));
}

}  // namespace tool
