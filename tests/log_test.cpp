// The log lines of an exchange, exact, for every payload setting.

#include <gtest/gtest.h>

#include <algorithm>

#include "support/exchange.h"
#include "zel_http/encoding.h"

namespace test {
namespace {

using loopback::RecordingLogger;
using zel::http::LogFilter;
using zel::http::RequestConfig;

class LogTest : public testing::Test {
protected:
    /// The client's lines of one exchange that hold `part`.
    std::vector<std::string> linesOf(int level, const RequestConfig& config,
                                     const LogFilter& filter, const std::string& part = {}) {
        RecordingLogger logger(level);
        Exchange exchange;
        exchange.client = zel::http::createClient(exchange.executor, logger);
        exchange.filter = filter;
        exchange.perform(config);
        EXPECT_TRUE(exchange.logger.lines("secret").empty());  // the engine's lines
        return logger.lines(part);
    }
    RequestConfig echo(const std::string& body, const std::string& target = "/echo") {
        RequestConfig config = requestOf(origin.url(target) + " -d " + body);
        config.headers["Content-Type"] = "application/json; charset=utf-8";
        return config;
    }

    const loopback::Origin origin;
};

using Lines = std::vector<std::string>;

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
    const std::vector<Row> rows = {
        {LogFilter::Full, 8, "/status/201", {request, fine}},
        {LogFilter::None, 9, "/status/500", {}},
        {LogFilter::RequestBodies, 8, "/status/201", {request}},
        {LogFilter::RequestBodies, 8, "/status/500", {request, failed}},
        {LogFilter::RequestBodies, 9, "/status/201", {request, fine}},
        {LogFilter::Verbose, 8, "/status/201", {}},
        {LogFilter::Verbose, 8, "/status/500", {failed}},
        {static_cast<LogFilter::Payload>(9), 9, "/status/201", {request, fine}},
    };
    for (const Row& row : rows) {
        LogFilter filter;
        filter.payload = row.payload;
        EXPECT_EQ(linesOf(row.level, echo("{}", row.target), filter).empty(),
                  row.payload == LogFilter::None);
        const Lines lines = linesOf(row.level, echo("{}", row.target), filter, " Body");
        EXPECT_EQ(lines, row.bodies) << static_cast<int>(row.payload) << row.target << row.level;
    }
}

TEST_F(LogTest, LinesAreExactAndMasked) {
    RequestConfig config = echo("password=1", "/redirect/1?status=307");
    config.user = "user";
    config.password = "secret";
    config.headers = {{"Content-Type", "application/x-www-form-urlencoded"},
                      {"TrackingId", "t"},
                      {"X-Key", "secret"}};
    LogFilter filter;
    filter.url_filter = [](const std::string& url) { return url.substr(0, 7) + "..."; };
    filter.request_body_filter = [](const std::string&) { return "masked"; };
    filter.response_body_filter = filter.request_body_filter;
    filter.headers_filter = [](zel::http::HeaderMap headers) {
        for (const char* name : {"X-Key", "Content-Type"}) headers.erase(name);
        return headers;
    };
    for (int level = 1; level <= 9; ++level) {
        Lines lines = linesOf(level, config, filter);
        for (const auto& line : lines) {
            for (const char* secret : {"secret", "password", "user"}) {
                EXPECT_EQ(line.find(secret), std::string::npos) << line;
            }
        }
        Lines expected = {"1: HTTP(1) => POST http://...",
                          "1:  TrackingId: t",
                          "1:  Body: masked",
                          "1:  Body: masked",
                          "1: HTTP(1) <= 200",
                          "1:  Location: /echo?status=307"};
        std::sort(expected.begin(), expected.end());
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const auto& line) { return line[0] == '6'; }),
                    lines.end());
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(lines, expected) << level;
    }
    LogFilter none;
    none.payload = LogFilter::None;
    EXPECT_TRUE(linesOf(9, requestOf("ftp://h/"), none).empty());
    {
        Exchange exchange;
        const auto unwanted = [](auto, const auto&) { ADD_FAILURE(); };
        exchange.client->cancel_request(
            exchange.client->start_request(config, none, unwanted, unwanted));
        EXPECT_TRUE(exchange.logger.lines("HTTP(").empty());
    }
    RequestConfig forged = requestOf("");
    forged.url = "http://h/\r\nHTTP(7) <= 200";
    forged.headers = {{"Warning", "a\x1b[2J\x7f\xC3\xA4"}};
    EXPECT_EQ(linesOf(1, forged, {}),
              (Lines{R"(1: HTTP(1) => GET http://h/\x0d\x0aHTTP(7) <= 200)",
                     "1:  Warning: a\\x1b[2J\\x7f\xC3\xA4",
                     "info: HTTP(1) Error: <Invalid URL> (URL using bad/illegal format or "
                     "missing URL)"}));
}

TEST_F(LogTest, BodiesInChunks) {
    struct Row {
        std::size_t length;
        int level;
        std::vector<std::pair<std::string, std::size_t>> chunks;  // label and bytes
    };
    Row many{300000, 9, {}};
    for (int i = 1; i <= 32; ++i) many.chunks.emplace_back("[" + std::to_string(i) + "/38]", 8000);
    const std::vector<Row> rows = {
        {0, 8, {{"", 0}}},
        {8000, 8, {{"", 8000}}},
        {8001, 8, {{"[1/2]", 8000}, {"[2/2]", 1}}},
        {100000, 8, {{"[1/13]", 8000}, {"[2/13]", 8000}, {"[3/13]", 8000}}},
        many,
    };
    for (const Row& row : rows) {
        RequestConfig config = echo("x", "/hello");
        config.body.assign(row.length, 'b');
        Lines expected;
        for (const auto& [label, bytes] : row.chunks) {
            expected.push_back("1:  Body" + label + ": " + std::string(bytes, 'b'));
        }
        EXPECT_EQ(linesOf(row.level, config, {}, "1:  Body"), expected) << row.length;
    }
}

TEST(Encoding, EveryByteAgainstTheRule) {
    const std::string kept =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.!~*'()";
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const std::string escaped = fmt::format("%{:02X}", byte);
        const bool stays = kept.find(text) != std::string::npos;
        const bool delimits = std::string(";,/?:@&=+$#").find(text) != std::string::npos;
        EXPECT_EQ(encodeURIComponent(text), stays ? text : escaped);
        EXPECT_EQ(encodeURI(text), stays || delimits ? text : escaped);
    }
    EXPECT_EQ(encodeURI("a b&c=d/é"), "a%20b&c=d/%C3%A9");
    zel::http::QueryEncoder query;
    EXPECT_EQ(query.getQueryString(), "");
    query.addParameter("", "");
    query.addParameter("q", "x y");
    query.addParameter("n", -5);
    EXPECT_EQ(query.getQueryString(), "=&q=x%20y&n=-5");
}

}  // namespace
}  // namespace test
