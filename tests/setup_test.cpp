// What the set-up asks of libcurl, option by option, and what of it arrives at a server.

#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <limits>
#include <map>
#include <mutex>

#include "support/probe_request.h"
#include "support/scripted_server.h"

namespace {

std::mutex recorded_mutex;
std::string recorded;

std::string functionName(void* function) {
    using zel::http::Engine;
    static const std::map<void*, const char*> names = {
        {reinterpret_cast<void*>(&Engine::writeFunction), "writeFunction"},
        {reinterpret_cast<void*>(&Engine::writeHeader), "writeHeader"},
        {reinterpret_cast<void*>(&Engine::putReadFunc), "putReadFunc"},
        {reinterpret_cast<void*>(&Engine::putSeekFunc), "putSeekFunc"},
    };
    const auto found = names.find(function);
    return found == names.end() ? "unknown" : found->second;
}

std::string shown(CURL* easy, const curl_easyoption& option, void* pointer) {
    if (option.type == CURLOT_FUNCTION) return functionName(pointer);
    if (pointer == nullptr) return "null";
    if (pointer == easy) return "handle";
    if (option.type == CURLOT_SLIST) return "list";
    return static_cast<const char*>(pointer);
}

}  // namespace

// In the library's place: records each option by name and value, then hands it on.
// (The identifier is an int here: a variadic function must not end its list with an enumeration.)
extern "C" CURLcode recordedSetopt(CURL* easy, int number, ...) asm("curl_easy_setopt");
extern "C" CURLcode recordedSetopt(CURL* easy, int number, ...) {
    static const auto next = reinterpret_cast<CURLcode (*)(CURL*, CURLoption, ...)>(
        dlsym(RTLD_NEXT, "curl_easy_setopt"));
    const auto id = static_cast<CURLoption>(number);
    const curl_easyoption* option = curl_easy_option_by_id(id);
    std::va_list arguments;
    va_start(arguments, number);
    CURLcode result = CURLE_UNKNOWN_OPTION;
    std::string value;
    if (option->type == CURLOT_LONG || option->type == CURLOT_VALUES) {
        const long argument = va_arg(arguments, long);
        value = std::to_string(argument);
        result = next(easy, id, argument);
    } else {
        void* pointer = va_arg(arguments, void*);
        value = shown(easy, *option, pointer);
        result = next(easy, id, pointer);
    }
    va_end(arguments);
    const std::lock_guard lock(recorded_mutex);
    recorded += std::string(option->name) + "=" + value + " ";
    return result;
}

