#pragma once

#include <sys/time.h>

namespace zel::http {

/// How long a pass may wait, from what `curl_multi_timeout` says: 30 s when libcurl has no timer
/// (negative), its timer otherwise, cut at 60 s once that is 61 s or more.
constexpr timeval waitTimeout(long curlMilliseconds) {
    if (curlMilliseconds < 0) return {30, 0};
    const long seconds = curlMilliseconds / 1000;
    if (seconds > 60) return {60, 0};
    return {seconds, (curlMilliseconds % 1000) * 1000};
}

}  // namespace zel::http
