// The process-wide proxy setting, and how a proxy is applied to a transfer. The setting is read and
// written on any thread, under `variableMutex`, and applied on the engine thread.

#include <memory>
#include <mutex>
#include <string>

#include "Engine/easy_options.h"
#include "Engine/wire_text.h"
#include "zel_http/engine.h"

namespace zel::http {
namespace {

constexpr char bypassed_hosts[] = "localhost,127.0.0.1";

using EscapedText = std::unique_ptr<char, decltype(&curl_free)>;

/// An invalid proxy URL: every transfer that would use it fails.
constexpr char refused_proxy[] = "http://[";

/// Whether libcurl can use the proxy's URL. libcurl 7.88 ignores one whose host, user or password
/// does not percent-decode, and connects directly.
bool isUsable(const std::string& proxy) {
    if (hasCrLfOrNul(proxy)) return false;
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
    constexpr unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME;
    if (curl_url_set(url.get(), CURLUPART_URL, proxy.c_str(), flags) != CURLUE_OK) return false;
    const auto decodes = [&](CURLUPart part, CURLUcode missing) {
        char* text = nullptr;
        const CURLUcode result = curl_url_get(url.get(), part, &text, CURLU_URLDECODE);
        curl_free(text);
        return result == CURLUE_OK || result == missing;
    };
    return decodes(CURLUPART_HOST, CURLUE_OK) && decodes(CURLUPART_USER, CURLUE_NO_USER) &&
           decodes(CURLUPART_PASSWORD, CURLUE_NO_PASSWORD);
}

/// Null when memory runs out, or for a text too long to be an option, which 8.14 escapes.
EscapedText escape(CURL* curl, const std::string& text) {
    constexpr std::size_t longest_option = 8'000'000;
    if (text.size() > longest_option) return {nullptr, curl_free};
    return {curl_easy_escape(curl, text.c_str(), 0), curl_free};
}

}  // namespace

void Engine::setProxyConfig(const std::string& url, const std::string& user,
                            const std::string& password) {
    const std::lock_guard lock(variableMutex);
    proxyUrl = url;
    proxyUser = user;
    proxyPassword = password;
}

std::string Engine::getProxyUrl() {
    const std::lock_guard lock(variableMutex);
    return proxyUrl;
}

std::string Engine::getProxyUser() {
    const std::lock_guard lock(variableMutex);
    return proxyUser;
}

std::string Engine::getProxyPassword() {
    const std::lock_guard lock(variableMutex);
    return proxyPassword;
}

void Engine::addProxyConfig(void* curl, const std::string& proxy) {
    // The stored credentials were set for the stored proxy and are sent to no other.
    std::string used = proxy;
    std::string user;
    std::string password;
    if (proxy.empty()) {
        const std::lock_guard lock(variableMutex);
        used = proxyUrl;
        user = proxyUser;
        password = proxyPassword;
    }
    if (used.empty()) return;
    logger->debug(8, "Engine::%s: Using proxy '%s'",
                  logging::arguments("addProxyConfig", printable(used)));
    setText<CURLOPT_PROXY>(curl, used.c_str());
    setLong<CURLOPT_HTTPPROXYTUNNEL>(curl, 1);
    setLong<CURLOPT_PROXYAUTH>(curl, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST));
    setText<CURLOPT_NOPROXY>(curl, bypassed_hosts);
    if (!isUsable(used)) {
        logger->error("Engine::%s: the proxy's URL cannot be used; transfers that need it fail",
                      logging::arguments("addProxyConfig"));
        setText<CURLOPT_PROXY>(curl, refused_proxy);
    }

    if (user.empty()) return;
    if (hasCrLfOrNul(user) || hasCrLfOrNul(password)) {
        logger->error("Engine::%s: user or password contains CR, LF or NUL and both are left out",
                      logging::arguments("addProxyConfig"));
        return;
    }
    const EscapedText escaped_user = escape(curl, user);
    const EscapedText escaped_password = escape(curl, password);
    if (!escaped_user) {
        logger->error("%s: Encoding proxy username failed", logging::arguments("addProxyConfig"));
    }
    if (!escaped_password && !password.empty()) {
        logger->error("%s: Encoding proxy password failed", logging::arguments("addProxyConfig"));
    }
    std::string credentials;
    if (escaped_user) {
        credentials.append(escaped_user.get()).append(":");
        if (escaped_password) credentials.append(escaped_password.get());
    }
    setText<CURLOPT_PROXYUSERPWD>(curl, credentials.c_str());
}

}  // namespace zel::http