namespace test {
namespace {

using zel::http::AuthMethod;
using zel::http::Method;
using zel::http::RequestConfig;
using namespace std::chrono_literals;

constexpr char plain_reply[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

std::string optionsOf(Host& host, const std::shared_ptr<ProbeRequest>& request) {
    {
        const std::lock_guard lock(recorded_mutex);
        recorded.clear();
    }
    request->runRequest();
    host.settle();
    request->tryToCancelRequest();
    host.settle();
    const std::lock_guard lock(recorded_mutex);
    return recorded;
}

TEST(Setup, OptionsInTheirOrder) {
    const std::string first =
        "VERBOSE=0 PROTOCOLS=3 URL=http://127.0.0.1:1/ WRITEFUNCTION=writeFunction "
        "WRITEDATA=handle HEADERFUNCTION=writeHeader HEADERDATA=handle FOLLOWLOCATION=1 "
        "MAXREDIRS=5 NOPROGRESS=1 ";
    const std::string last = "QUICK_EXIT=1 ";
    const auto auth = [](unsigned long mask) {
        return "USERNAME=u PASSWORD=p HTTPAUTH=" + std::to_string(static_cast<long>(mask)) + " ";
    };
    const auto limit = [](long milliseconds) {
        return "NOSIGNAL=1 TIMEOUT_MS=" + std::to_string(milliseconds) + " ";
    };
    struct Row {
        const char* what;
        std::function<void(RequestConfig&)> change;
        std::string options;
    };
    const std::string headers = "HTTPHEADER=list ";
    const std::vector<Row> rows = {
        {"GET", [](auto& c) { c.body = "ignored"; }, headers},
        {"GET_SYNC", [](auto& c) { c.method = Method::GET_SYNC; }, headers},
        {"no such method", [](auto& c) { c.method = static_cast<Method>(77); }, headers},
        {"POST",
         [](auto& c) {
             c.method = Method::POST;
             c.body = "abc";
         },
         "POSTFIELDSIZE=3 COPYPOSTFIELDS=abc " + headers},
        {"empty POST", [](auto& c) { c.method = Method::POST; },
         "POSTFIELDSIZE=0 COPYPOSTFIELDS= " + headers},
        {"PUT",
         [](auto& c) {
             c.method = Method::PUT;
             c.body = "abcd";
         },
         "READFUNCTION=putReadFunc UPLOAD=1 READDATA=handle INFILESIZE=4 "
         "SEEKFUNCTION=putSeekFunc SEEKDATA=handle " +
             headers},
        {"DELETE", [](auto& c) { c.method = Method::DELETE; }, "CUSTOMREQUEST=DELETE " + headers},
        {"PATCH",
         [](auto& c) {
             c.method = Method::PATCH;
             c.body = "ab";
         },
         "CUSTOMREQUEST=PATCH POSTFIELDSIZE=2 COPYPOSTFIELDS=ab " + headers},
        {"limits and Basic",
         [](auto& c) {
             c.timeout = 1500ms;
             c.max_download_size = 0;
             c.user = "u";
             c.password = "p";
             c.auth_method = AuthMethod::BASIC;
         },
         limit(1500) + "MAXFILESIZE=0 " + auth(CURLAUTH_BASIC | CURLAUTH_ONLY) + headers},
        {"any authentication",
         [](auto& c) {
             c.user = "u";
             c.password = "p";
             c.auth_method = static_cast<AuthMethod>(5);
         },
         auth(CURLAUTH_ANY) + headers},
        {"password alone", [](auto& c) { c.password = "p"; }, headers},
        {"negative limit", [](auto& c) { c.timeout = -5ms; }, limit(1) + headers},
        {"endless limit", [](auto& c) { c.timeout = std::chrono::milliseconds::max(); },
         limit(std::numeric_limits<long>::max()) + headers},
        {"clean state", [](auto& c) { c.reset_state = true; },
         headers + "COOKIESESSION=1 FRESH_CONNECT=1 DNS_CACHE_TIMEOUT=0 "},
    };
    Host host;
    for (const Row& row : rows) {
        const auto request = probe("http://127.0.0.1:1/");
        row.change(request->config);
        EXPECT_EQ(optionsOf(host, request), first + row.options + last) << row.what;
    }
}

TEST(Setup, TheConfigurationIsLoggedAtLevelOneOnly) {
    for (const int level : {0, 1}) {
        RecordingLogger logger(level);
        zel::http::Engine engine([](const auto& closure) { closure(); }, &logger);
        probe("http://127.0.0.1:1/")->runToOutcome();
        const auto lines = logger.lines("HTTP: Outgoing => GET http://127.0.0.1:1/\n");
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(level));
        if (level == 1) {
            EXPECT_EQ(lines[0].rfind("1: HTTP: Outgoing", 0), 0U);
        }
    }
}

TEST(Setup, RequestsOnTheWire) {
    using Headers = zel::http::HeaderMap;
    const std::string agent = "User-Agent: Velto/Dunmoreline\r\n";
    const std::string charset = "Accept-Charset: ISO-8859-1,utf-8\r\n";
    const std::string zeros("a\0b\0", 4);
    struct Row {
        Method method;
        Headers headers;
        std::string body;
        std::string line;
        std::string rest;
    };
    const std::vector<Row> rows = {
        {Method::GET, {}, "unsent", "GET", agent + charset + "\r\n"},
        {Method::GET, {{"X-A", "b: c"}}, "", "GET", "X-A: b: c\r\n" + agent + charset + "\r\n"},
        {Method::GET,
         {{"uSER-aGENT", "mine"}},
         "",
         "GET",
         "uSER-aGENT: mine\r\n" + charset + "\r\n"},
        {Method::GET,
         {{"Accept-Charset", "x"}},
         "",
         "GET",
         "Accept-Charset: x\r\n" + agent + charset + "\r\n"},
        {Method::POST,
         {{"Content-Type", "a/b"}},
         zeros,
         "POST",
         "Content-Type: a/b\r\n" + agent + charset + "Content-Length: 4\r\n\r\n" + zeros},
        {Method::POST,
         {{"Content-Type", "a/b"}},
         "",
         "POST",
         "Content-Type: a/b\r\n" + agent + charset + "Content-Length: 0\r\n\r\n"},
        {Method::PUT, {}, zeros, "PUT", agent + charset + "Content-Length: 4\r\n\r\n" + zeros},
        {Method::PUT, {}, "", "PUT", agent + charset + "Content-Length: 0\r\n\r\n"},
        {Method::DELETE, {}, "unsent", "DELETE", agent + charset + "\r\n"},
        {Method::PATCH,
         {{"Content-Type", "a/b"}},
         "xy",
         "PATCH",
         "Content-Type: a/b\r\n" + agent + charset + "Content-Length: 2\r\n\r\nxy"},
        {Method::GET, {{"X-A", "b\r\nX-Evil: 1"}}, "", "GET", agent + charset + "\r\n"},
        {Method::GET, {{"X-A: 1\r\nX-Evil", "b"}}, "", "GET", agent + charset + "\r\n"},
        {Method::GET, {{"X-A", std::string("b\0c", 3)}}, "", "GET", agent + charset + "\r\n"},
    };
    Host host;
    for (const Row& row : rows) {
        const bool sends = row.method != Method::GET && row.method != Method::DELETE;
        ScriptedServer server(plain_reply, sends ? row.body.size() : 0);
        const auto request = probe(server.url("/p?q"), row.method, row.body);
        request->config.headers = row.headers;
        EXPECT_EQ(request->runToOutcome(), "200 end");
        const std::string host_line = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
        EXPECT_EQ(server.requests().at(0),
                  row.line + " /p?q HTTP/1.1\r\n" + host_line + "Accept: */*\r\n" + row.rest);
    }
    const auto reports = host.logger.lines("is left out");
    ASSERT_EQ(reports.size(), 3U);
    EXPECT_EQ(reports[1],
              "error: Engine::addHeadersToRequest: header 'X-A: 1??X-Evil' contains "
              "CR, LF or NUL and is left out");
}

}  // namespace
}  // namespace test
