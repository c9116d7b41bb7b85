// What the set-up asks of libcurl, option by option.

#include <gtest/gtest.h>

#include <limits>

#include "support/exchange.h"
#include "support/interposed_setopt.h"

namespace {

// Written on the engine thread, read once that has gone on.
std::string recorded;

std::string shown(CURL* easy, const curl_easyoption& option, void* pointer) {
    using zel::http::Engine;
    if (option.type == CURLOT_FUNCTION) {
        if (pointer == reinterpret_cast<void*>(&Engine::writeFunction)) return "writeFunction";
        if (pointer == reinterpret_cast<void*>(&Engine::writeHeader)) return "writeHeader";
        if (pointer == reinterpret_cast<void*>(&Engine::putReadFunc)) return "putReadFunc";
        return pointer == reinterpret_cast<void*>(&Engine::putSeekFunc) ? "putSeekFunc" : "unknown";
    }
    if (pointer == nullptr) return "null";
    if (pointer == easy) return "handle";
    return option.type == CURLOT_SLIST ? "list" : static_cast<const char*>(pointer);
}

}  // namespace

bool test::passes(CURL* easy, const curl_easyoption& option, long number, void* pointer) {
    // What guards against faults comes behind it all, and has tests of its own.
    if (option.id == CURLOPT_ERRORBUFFER) recorded += "end";
    if (recorded.find("end") != std::string::npos) return true;
    const bool is_long = option.type == CURLOT_LONG || option.type == CURLOT_VALUES;
    recorded += std::string(option.name) + "=" +
                (is_long ? std::to_string(number) : shown(easy, option, pointer)) + " ";
    return true;
}

namespace test {
namespace {

using zel::http::Method;
using zel::http::RequestConfig;

TEST(Setup, OptionsInTheirOrder) {
    const std::string url = "http://127.0.0.1:1/";
    const std::string first =
        "VERBOSE=0 PROTOCOLS=3 URL=" + url +
        " WRITEFUNCTION=writeFunction WRITEDATA=handle HEADERFUNCTION=writeHeader "
        "HEADERDATA=handle FOLLOWLOCATION=1 MAXREDIRS=5 NOPROGRESS=1 ";
    const std::string list = "HTTPHEADER=list ";
    const std::string put =
        "READFUNCTION=putReadFunc UPLOAD=1 READDATA=handle INFILESIZE=4 "
        "SEEKFUNCTION=putSeekFunc SEEKDATA=handle ";
    const std::string basic = std::to_string(static_cast<long>(CURLAUTH_BASIC | CURLAUTH_ONLY));
    const std::string any = std::to_string(static_cast<long>(CURLAUTH_ANY));
    const std::string most = std::to_string(std::numeric_limits<long>::max());
    struct Row {
        std::string line;
        std::string options;
        std::function<void(RequestConfig&)> change;
    };
    const std::vector<Row> rows = {
        {"-X GET", list, [](auto& c) { c.body = "ignored"; }},
        {"", list, [](auto& c) { c.method = Method::GET_SYNC; }},
        {"", list, [](auto& c) { c.method = static_cast<Method>(77); }},
        {"-d abc", "POSTFIELDSIZE=3 COPYPOSTFIELDS=abc " + list, {}},
        {"-X POST", "POSTFIELDSIZE=0 COPYPOSTFIELDS= " + list, {}},
        {"-X PUT -d abcd", put + list, {}},
        {"-X DELETE", "CUSTOMREQUEST=DELETE " + list, {}},
        {"-X PATCH -d ab", "CUSTOMREQUEST=PATCH POSTFIELDSIZE=2 COPYPOSTFIELDS=ab " + list, {}},
        {"--timeout 1.5 --max-size 0 -u u:p --basic",
         "NOSIGNAL=1 TIMEOUT_MS=1500 MAXFILESIZE=0 USERNAME=u PASSWORD=p HTTPAUTH=" + basic + " " +
             list,
         {}},
        {"-u u:p", "USERNAME=u PASSWORD=p HTTPAUTH=" + any + " " + list, {}},
        {"", list, [](auto& c) { c.password = "p"; }},
        {"", "NOSIGNAL=1 TIMEOUT_MS=1 " + list,
         [](auto& c) { c.timeout = std::chrono::milliseconds(-5); }},
        {"", "NOSIGNAL=1 TIMEOUT_MS=" + most + " " + list,
         [](auto& c) { c.timeout = std::chrono::milliseconds::max(); }},
        {"", list + "COOKIESESSION=1 FRESH_CONNECT=1 DNS_CACHE_TIMEOUT=0 ",
         [](auto& c) { c.reset_state = true; }},
    };
    Exchange exchange;
    for (const Row& row : rows) {
        RequestConfig config = requestOf(url + " " + row.line);
        if (row.change) row.change(config);
        recorded.clear();
        exchange.perform(config);
        EXPECT_EQ(recorded, first + row.options + "end") << row.line;
    }
    EXPECT_EQ(exchange.logger.lines("1: HTTP: Outgoing => PUT " + url + "\n").size(), 1U);
}

}  // namespace
}  // namespace test
