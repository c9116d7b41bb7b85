#include "uri/uri.h"

#include <curl/curl.h>

#include <memory>

namespace uri {

uri::uri(const std::string& text) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
    // libcurl transfers a URL without a scheme, too, so its host must be found here.
    if (!parsed ||
        curl_url_set(parsed.get(), CURLUPART_URL, text.c_str(), CURLU_GUESS_SCHEME) != CURLUE_OK) {
        return;
    }
    char* part = nullptr;
    if (curl_url_get(parsed.get(), CURLUPART_HOST, &part, 0) != CURLUE_OK) return;
    const std::unique_ptr<char, decltype(&curl_free)> host(part, curl_free);
    host_ = host.get();
}

}  // namespace uri
