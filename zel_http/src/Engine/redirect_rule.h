#pragma once

#include <curl/curl.h>

#include <boost/algorithm/string/predicate.hpp>
#include <memory>
#include <string>
#include <string_view>

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

/// Whether `location`, as a redirect from `url` gives it, leads to another scheme, host or port.
/// A text that cannot be parsed counts as leading away.
inline bool leavesOrigin(const char* url, std::string_view location) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
    const auto set = [&](const char* text) {
        return curl_url_set(parsed.get(), CURLUPART_URL, text, CURLU_GUESS_SCHEME) == CURLUE_OK;
    };
    if (!parsed || !set(url)) return true;
    const std::string origin = originOf(parsed.get());
    return !set(std::string(location).c_str()) ||
           !boost::algorithm::iequals(originOf(parsed.get()), origin);
}

}  // namespace zel::http
