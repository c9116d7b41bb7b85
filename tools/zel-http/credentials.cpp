#include "credentials.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace tool {
namespace {

std::string unescaped(const std::string& text) {
    int size = 0;
    const std::unique_ptr<char, decltype(&curl_free)> plain(
        curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &size), curl_free);
    return plain ? std::string(plain.get(), static_cast<std::size_t>(size)) : "";
}

Credentials split(const std::string& text) {
    const auto colon = text.find(':');
    return {text.substr(0, colon), colon == std::string::npos ? "" : text.substr(colon + 1)};
}

bool hasControl(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; });
}

}  // namespace

Credentials credentialsOf(const std::string& text) {
    Credentials credentials = split(text);
    if (credentials.user.empty()) throw std::runtime_error("the user name is empty");
    return credentials;
}

std::size_t hostOf(const std::string& url) {
    const auto scheme = url.find("://");
    if (scheme == std::string::npos) return 0;
    return std::min(url.find_first_not_of('/', scheme + 1), url.size());
}

std::optional<Credentials> takeCredentials(std::string& url) {
    const auto begin = hostOf(url);
    const auto at = url.substr(0, url.find_first_of("/?#", begin)).rfind('@');
    if (at == std::string::npos || at < begin) return std::nullopt;
    Credentials credentials = split(url.substr(begin, at - begin));
    credentials = {unescaped(credentials.user), unescaped(credentials.password)};
    // What libcurl takes from a URL only, or refuses there.
    if (credentials.user.empty() || hasControl(credentials.user + credentials.password)) {
        return std::nullopt;
    }
    url.erase(begin, at + 1 - begin);
    return credentials;
}

}  // namespace tool
