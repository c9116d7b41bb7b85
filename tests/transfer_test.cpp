// What becomes of a transfer's handle: the hooks of the host, its cookies, its progress.

#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdarg>
#include <set>
#include <stdexcept>

#include "support/engine_test.h"
#include "zel_http/engine_hooks.h"

namespace {

/// What a transfer has taken, in seconds; negative for the truth.
double total_time = -1;
/// What libcurl reports of a transfer that has ended; `CURLE_OK` for the truth.
std::atomic<CURLcode> reported{CURLE_OK};

std::atomic<int> added{0};
std::atomic<int> attached{0};
std::atomic<bool> refuse{false};
/// The URL of every transfer, if not empty.
std::string instead;
std::atomic<bool> throws{false};
std::atomic<std::size_t> performs{0};
std::atomic<std::size_t> blocks_of_pass{0};
std::size_t most_blocks = 0;

}  // namespace

// (A variadic function must not end its list with an enumeration.)
extern "C" CURLcode interposedGetinfo(CURL* easy, int info, ...) asm("curl_easy_getinfo");
extern "C" CURLcode interposedGetinfo(CURL* easy, int info, ...) {
    using Getinfo = CURLcode (*)(CURL*, int, ...);
    static const auto next = reinterpret_cast<Getinfo>(dlsym(RTLD_NEXT, "curl_easy_getinfo"));
    std::va_list arguments;
    va_start(arguments, info);
    void* result = va_arg(arguments, void*);
    va_end(arguments);
    if (info != CURLINFO_TOTAL_TIME || total_time < 0) return next(easy, info, result);
    *static_cast<double*>(result) = total_time;
    return CURLE_OK;
}

extern "C" CURLMsg* curl_multi_info_read(CURLM* multi_handle, int* msgs_in_queue) {
    static const auto next = test::replaced(&curl_multi_info_read, "curl_multi_info_read");
    CURLMsg* message = next(multi_handle, msgs_in_queue);
    if (message != nullptr && reported != CURLE_OK) message->data.result = reported;
    return message;
}

void engine_request_added() {
    ++added;
    if (throws) throw std::runtime_error("no room");
}

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    ++attached;
    if (!instead.empty()) curl_easy_setopt(easy, CURLOPT_URL, instead.c_str());
    return refuse ? CURLM_OUT_OF_MEMORY : curl_multi_add_handle(multi, easy);
}

CURLMcode engine_curl_multi_perform(void* multi, int* running) {
    blocks_of_pass = 0;
    const CURLMcode result = curl_multi_perform(multi, running);
    most_blocks = std::max(most_blocks, blocks_of_pass.load());
    ++performs;
    return result;
}

