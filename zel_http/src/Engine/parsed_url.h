#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace zel::http {

/// A URL as libcurl's parser has split it.
using ParsedUrl = std::shared_ptr<CURLU>;

/// Parses an http or https URL with the flags that libcurl uses before a transfer. Null for a URL
/// of any other kind and for one that the parser refuses.
inline ParsedUrl parseUrl(const std::string& url) {
    const auto begins = [&](const char* scheme, std::size_t length) {
        return curl_strnequal(url.c_str(), scheme, length) != 0;
    };
    if (!begins("http://", 7) && !begins("https://", 8)) return nullptr;
    if (url.find('\0') != std::string::npos) return nullptr;
    const ParsedUrl parsed(curl_url(), curl_url_cleanup);
    constexpr unsigned flags = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
    const bool taken =
        parsed && curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), flags) == CURLUE_OK;
    return taken ? parsed : nullptr;
}

}  // namespace zel::http
