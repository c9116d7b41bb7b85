// Whole exchanges: a request, and the outcome that its caller sees.

#include <curl/curl.h>

#include "support/engine_test.h"

namespace test {

using Exchange = EngineTest;

struct Row {
    RequestConfig request;
    std::string outcome;
};

TEST_F(Exchange, OverADecentServer) {
    const auto at = [](const std::string& target) { return Get(origin(target)); };
    const std::string large = bodyOf(300000);  // many buffers
    const std::string too_large = "<Protocol failure> Maximum file size exceeded";
    const std::string secret = "secret:word";
    const Row rows[] = {
        {at("/hello"), "200 hello"},
        {at("/hello").sends(static_cast<Method>(77), "unsent"), "200 hello"},
        {Get("HTTP" + origin("/x/../hello#y").substr(4)), "200 hello"},
        {Get(origin("/hello").substr(7)), "200 hello"},  // without a scheme
        {at("/status/404"), "404 status 404"},           // answers, not errors
        {at("/status/401"), "401 status 401"},
        {at("/status/304"), "304 "},
        {at("/echo").sends(Method::POST, large), "200 300000 bytes hop=end"},
        {at("/echo").sends(Method::PUT, large), "200 300000 bytes hop=end"},
        {at("/echo").sends(Method::PATCH, large), "200 300000 bytes hop=end"},
        // Of a header that several responses carry the first counts; a body is sent again.
        {at("/redirect/5"), "200  hop=5"},
        {at("/redirect/6"), "<Protocol failure> Number of redirects hit maximum amount"},
        {at("/redirect/2?status=307").sends(Method::PUT, large), "200 300000 bytes hop=2"},
        {at("/private").sends(Method::PUT, large).login("device", secret),
         "200 welcome, PUT of 300000 bytes hop=challenge"},
        {at("/private").login("device", "wrong"), "401 who are you? hop=challenge"},
        {at("/silence").within(100), "<Operation timed out> Timeout was reached"},
        {at("/silence").within(-5), "<Operation timed out> Timeout was reached"},
        // A declared length is refused at once, any other where it goes too far.
        {at("/bytes/100000").atMost(99999), too_large},
        {at("/bytes/100000?chunked").atMost(99999), failed_writing},
        {at("/bytes/100000?close").atMost(99999), failed_writing},
        {at("/bytes/100000").atMost(100000), "200 100000 bytes"},
        {at("/bytes/100000?chunked").atMost(100000), "200 100000 bytes"},
        {at("/bytes/100000?close").atMost(100001), "200 100000 bytes"},
        {at("/bytes/100000").atMost(0), failed_writing},  // to libcurl 0 is no limit
        {at("/bytes/40000000"), "200 40000000 bytes"},
    };
    for (const Row& row : rows) EXPECT_EQ(outcomeOf(row.request), row.outcome) << row.request;
    // One connection for all requests that leave it whole, and another for a clean start.
    for (const bool reset : {false, true}) {
        const auto opened = engine->statistics().connections_opened;
        EXPECT_EQ(outcomeOf(at("/hello").set(&RequestConfig::reset_state, reset)), "200 hello");
        EXPECT_EQ(engine->statistics().connections_opened, opened + (reset ? 1 : 0));
    }
    // Also the length of a redirect; but to a host's own request undeclared ones have no limit.
    const ScriptedServer hop(
        "HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 9\r\n\r\nnine more");
    EXPECT_EQ(outcomeOf(Get(hop.url()).atMost(8)), too_large);
    EXPECT_EQ(hostRequest(at("/bytes/9?chunked").atMost(8))->runToOutcome(), "200 end");
}

TEST_F(Exchange, WithoutAServer) {
    const std::string bad_url = "<Invalid URL> URL using bad/illegal format or missing URL";
    const std::string closed = "http://127.0.0.1:" + std::to_string(closedPort()) + "/";
    const Row rows[] = {
        {Get(""), bad_url},
        {Get("http://"), bad_url},
        {Get("http://h:99999/"), bad_url},
        {Get("ftp://127.0.0.1/"), "<Invalid URL> Unsupported protocol"},
        {Get("file:///etc/passwd"), "<Invalid URL> Unsupported protocol"},
        {Get("http://no-such-host.invalid/"),
         "<DNS Lookup failure> " + std::string(curl_easy_strerror(CURLE_COULDNT_RESOLVE_HOST))},
        {Get(closed), "<Failed to establish connection> " +
                          std::string(curl_easy_strerror(CURLE_COULDNT_CONNECT))},
    };
    for (const Row& row : rows) EXPECT_EQ(outcomeOf(row.request), row.outcome) << row.request;
    EXPECT_EQ(logger.lines("error: HTTPClientCurl error (").size(), std::size(rows));
}

/// The bytes at the server, behind the lines that never differ.
TEST_F(Exchange, RequestsOnTheWire) {
    const std::string agent = "User-Agent: Velto/Dunmoreline\r\n";
    const std::string charset = "Accept-Charset: ISO-8859-1,utf-8\r\n";
    const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
    const std::string zeros("a\0b\0", 4);
    const std::string url = origin("/mirror");
    const auto length = [](int bytes) {
        return "Content-Length: " + std::to_string(bytes) + "\r\n";
    };
    const Get get(url);
    const Row rows[] = {
        {Get(url).sends(Method::GET, "unsent"), "GET " + agent + charset + "\r\n"},
        {Get(url).header("X-A", "b:c"), "GET X-A: b:c\r\n" + agent + charset + "\r\n"},
        {Get(url).header("uSER-aGENT", "me"), "GET uSER-aGENT: me\r\n" + charset + "\r\n"},
        {Get(url).header("Accept-Charset", "x"),
         "GET Accept-Charset: x\r\n" + charset + agent + "\r\n"},
        {Get(url).sends(Method::POST, zeros),
         "POST " + agent + charset + length(4) + form + "\r\n" + zeros},
        {Get(url).sends(Method::POST, ""), "POST " + agent + charset + length(0) + form + "\r\n"},
        {Get(url).sends(Method::PUT, zeros), "PUT " + agent + charset + length(4) + "\r\n" + zeros},
        {Get(url).sends(Method::PUT, ""), "PUT " + agent + charset + length(0) + "\r\n"},
        {Get(url).sends(Method::DELETE, "unsent"), "DELETE " + agent + charset + "\r\n"},
        {Get(url).sends(Method::PATCH, "xy"),
         "PATCH " + agent + charset + length(2) + form + "\r\nxy"},
    };
    for (const Row& row : rows) {
        const auto request = hostRequest(row.request);
        EXPECT_EQ(request->runToOutcome(), "200 end");
        const std::string host = "Host: " + url.substr(7, url.size() - 14) + "\r\nAccept: */*\r\n";
        std::string expected = row.outcome;
        expected.replace(expected.find(' '), 1, " /mirror HTTP/1.1\r\n" + host);
        EXPECT_EQ(request->body, expected);
    }
}

/// A server that answers before it has read the body leaves a connection that waits for it.
TEST_F(Exchange, AnAnswerBeforeTheBodyLeavesNoConnectionBehind) {
    for (const std::string answer : {"413 ", "200 "}) {
        const ScriptedServer server(
            says("HTTP/1.1 " + answer + "Early\r\nContent-Length: 0\r\n\r\n", stall));
        const auto request = Get(server.url()).sends(Method::PATCH, bodyOf(3000000));
        for (int i = 0; i < 2; ++i) EXPECT_EQ(outcomeOf(request), answer);
    }
}

TEST_F(Exchange, AsAHostsOwnRequestHearsOfIt) {
    EXPECT_EQ(hostRequest(origin("/status/401"))->runToOutcome(),
              "401 <Authentication failure> HTTP code=401");
    EXPECT_EQ(hostRequest(origin("/status/404"))->runToOutcome(),
              "404 <Error code in HTTP Response> HTTP code=404");
}

}  // namespace test