namespace test {

using zel::http::Engine;

using Hooks = EngineTest;
using HooksDeathTest = EngineTest;
using Cookies = EngineTest;
using Handle = EngineTest;

TEST_F(Hooks, TheExecutablesDefinitionsAreCalled) {
    added = attached = 0;
    EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");
    EXPECT_EQ(added, 1);
    EXPECT_EQ(attached, 1);
    instead = origin("/status/204");
    EXPECT_EQ(outcomeOf(origin("/hello")), "204 ");
    instead.clear();
    // In every pass, those that find nothing but a wake-up too.
    std::set<std::uint64_t> unperformed;
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

TEST_F(HooksDeathTest, ARefusedHandleStopsTheProcessWithItsReason) {
    engine.reset();  // a child that the test forks would be without its thread
    const auto refused = [&] {
        startEngine();
        refuse = true;
        outcomeOf("http://127.0.0.1:1/");
    };
    EXPECT_DEATH(refused(), "refuses a transfer: Out of memory");
}

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
    for (const char* cookie : {"#HttpOnly_a.invalid\tFALSE\t/\tFALSE\t0\thidden\tv",
                               "other.invalid\tFALSE\t/\tFALSE\t0\tX-Auth\tother",
                               ".a.invalid\tTRUE\t/\tFALSE\t0\tx-auth\tlower",
                               "#HttpOnly_A.invalid\tFALSE\t/p\tFALSE\t0\tX-Auth\tmine",
                               "a.invalid\tFALSE\t/\tTRUE\t0\tother\t\t",
                               "127.0.0.1\tFALSE\t/\tFALSE\t0\tX-Auth\tset"}) {
        curl_easy_setopt(curl, CURLOPT_COOKIELIST, cookie);
    }
}

TEST_F(Cookies, OfTheHostAreFoundAndDeletedAndNoOthers) {
    std::string found;
    const auto step = [&](OwnEngine& own, void* curl) {
        const std::string url = "http://b.a.invalid/";
        addCookies(curl);
        found = own.getCurrentXAuthCookieDomainFromRequest(curl, url) + "|";
        own.deleteCookiesFromRequest(curl, url);
        found += own.getCurrentXAuthCookieDomainFromRequest(curl, url) + "|";
        curl_slist* left = nullptr;
        curl_easy_getinfo(curl, CURLINFO_COOKIELIST, &left);
        for (const auto* cookie = left; cookie != nullptr; cookie = cookie->next) {
            found += std::string(cookie->data).substr(0, 9) + "|";
        }
        curl_slist_free_all(left);
        for (const char* other : {"http://other.invalid/", "http://127.0.0.1/"}) {
            own.deleteCookiesFromRequest(curl, other);
        }
        found += own.getCurrentXAuthCookieDomainFromRequest(curl, "http://127.0.0.1/");
    };
    outcomeOn(step, *hostRequest(origin("/hello")));
    EXPECT_EQ(found, "A.invalid||127.0.0.1|other.inv|");
    EXPECT_GE(logger.lines("deleteCookiesFromRequest: deleting cookie").size(), 3U);
    const auto clean = std::make_shared<EdgeRequest>();
    clean->config.reset_state = clean->config.xauth_check_domain = true;
    outcomeOn([](auto&, void* curl) { addCookies(curl); }, *clean);
    EXPECT_EQ(clean->config.xauth_previous_domain, "");
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
          Row{false, true, true, "c.d", "a.b", set + "'c.d' does not match expected 'a.b'|"},
          Row{false, true, false, "c.d", "x.c.d", ""}, Row{false, true, false, "", "a.b", ""},
          Row{true, true, false, "c.d", "c.d",
              missing + set + "'c.d' is different from previous ''|"},
          Row{true, true, true, "127.0.0.1", "127.0.0.1", ""}}) {
        const auto request = std::make_shared<EdgeRequest>();
        request->domain = row.domain;
        request->config.xauth_required = row.required;
        request->config.xauth_check_domain = row.check;
        request->config.xauth_expected_domain = row.expected;
        const auto step = [&](auto&, void* curl) {
            if (row.there) addCookies(curl);
        };
        const std::size_t before = logger.lines().size();
        EXPECT_EQ(outcomeOn(step, *request), "200 end");
        EXPECT_EQ(request->config.xauth_previous_domain, row.there ? "127.0.0.1" : "");
        std::string messages;
        const auto lines = logger.lines();
        for (std::size_t i = before; i < lines.size(); ++i) {
            if (lines[i][0] == 'c' || lines[i][0] == 'e') messages += lines[i] + "|";
        }
        EXPECT_EQ(messages, row.messages);
    }
}

/// A server that refuses an upload may end the stream or the connection behind its answer.
TEST_F(Handle, HasAnAnswerThatCameWholeBeforeItsUploadFailed) {
    for (const auto& [code, target, answered] : {std::tuple(CURLE_SEND_ERROR, "/status/404", true),
                                                 {CURLE_HTTP2_STREAM, "/status/400", true},
                                                 {CURLE_HTTP2_STREAM, "/hello", false},
                                                 {CURLE_SEND_ERROR, "/status/404?chunked", false},
                                                 {CURLE_RECV_ERROR, "/status/404", false}}) {
        reported = code;
        EXPECT_EQ(outcomeOf(origin(target))[0] != '<', answered) << code << target;
        reported = CURLE_OK;
    }
}

TEST_F(Handle, TellsProgressEveryThreeSeconds) {
    const auto step = [](auto&, void* curl) {
        for (const auto& [time, total] :
             {std::pair(2.9, 9), {3.5, 0}, {3.5, 9}, {5.9, 9}, {6.5, 9}}) {
            total_time = time;
            Engine::downloadProgress(curl, total, static_cast<curl_off_t>(time), 0, 0);
        }
        total_time = 9.1;
        Engine::downloadProgress(curl, curl_off_t{1} << 40U, 1, 0, 0);
        total_time = -1;
    };
    for (int engines = 0; engines < 2; ++engines) {  // each counts anew
        const auto request = std::make_shared<EdgeRequest>();
        outcomeOn(step, *request);
        EXPECT_EQ(request->reports, "3/9 6/9 1/4294967295 ");
    }
}

TEST_F(Handle, TellsWhetherPayloadMayBeLogged) {
    std::string allowed;
    const auto step = [&](auto&, void* curl) {
        for (void* handle : {curl, static_cast<void*>(nullptr)}) {
            allowed += Engine::allowsPayloadLogging(handle) ? "yes " : "no ";
        }
    };
    for (const bool allow : {true, false}) {
        const auto request = hostRequest(origin("/hello"));
        request->setAllowPayloadLogging(allow);
        outcomeOn(step, *request);
    }
    EXPECT_EQ(allowed, "yes yes no yes ");
}

}  // namespace test
