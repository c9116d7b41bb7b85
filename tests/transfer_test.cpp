// What becomes of a transfer's handle: its options, the hooks of the host, its cookies.

#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdarg>
#include <limits>
#include <set>
#include <stdexcept>

#include "Engine/cookie_line.h"
#include "support/engine_test.h"
#include "zel_http/engine_hooks.h"

namespace {

/// The options that were set, for the test on whose thread the engine is idle.
std::string options;
/// What a transfer has taken, in seconds; negative for the truth.
double total_time = -1;

std::atomic<int> added{0};
std::atomic<int> attached{0};
std::atomic<bool> refuse{false};
std::atomic<bool> throws{false};
std::atomic<int> performs_a_pass{1};
std::atomic<std::size_t> performs{0};
std::atomic<std::size_t> blocks_of_pass{0};
std::size_t most_blocks = 0;

std::string shown(CURL* easy, const curl_easyoption& option, void* pointer) {
    using zel::http::Engine;
    if (pointer == reinterpret_cast<void*>(&Engine::writeFunction)) return "writeFunction";
    if (pointer == reinterpret_cast<void*>(&Engine::writeHeader)) return "writeHeader";
    if (pointer == reinterpret_cast<void*>(&Engine::putReadFunc)) return "putReadFunc";
    if (pointer == reinterpret_cast<void*>(&Engine::putSeekFunc)) return "putSeekFunc";
    if (pointer == easy) return "handle";
    const bool text = option.type == CURLOT_STRING || option.id == CURLOPT_COPYPOSTFIELDS;
    return text && pointer != nullptr ? static_cast<const char*>(pointer) : "other";
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Between the library and libcurl. (A variadic function must not end its list with an enumeration.)
extern "C" CURLcode interposedSetopt(CURL* easy, int id, ...) asm("curl_easy_setopt");
extern "C" CURLcode interposedSetopt(CURL* easy, int id, ...) {
    static const auto setopt = next<CURLcode(CURL*, int, ...)>("curl_easy_setopt");
    const curl_easyoption* option = curl_easy_option_by_id(static_cast<CURLoption>(id));
    const bool is_long = option->type == CURLOT_LONG || option->type == CURLOT_VALUES;
    std::va_list arguments;
    va_start(arguments, id);
    const long number = is_long ? va_arg(arguments, long) : 0;
    void* pointer = is_long ? nullptr : va_arg(arguments, void*);
    va_end(arguments);
    options += std::string(option->name) + "=" +
               (is_long ? std::to_string(number) : shown(easy, *option, pointer)) + " ";
    return is_long ? setopt(easy, id, number) : setopt(easy, id, pointer);
}

extern "C" CURLcode interposedGetinfo(CURL* easy, int info, ...) asm("curl_easy_getinfo");
extern "C" CURLcode interposedGetinfo(CURL* easy, int info, ...) {
    static const auto getinfo = next<CURLcode(CURL*, int, ...)>("curl_easy_getinfo");
    std::va_list arguments;
    va_start(arguments, info);
    void* result = va_arg(arguments, void*);
    va_end(arguments);
    if (info != CURLINFO_TOTAL_TIME || total_time < 0) return getinfo(easy, info, result);
    *static_cast<double*>(result) = total_time;
    return CURLE_OK;
}

void engine_request_added() {
    ++added;
    if (throws) throw std::runtime_error("no room");
}

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    ++attached;
    return refuse ? CURLM_OUT_OF_MEMORY : curl_multi_add_handle(multi, easy);
}

CURLMcode engine_curl_multi_perform(void* multi, int* running) {
    CURLMcode result = CURLM_OK;
    for (int i = 0; i < performs_a_pass; ++i) {
        if (i != 0) curl_multi_poll(multi, nullptr, 0, 10, nullptr);
        blocks_of_pass = 0;
        result = curl_multi_perform(multi, running);
        most_blocks = std::max(most_blocks, blocks_of_pass.load());
        ++performs;
    }
    return result;
}

namespace test {
namespace {

using zel::http::Engine;

using Options = EngineTest;
using Hooks = EngineTest;
using HooksDeathTest = EngineTest;
using Cookies = EngineTest;
using Handle = EngineTest;

TEST_F(Options, InTheirOrder) {
    const std::string last = "ERRORBUFFER=other QUICK_EXIT=1 NOSIGNAL=1 BUFFERSIZE=";
    const std::string headers = "HTTPHEADER=other ";
    const std::string any = "HTTPAUTH=" + std::to_string(static_cast<long>(CURLAUTH_ANY)) + " ";
    const std::string most = std::to_string(std::numeric_limits<long>::max());
    const auto get = [] { return Get("http://127.0.0.1:1/"); };
    const auto https = [] { return Get("https://127.0.0.1:1/"); };
    const std::pair<RequestConfig, std::string> rows[] = {
        {get().sends(Method::GET_SYNC, "unsent"), headers},
        {get().sends(Method::POST, "abc"), "POSTFIELDSIZE=3 COPYPOSTFIELDS=abc " + headers},
        {get().sends(Method::PUT, "abcd"),
         "READFUNCTION=putReadFunc UPLOAD=1 READDATA=handle INFILESIZE=4 SEEKFUNCTION=putSeekFunc "
         "SEEKDATA=handle " +
             headers},
        {get().sends(Method::DELETE, "unsent"), "CUSTOMREQUEST=DELETE " + headers},
        {get().sends(Method::PATCH, "ab").within(1500).atMost(0).login("u", "p"),
         "NOSIGNAL=1 TIMEOUT_MS=1500 MAXFILESIZE=0 USERNAME=u PASSWORD=p " + any +
             "CUSTOMREQUEST=PATCH POSTFIELDSIZE=2 COPYPOSTFIELDS=ab " + headers},
        {get().login("", "p").set(&RequestConfig::reset_state, true),
         headers + "COOKIESESSION=1 FRESH_CONNECT=1 DNS_CACHE_TIMEOUT=0 "},
        {get().set(&RequestConfig::timeout, std::chrono::milliseconds::max()),
         "NOSIGNAL=1 TIMEOUT_MS=" + most + " " + headers},
        {https().trusting("/root").set(&RequestConfig::ca_dir, "/dir"),
         headers + "SSLVERSION=1 SSL_VERIFYPEER=1 SSL_VERIFYHOST=2 CAINFO=/root CAPATH=/dir "},
        {https().set(&RequestConfig::tls_verify, false),
         headers + "SSL_VERIFYHOST=0 SSL_VERIFYPEER=0 "},
    };
    for (const auto& [request, expected] : rows) {
        options.clear();
        outcomeOf(request);
        EXPECT_EQ(options.substr(0, options.find("BUFFERSIZE=") + 11),
                  "VERBOSE=0 PROTOCOLS=3 URL=" + request.url +
                      " WRITEFUNCTION=writeFunction WRITEDATA=handle HEADERFUNCTION=writeHeader "
                      "HEADERDATA=handle FOLLOWLOCATION=1 MAXREDIRS=5 NOPROGRESS=1 " +
                      expected + last);
    }
    EXPECT_EQ(logger.lines("1: HTTP: Outgoing => PUT http://127.0.0.1:1/\n").size(), 1U);
}

TEST_F(Hooks, TheExecutablesDefinitionsAreCalled) {
    added = attached = 0;
    EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");
    EXPECT_EQ(added, 1);
    EXPECT_EQ(attached, 1);
    // In every pass, those that find nothing but a wake-up too.
    std::set<std::size_t> unperformed;
    for (int i = 0; i < 2; ++i) {
        engine->queueRequest([&] { unperformed.insert(passes() - performs); });
        settle();
    }
    EXPECT_EQ(unperformed.size(), 1U);
    throws = true;  // once the request is queued
    EXPECT_THROW(outcomeOf(origin("/silence")), std::runtime_error);
    throws = false;
}

/// Of a body in many small chunks a pass takes a share, and the rest is held for the next ones.
TEST_F(Hooks, OneTransferLeavesRoomInAPassForOthers) {
    constexpr int chunks = 300000;
    std::string answer = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < chunks; ++i) answer += "1\r\nx\r\n";
    const ScriptedServer server(answer + "0\r\n\r\n");
    const auto request = hostRequest(server.url());
    request->on_data = [] { ++blocks_of_pass; };
    EXPECT_EQ(request->runToOutcome(), "200 end");
    EXPECT_EQ(request->body, std::string(chunks, 'x'));
    settle();
    EXPECT_LE(most_blocks, 512U);
}

/// A pause that was asked for too early meets a body that is there already: it is kept back, and
/// when the request refuses it on the resume, libcurl reports a success that is none.
TEST_F(Hooks, ALatePauseHoldsTheBodyAndAFailedResumeIsNoSuccess) {
    for (const char* outcome :
         {"200 end", "200 <Protocol failure> Failed writing received data to disk/application"}) {
        const auto request = hostRequest(origin("/bytes/2000?close"));
        if (outcome[4] == '<') request->on_data = [] { throw std::runtime_error("enough"); };
        performs_a_pass = 30;
        whileEngineIsHeld([&] {
            request->runRequest();
            request->pauseRequest();
        });
        performs_a_pass = 1;
        EXPECT_EQ(request->received + static_cast<std::size_t>(request->outcomes), 0U);
        request->resumeRequest();
        EXPECT_EQ(request->outcome(), outcome);
        EXPECT_EQ(request->received, 2000U);
    }
}

TEST_F(HooksDeathTest, ARefusedHandleStopsTheProcessWithItsReason) {
    const auto refused = [&] {
        refuse = true;
        outcomeOf("http://127.0.0.1:1/");
    };
    EXPECT_DEATH(refused(), "refuses a transfer: Out of memory");
}

/// An engine class of the host's own: runs `step` with each handle that is set up.
class OwnEngine : public Engine {
public:
    using Engine::Engine;
    OwnEngine(const OwnEngine&) = delete;
    OwnEngine& operator=(const OwnEngine&) = delete;
    ~OwnEngine() override { stop(); }
    using Engine::deleteCookiesFromRequest;
    using Engine::getCurrentXAuthCookieDomainFromRequest;
    void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request> /*request*/) override {
        if (step) step(curl);
    }
    std::function<void(void* curl)> step;
};

class EdgeRequest : public HostRequest {
public:
    EdgeRequest() : HostRequest(Get(origin("/hello"))) {}
    std::string xauthCookieDomain() const override { return domain; }
    void reportDownloadProgress(unsigned total, unsigned now) override {
        reports += std::to_string(now) + "/" + std::to_string(total) + " ";
    }
    std::string domain;
    std::string reports;
};

void addCookies(void* curl) {
    for (const char* cookie :
         {"#HttpOnly_a.invalid\tFALSE\t/\tFALSE\t0\thidden\tv",
          "other.invalid\tFALSE\t/\tFALSE\t0\tX-Auth\tother",
          ".a.invalid\tTRUE\t/\tFALSE\t0\tx-auth\tlower",
          "A.invalid\tFALSE\t/p\tFALSE\t0\tX-Auth\tmine", "a.invalid\tFALSE\t/\tTRUE\t0\tother\t\t",
          "127.0.0.1\tFALSE\t/\tFALSE\t0\tX-Auth\tset"}) {
        curl_easy_setopt(curl, CURLOPT_COOKIELIST, cookie);
    }
}

TEST_F(Cookies, OfTheHostAreFoundAndDeletedAndNoOthers) {
    auto& own = startDerived<OwnEngine>();
    std::string found;
    const auto look = [&](void* curl, const char* url) {
        found += own.getCurrentXAuthCookieDomainFromRequest(curl, url) + "|";
    };
    own.step = [&](void* curl) {
        look(curl, "http://b.a.invalid/");
        addCookies(curl);
        look(curl, "http://b.a.invalid/");
        own.deleteCookiesFromRequest(curl, "http://b.a.invalid/");
        look(curl, "http://b.a.invalid/");
        curl_slist* left = nullptr;
        curl_easy_getinfo(curl, CURLINFO_COOKIELIST, &left);
        for (const auto* cookie = left; cookie != nullptr; cookie = cookie->next) {
            found += std::string(cookie->data).substr(0, 9) + "|";
        }
        curl_slist_free_all(left);
    };
    hostRequest(origin("/hello"))->runToOutcome();
    own.step = {};
    EXPECT_EQ(found, "|A.invalid||127.0.0.1|other.inv|");
    EXPECT_GE(logger.lines("deleteCookiesFromRequest: deleting cookie").size(), 3U);
}

/// All findings are logged and fail nothing.
TEST_F(Cookies, XAuthFindings) {
    const std::string url = "'" + origin("/hello") + "'";
    const std::string missing =
        "critical: Request " + url + " is missing required X-Auth cookie on outgoing request|";
    const std::string set = "error: Set-Cookie for request: " + url + "|error: Domain in X-Auth ";
    struct Row {
        bool required, check, there;
        const char* domain;
        const char* expected;
        std::string messages;
    };
    for (const Row& row :
         {Row{true, false, false, "c.d", "a.b", missing}, Row{true, false, true, "c.d", "a.b", ""},
          Row{false, true, false, "c.d", "a.b", set + "'c.d' does not match expected 'a.b'|"},
          Row{false, true, false, "c.d", "x.c.d", ""}, Row{false, true, false, "", "a.b", ""},
          Row{true, true, false, "c.d", "c.d",
              missing + set + "'c.d' is different from previous ''|"},
          Row{true, true, true, "127.0.0.1", "127.0.0.1", ""}}) {
        auto& own = startDerived<OwnEngine>();
        own.step = [&](void* curl) {
            if (row.there) addCookies(curl);
        };
        const auto request = std::make_shared<EdgeRequest>();
        request->domain = row.domain;
        request->config.xauth_required = row.required;
        request->config.xauth_check_domain = row.check;
        request->config.xauth_expected_domain = row.expected;
        const std::size_t before = logger.lines().size();
        EXPECT_EQ(request->runToOutcome(), "200 end");
        std::string messages;
        const auto lines = logger.lines();
        for (std::size_t i = before; i < lines.size(); ++i) {
            if (lines[i][0] == 'c' || lines[i][0] == 'e') messages += lines[i] + "|";
        }
        EXPECT_EQ(messages, row.messages);
        own.step = {};
    }
}

TEST_F(Cookies, LinesAndHosts) {
    using namespace zel::http;
    for (const char* line : {"d\tF\t/\tF\t0\tn", "d\tF\t/\tF\t0\tn\tv\t", ""}) {
        EXPECT_FALSE(splitCookieLine(line)) << line;
    }
    EXPECT_TRUE(splitCookieLine("\t\t\t\t\t\t"));
    EXPECT_EQ(expiredCookieLine(*splitCookieLine("d\tF\t/\tF\t0\tn\tv"), 7), "d\tF\t/\tF\t7\tn\tv");
    EXPECT_TRUE(hostMatches("a.b.c", "b.c") && hostMatches("b.c", "B.C"));
    EXPECT_FALSE(hostMatches("b.c", ".b.c") || hostMatches("a.b.cc", "b.c"));
}

TEST_F(Handle, TellsProgressEveryThreeSecondsAndWhetherPayloadMayBeLogged) {
    auto& own = startDerived<OwnEngine>();
    std::string allowed;
    own.step = [&](void* curl) {
        for (const auto& [time, total] :
             {std::pair(2.9, 9), {3.5, 0}, {3.5, 9}, {5.9, 9}, {6.5, 9}}) {
            total_time = time;
            Engine::downloadProgress(curl, total, static_cast<curl_off_t>(time), 0, 0);
        }
        total_time = 9.1;
        Engine::downloadProgress(curl, curl_off_t{1} << 40U, 1, 0, 0);
        total_time = -1;
        allowed += Engine::allowsPayloadLogging(curl) ? "yes " : "no ";
    };
    const auto request = std::make_shared<EdgeRequest>();
    request->runToOutcome();
    EXPECT_EQ(request->reports, "3/9 6/9 1/4294967295 ");
    request->setAllowPayloadLogging(false);
    own.step = [&](void* curl) {
        for (void* handle : {curl, static_cast<void*>(nullptr)}) {
            allowed += Engine::allowsPayloadLogging(handle) ? "yes " : "no ";
        }
    };
    request->runRequest();
    waitFor("the second outcome", [&] { return request->outcomes == 2; });
    own.step = {};
    EXPECT_EQ(allowed, "yes no yes ");
}

}  // namespace
}  // namespace test
