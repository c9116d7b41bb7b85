#pragma once

#include <curl/curl.h>

#include <boost/algorithm/string/predicate.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "Records/header_line.h"

namespace zel::http {

/// The scheme, host and port of a parsed URL; nothing for one without them.
inline std::string originOf(CURLU* url) {
    std::string origin;
    for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
        char* text = nullptr;
        if (curl_url_get(url, part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
        origin.append(text).append("|");
        curl_free(text);
    }
    return origin;
}

/// The value of a Location line as libcurl recognizes it, with any line end; empty for other lines.
inline std::string locationOf(std::string_view line) {
    constexpr std::string_view name = "location:";
    if (!hasName(line, name)) return {};
    return std::string(trimmed(line.substr(name.size())));
}

/// Whether a redirect from `url` to `location` leads to another scheme, host or port. Parses with
/// the flags that libcurl uses to follow it, so that both get the same URL. A `location` that
/// cannot be parsed counts as another origin.
inline bool leavesOrigin(const char* url, const std::string& location) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
    const auto set = [&](const char* text, unsigned flags) {
        return curl_url_set(parsed.get(), CURLUPART_URL, text, flags) == CURLUE_OK;
    };
    if (!parsed || !set(url, CURLU_GUESS_SCHEME)) return true;
    const std::string origin = originOf(parsed.get());
    return !set(location.c_str(), CURLU_URLENCODE | CURLU_ALLOW_SPACE) ||
           !boost::algorithm::iequals(originOf(parsed.get()), origin);
}

}  // namespace zel::http
