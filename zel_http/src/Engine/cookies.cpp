// Checks the X-Auth cookie before and after a transfer, and deletes a host's cookies for
// `reset_state`. A failed check is only logged. Engine thread.

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Engine/active_task.h"
#include "Engine/cookie_line.h"
#include "Engine/easy_options.h"
#include "Engine/wire_text.h"
#include "uri/uri.h"
#include "zel_http/engine.h"

namespace zel::http {
namespace {

constexpr char xauth_name[] = "X-Auth";

using CookieList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

CURLcode fetchCookies(CURL* curl, CookieList& cookies) {
    curl_slist* list = nullptr;
    const CURLcode result = curl_easy_getinfo(curl, CURLINFO_COOKIELIST, &list);
    cookies.reset(list);
    return result;
}

/// The fields of a line of the list; nothing, and an error line, for a malformed one.
std::optional<CookieLine> parse(const char* line, const char* operation, logging::Logger& logger) {
    auto cookie = splitCookieLine(line);
    if (!cookie) {
        logger.error("%s: curl cookie didn't split into 7 parts, skipping. [%s]",
                     logging::arguments(operation, printable(line)));
    }
    return cookie;
}

bool belongsTo(const std::string& url, const CookieLine& cookie) {
    return hostMatches(uri::uri(url).authority_host(), cookie.host());
}

}  // namespace

std::string Engine::getCurrentXAuthCookieDomainFromRequest(void* curl, const std::string& url) {
    constexpr char operation[] = "getCurrentXAuthCookieDomainFromRequest";
    CookieList cookies(nullptr, curl_slist_free_all);
    if (const CURLcode result = fetchCookies(curl, cookies); result != CURLE_OK) {
        logger->error("%s: Fetching curl cookie list failed: '%s'",
                      logging::arguments(operation, curl_easy_strerror(result)));
        return {};
    }
    if (!cookies) {
        logger->debug(8, "%s: curl cookie list empty", logging::arguments(operation));
        return {};
    }
    for (const curl_slist* entry = cookies.get(); entry != nullptr; entry = entry->next) {
        const auto cookie = parse(entry->data, operation, *logger);
        if (!cookie || !belongsTo(url, *cookie)) continue;
        if ((*cookie)[CookieLine::name] == xauth_name) return cookie->host();
    }
    return {};
}

void Engine::deleteCookiesFromRequest(void* curl, const std::string& url) {
    constexpr char operation[] = "deleteCookiesFromRequest";
    CookieList cookies(nullptr, curl_slist_free_all);
    if (const CURLcode result = fetchCookies(curl, cookies); result != CURLE_OK) {
        logger->error("%s: Fetching curl cookie list failed, unable to clear cookies: '%s'",
                      logging::arguments(operation, curl_easy_strerror(result)));
        return;
    }
    if (!cookies) {
        logger->debug(8, "%s: curl cookie list empty, no cookies to clear",
                      logging::arguments(operation));
        return;
    }
    std::vector<const char*> kept;
    bool deleted = false;
    for (const curl_slist* entry = cookies.get(); entry != nullptr; entry = entry->next) {
        const auto cookie = parse(entry->data, operation, *logger);
        if (!cookie || !belongsTo(url, *cookie)) {
            kept.push_back(entry->data);
            continue;
        }
        const std::string expired = expiredCookieLine(*cookie, std::time(nullptr) - 1);
        logger->debug(8, "%s: deleting cookie '%s' for domain '%s'",
                      logging::arguments(operation, (*cookie)[CookieLine::name], cookie->host()));
        setText<CURLOPT_COOKIELIST>(curl, expired.c_str());
        deleted = true;
    }
    if (!deleted) return;
    // The expired line alone is not enough: libcurl 7.88 drops such a cookie only when the next one
    // is added, 8.14 keeps the one that it should replace. So all are dropped and the others added.
    setText<CURLOPT_COOKIELIST>(curl, "ALL");
    for (const char* line : kept) setText<CURLOPT_COOKIELIST>(curl, line);
}

void Engine::edgeCookieCheck(const ActiveTask& task) {
    const Request& request = *task.request;
    const RequestConfig& config = request.config;
    if (!config.xauth_check_domain) return;
    const auto report = [&](const char* format, const std::string& domain,
                            const std::string& other) {
        logger->error("Set-Cookie for request: '%s'", logging::arguments(printable(config.url)));
        logger->error(format, logging::arguments(domain, other));
    };
    const std::string domain = request.xauthCookieDomain();
    if (config.xauth_expected_domain.find(domain) == std::string::npos) {
        report("Domain in X-Auth '%s' does not match expected '%s'", domain,
               config.xauth_expected_domain);
    }
    if (!config.xauth_required) return;
    const std::string current = request.xauthCookieDomain();
    if (current != config.xauth_previous_domain) {
        report("Domain in X-Auth '%s' is different from previous '%s'", current,
               config.xauth_previous_domain);
    }
}

}  // namespace zel::http
