// The X-Auth cookie and the clean start, on handles that hold cookies before the transfer.

#include <gtest/gtest.h>

#include "Engine/cookie_line.h"
#include "support/probe_request.h"

namespace test {
namespace {

using loopback::RecordingLogger;
using zel::http::Engine;

/// Gives every handle these cookies before the steps that look at them.
class CookieEngine : public Engine {
public:
    using Engine::Engine;
    CookieEngine(const CookieEngine&) = delete;
    CookieEngine& operator=(const CookieEngine&) = delete;
    ~CookieEngine() override { stop(); }
    void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request>) override {
        for (const char* cookie : {"#HttpOnly_a.invalid\tFALSE\t/\tFALSE\t0\thidden\tv",
                                   "other.invalid\tFALSE\t/\tFALSE\t0\tX-Auth\tother",
                                   ".a.invalid\tTRUE\t/\tFALSE\t0\tx-auth\tlower",
                                   "A.invalid\tFALSE\t/p\tFALSE\t0\tX-Auth\tmine",
                                   "a.invalid\tFALSE\t/\tTRUE\t0\tother\t\t"}) {
            curl_easy_setopt(curl, CURLOPT_COOKIELIST, cookie);
        }
        before = getCurrentXAuthCookieDomainFromRequest(curl, "http://b.a.invalid/");
        deleteCookiesFromRequest(curl, "http://b.a.invalid/");
        after = getCurrentXAuthCookieDomainFromRequest(curl, "http://b.a.invalid/");
        curl_slist* left = nullptr;
        curl_easy_getinfo(curl, CURLINFO_COOKIELIST, &left);
        for (const auto* cookie = left; cookie != nullptr; cookie = cookie->next)
            kept += std::string(cookie->data) + "|";
        curl_slist_free_all(left);
        elsewhere = getCurrentXAuthCookieDomainFromRequest(curl, "http://other.invalid/");
    }
    std::string before, after, kept, elsewhere;
};

class XAuthRequest : public ProbeRequest {
public:
    using ProbeRequest::ProbeRequest;
    std::string xauthCookieDomain() const override { return domain; }
    std::string domain;
};

TEST(Cookies, TheHostsOwnAreFoundAndDeletedAndNoOthers) {
    RecordingLogger logger;
    CookieEngine engine([](const auto& closure) { closure(); }, &logger);
    probe("ftp://127.0.0.1/")->runToOutcome();
    EXPECT_EQ(engine.before, "A.invalid");
    EXPECT_EQ(engine.after, "");
    EXPECT_EQ(engine.elsewhere, "other.invalid");
    EXPECT_GE(logger.lines("deleteCookiesFromRequest: deleting cookie").size(),
              3U);  // libcurl 8.14 takes one less
    EXPECT_EQ(engine.kept, "other.invalid\tFALSE\t/\tFALSE\t0\tX-Auth\tother|");
}

TEST(Cookies, XAuthFindingsAreLoggedAndFailNothing) {
    const loopback::Origin origin;
    struct Row {
        bool required, check;
        const char* domain;
        const char* expected;
        std::string messages;
    };
    const std::string url = origin.url("/hello");
    const std::string missing =
        "critical: Request '" + url + "' is missing required X-Auth cookie on outgoing request|";
    const std::string set = "error: Set-Cookie for request: '" + url + "'|";
    const std::string unexpected =
        set + "error: Domain in X-Auth 'c.d' does not match expected 'a.b'|";
    const std::string different =
        set + "error: Domain in X-Auth 'c.d' is different from previous ''|";
    for (const Row& row :
         {Row{true, false, "c.d", "a.b", missing}, Row{false, true, "c.d", "a.b", unexpected},
          Row{false, true, "c.d", "x.c.d", ""}, Row{false, true, "", "a.b", ""},
          Row{true, true, "c.d", "c.d", missing + different}}) {
        Exchange host;
        const auto request = std::make_shared<XAuthRequest>(url);
        request->domain = row.domain;
        request->config.xauth_required = row.required;
        request->config.xauth_check_domain = row.check;
        request->config.xauth_expected_domain = row.expected;
        EXPECT_EQ(request->runToOutcome(), "200 end");
        std::string messages;
        for (const auto& line : host.logger.lines("critical: ")) messages += line + "|";
        for (const auto& line : host.logger.lines("error: ")) messages += line + "|";
        EXPECT_EQ(messages, row.messages);
    }
}

TEST(Cookies, LinesAndHosts) {
    const std::pair<const char*, bool> lines[] = {{"d\tF\t/\tF\t0\tn\tv", true},
                                                  {"\t\t\t\t\t\t", true},
                                                  {"d\tF\t/\tF\t0\tn", false},
                                                  {"d\tF\t/\tF\t0\tn\tv\t", false},
                                                  {"", false}};
    for (const auto& [line, splits] : lines) {
        const auto cookie = zel::http::splitCookieLine(line);
        EXPECT_EQ(cookie.has_value(), splits) << line;
        if (cookie && *line != '\t') {
            EXPECT_EQ(zel::http::expiredCookieLine(*cookie, 7), "d\tF\t/\tF\t7\tn\tv");
        }
    }
    struct Host {
        const char* host;
        const char* domain;
        bool matches;
    };
    for (const Host& row :
         {Host{"a.b.c", "b.c", true}, Host{"a.b.c", ".b.c", true}, Host{"b.c", "B.C", true},
          Host{"b.c", ".b.c", false}, Host{"b.c", "a.b.c", false}, Host{"a.b.cc", "b.c", false}}) {
        EXPECT_EQ(zel::http::hostMatches(row.host, row.domain), row.matches)
            << row.host << row.domain;
    }
}

}  // namespace
}  // namespace test
