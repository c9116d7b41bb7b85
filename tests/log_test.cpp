// The log lines of an exchange, exact, for every payload setting.

#include <algorithm>

#include "support/engine_test.h"

namespace test {

using zel::http::LogFilter;
using Lines = std::vector<std::string>;

class LogTest : public EngineTest {
protected:
    /// The client's lines of one exchange that hold `part`.
    Lines linesOf(int level, const RequestConfig& config, const LogFilter& filter,
                  const std::string& part = {}) {
        RecordingLogger own(level);
        const auto before = std::exchange(client, zel::http::createClient(executor, own));
        outcomeOf(config, filter);
        client = before;
        return own.lines(part);
    }
    static Get post(const std::string& target, const std::string& body) {
        return Get(origin(target))
            .sends(Method::POST, body)
            .header("Content-Type", "application/json; charset=utf-8");
    }
};

TEST_F(LogTest, PayloadByStatusAndLevel) {
    const std::string request = "1:  Body: {}";
    const std::string failed = "1:  Body: status 500\n";
    const std::string fine = "1:  Body: status 201\n";
    struct Row {
        LogFilter::Payload payload;
        int level;
        const char* target;
        Lines bodies;
    };
    const Row rows[] = {
        {LogFilter::Full, 8, "/status/201", {request, fine}},
        {LogFilter::None, 9, "/status/500", {}},
        {LogFilter::RequestBodies, 8, "/status/201", {request}},
        {LogFilter::RequestBodies, 8, "/status/500", {request, failed}},
        {LogFilter::RequestBodies, 9, "/status/201", {request, fine}},
        {LogFilter::Verbose, 8, "/status/201", {}},
        {LogFilter::Verbose, 8, "/status/500", {failed}},
        {LogFilter::Verbose, 8, "/status/300", {"1:  Body: status 300\n"}},
        {static_cast<LogFilter::Payload>(9), 9, "/status/201", {request, fine}},
    };
    for (const Row& row : rows) {
        LogFilter filter;
        filter.payload = row.payload;
        EXPECT_EQ(linesOf(row.level, post(row.target, "{}"), filter, " Body"), row.bodies)
            << static_cast<int>(row.payload) << row.target << row.level;
    }
}

TEST_F(LogTest, LinesAreExactAndMasked) {
    Get config(origin("/redirect/1?status=307"));
    config.sends(Method::POST, "password=1").login("user", "secret");
    config.headers = {{"Content-Type", "application/x-www-form-urlencoded"},
                      {"TrackingId", "t"},
                      {"X-Key", "secret"}};
    LogFilter filter;
    filter.url_filter = [](const std::string& url) { return url.substr(0, 7) + "..."; };
    filter.request_body_filter = [](const std::string&) { return "masked"; };
    filter.response_body_filter = [](const std::string&) { return "masked too"; };
    filter.headers_filter = [](zel::http::HeaderMap headers) {
        for (const char* name : {"X-Key", "Content-Type"}) headers.erase(name);
        return headers;
    };
    for (const int level : {1, 6, 9}) {
        Lines lines = linesOf(level, config, filter);
        const auto other_header = [](const auto& line) { return line[0] == '6'; };
        EXPECT_EQ(std::any_of(lines.begin(), lines.end(), other_header), level >= 6);
        lines.erase(std::remove_if(lines.begin(), lines.end(), other_header), lines.end());
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(lines, (Lines{"1:  Body: masked", "1:  Body: masked too",
                                "1:  Location: /echo?status=307", "1:  TrackingId: t",
                                "1: HTTP(1) <= 200", "1: HTTP(1) => POST http://..."}));
    }
    // Without a line, a cancelled and a failed request too.
    LogFilter none;
    none.payload = LogFilter::None;
    EXPECT_TRUE(linesOf(9, Get("ftp://h/"), none).empty());
    EXPECT_TRUE(linesOf(9, post("/status/500", "{}"), none).empty());
    const auto unwanted = [](auto, const auto&) { ADD_FAILURE(); };
    client->cancel_request(client->start_request(config, none, unwanted, unwanted));
    EXPECT_TRUE(logger.lines("HTTP(").empty());
    // A filter runs although no line is written.
    int calls = 0;
    LogFilter only;
    only.response_body_filter = [&](const auto& text) { return ++calls, text; };
    EXPECT_TRUE(linesOf(0, post("/status/500", "{}"), only).empty());
    EXPECT_EQ(calls, 1);
    // Nobody's text begins a line of its own.
    Get forged("http://h/\r\nHTTP(7) <= 200");
    forged.header("X-\x1b", "a\x1b[2J\x7f\xC3\xA4");
    EXPECT_EQ(linesOf(6, forged, {}),
              (Lines{R"(1: HTTP(1) => GET http://h/\x0d\x0aHTTP(7) <= 200)",
                     "6:  X-\\x1b: a\\x1b[2J\\x7f\xC3\xA4",
                     "info: HTTP(1) Error: <Invalid URL> (URL using bad/illegal format or missing "
                     "URL)"}));
}

TEST_F(LogTest, BodiesInChunks) {
    std::vector<std::pair<std::string, std::size_t>> many;  // label and bytes
    for (int i = 1; i <= 32; ++i) many.emplace_back("[" + std::to_string(i) + "/38]", 8000);
    const std::tuple<std::size_t, int, decltype(many)> rows[] = {
        {0, 8, {{"", 0}}},
        {8000, 8, {{"", 8000}}},
        {8001, 8, {{"[1/2]", 8000}, {"[2/2]", 1}}},
        {100000, 8, {{"[1/13]", 8000}, {"[2/13]", 8000}, {"[3/13]", 8000}}},
        {300000, 9, many}};
    for (const auto& [length, level, chunks] : rows) {
        Lines expected;
        for (const auto& [label, bytes] : chunks) {
            expected.push_back("1:  Body" + label + ": " + std::string(bytes, 'b'));
        }
        const Get config = post("/hello", std::string(length, 'b'));
        EXPECT_EQ(linesOf(level, config, {}, "1:  Body"), expected) << length;
    }
}

}  // namespace test
