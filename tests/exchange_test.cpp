// Whole exchanges: a request as a command line of zel-http, and the outcome that its caller sees.

#include <gtest/gtest.h>

#include "loopback/scripted_server.h"
#include "support/exchange.h"

namespace test {
namespace {

using namespace loopback;  // the servers

using zel::http::RequestConfig;

struct Row {
    std::string request;  // behind the URL of the row's server
    std::string outcome;
};

TEST(Exchange, OverADecentServer) {
    Exchange exchange;
    const loopback::Origin origin;
    const std::string large(300000, 'p');
    const std::string limit = "<Protocol failure> ";
    const std::string too_long = limit + "Failed writing received data to disk/application";
    const std::string too_large = limit + "Maximum file size exceeded";
    const std::string user = " -u device:secret:word";
    const std::vector<Row> rows = {
        {"/hello", "200 hello"},
        {"/status/404", "404 status 404"},  // answers, not errors
        {"/status/401", "401 status 401"},
        {"/status/304", "304 "},
        {"/echo -d a=b", "200 a=b hop=end"},
        {"/echo -X PATCH -d a=b", "200 a=b hop=end"},
        // Of a header that several responses carry the first counts; a PUT is rewound.
        {"/redirect/5", "200  hop=5"},
        {"/redirect/6", limit + "Number of redirects hit maximum amount"},
        {"/redirect/2?status=307 -X PUT -d " + large, "200 300000 bytes hop=2"},
        {"/private", "401 who are you? hop=challenge"},
        {"/private --basic -X PUT -d " + large + user,
         "200 welcome, PUT of 300000 bytes hop=challenge"},
        {"/private" + user, "200 welcome, GET of 0 bytes hop=challenge"},
        {"/private -u device:wrong", "401 who are you? hop=challenge"},
        {"/silence --timeout 0.1", "<Operation timed out> Timeout was reached"},
        // A declared length is refused at once, any other where it goes too far.
        {"/bytes/100000 --max-size 99999", too_large},
        {"/bytes/100000?chunked --max-size 99999", too_long},
        {"/bytes/100000?close --max-size 99999", too_long},
        {"/bytes/100000 --max-size 100000", "200 100000 bytes"},
        {"/bytes/100000?chunked --max-size 100000", "200 100000 bytes"},
        {"/bytes/100000?close --max-size 100001", "200 100000 bytes"},
        {"/bytes/100000 --max-size 0", too_long},  // to libcurl 0 is no limit
        {"/bytes/40000000", "200 40000000 bytes"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(exchange.perform(origin.url(row.request)), row.outcome)
            << row.request.substr(0, 60);
    }
}

/// What no decent server sends.
TEST(Exchange, OverARawServer) {
    Exchange exchange;
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string too_many = "<Protocol failure> Weird server reply";
    const auto fields = [](int count) {
        std::string text;
        for (int i = 0; i < count; ++i) text += "X-" + std::to_string(i) + ": v\r\n";
        return text;
    };
    const std::vector<Row> rows = {
        {ok + "Content-Length: 2\r\n\r\nok", "200 ok"},
        {"HTTP/1.1 302 Found\r\nContent-Length: 4\r\n\r\nhere", "302 here"},
        {"HTTP/1.1 600 Odd\r\nContent-Length: 0\r\n\r\n", "<Protocol failure> HTTP code=0"},
        {"HTTP/1.1 99 Odd\r\nContent-Length: 0\r\n\r\n", "<Invalid URL> Unsupported protocol"},
        {"garbage\r\n\r\n", "<Invalid URL> Unsupported protocol"},
        {ok + "Content-Length: 4294967295\r\n\r\nhalf",
         "<Protocol failure> Transferred a partial file"},  // must cost no such memory
        {ok + "Content-Length: 4\r\n\r\nmore than that", "200 more"},
        {ok + "Transfer-Encoding: chunked\r\nTrailer: T\r\n\r\n2\r\nok\r\n0\r\nT: t\r\n\r\n",
         "200 ok"},
        {ok + "Transfer-Encoding: chunked\r\n\r\n0\r\nHTTP/1.1: x\r\n\r\n",
         "200 "},  // no status line
        {ok + "Content-Length: 0\r\n" + fields(499) + "\r\n", "200 "},
        {ok + "Content-Length: 0\r\n" + fields(500) + "\r\n", too_many},
        {ok + "Transfer-Encoding: chunked\r\n\r\n0\r\n" + fields(500) + "\r\n", too_many},
        {ok + "X-A: " + std::string(100000, 'a') + "\r\nX-B: " + std::string(100000, 'b') +
             "\r\nX-C: " + std::string(70000, 'c') + "\r\n\r\n",
         too_many},
        {"HTTP/1.1 100 Continue\r\n\r\n" + ok + "Content-Length: 2\r\n\r\nok", "200 ok"},
        {ok + "X-Hop: a\r\nx-HOP: b\r\n: c\r\nContent-Length: 0\r\n\r\n", "200  hop=a"},
        {"HTTP/1.1 200 OK\nX-Hop: bare\n\nok", "200 ok"},
    };
    for (const Row& row : rows) {
        ScriptedServer server(row.request);
        EXPECT_EQ(exchange.perform(server.url()), row.outcome) << row.request;
    }
    EXPECT_EQ(exchange.logger.lines("http_code=600").size(), 1U);
    EXPECT_EQ(exchange.logger.lines("1: zel-http received HTTP status '0'").size(), 1U);
}

TEST(Exchange, WhatARedirectDeclaresReservesNothing) {
    Exchange exchange;
    const std::string page(1000000, 'p');
    ScriptedServer server([&](Socket& socket) {
        const bool second = readRequest(socket).find("/end") != std::string::npos;
        write(socket,
              second ? "HTTP/1.1 200 OK\r\n\r\n" + std::string(100, 'e')
                     : "HTTP/1.1 302 Found\r\nLocation: /end\r\nContent-Length: 1000000\r\n\r\n" +
                           page);
    });
    std::size_t reserved = 0;
    const auto failed = [](auto, const zel::http::ErrorData& error) {
        ADD_FAILURE() << textOf(error);
    };
    const auto keep = [&](auto, const zel::http::ResponseData& data) {
        reserved = data.body.capacity();
    };
    exchange.client->start_request(requestOf(server.url()), {}, keep, failed);
    exchange.runUntil([&] { return reserved != 0; });
    EXPECT_LT(reserved, page.size());
}

TEST(Exchange, WithoutAServer) {
    Exchange exchange;
    std::string closed;
    { closed = ScriptedServer("").url(); }
    const std::string bad_url = "<Invalid URL> URL using bad/illegal format or missing URL";
    const std::vector<Row> rows = {
        {"", bad_url},
        {"http://", bad_url},
        {"http://h:99999/", bad_url},
        {"ftp://127.0.0.1/", "<Invalid URL> Unsupported protocol"},
        {"file:///etc/passwd", "<Invalid URL> Unsupported protocol"},
        {"http://no-such-host.invalid/", "<DNS Lookup failure> Couldn't resolve host name"},
        {closed, "<Failed to establish connection> Couldn't connect to server"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(exchange.perform(row.request), row.outcome) << row.request;
        EXPECT_EQ(
            exchange.logger.lines("error: HTTPClientCurl error (" + row.request + "): ").size(),
            1U);
    }
    exchange.engine.setProxyConfig("http://no-such-proxy.invalid:1", "", "");
    EXPECT_EQ(exchange.perform("http://device.invalid/"),
              "<DNS Lookup failure> Couldn't resolve proxy name");
}

/// A server that answers before it has read the body leaves a connection that waits for it.
TEST(Exchange, AnAnswerBeforeTheBodyLeavesNoConnectionBehind) {
    Exchange exchange;
    const ScriptedServer server([](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 413 Too long\r\nContent-Length: 0\r\n\r\n");
        waitForClose(socket);
    });
    RequestConfig config = requestOf("-X PATCH " + server.url());
    config.body.assign(3000000, 'p');
    for (int i = 0; i < 2; ++i) EXPECT_EQ(exchange.perform(config), "413 ");
}

/// The request's bytes at the server, behind the method and the lines that never differ.
TEST(Exchange, RequestsOnTheWire) {
    Exchange exchange;
    const std::string agent = "User-Agent: Velto/Dunmoreline\r\n";
    const std::string charset = "Accept-Charset: ISO-8859-1,utf-8\r\n";
    const std::string defaults = agent + charset;
    const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
    struct Sent {
        std::string options;
        std::string body;
        std::string request;
    };
    const std::string zeros("a\0b\0", 4);
    const auto length = [](int bytes) {
        return "Content-Length: " + std::to_string(bytes) + "\r\n";
    };
    const std::vector<Sent> rows = {
        {"-X GET", "unsent", "GET " + defaults + "\r\n"},
        {"-X GET -H X-A:b:c", "", "GET X-A: b:c\r\n" + defaults + "\r\n"},
        {"-X GET -H uSER-aGENT:me", "", "GET uSER-aGENT: me\r\n" + charset + "\r\n"},
        {"-X GET -H Accept-Charset:x", "", "GET Accept-Charset: x\r\n" + defaults + "\r\n"},
        {"-X POST", zeros, "POST " + defaults + length(4) + form + "\r\n" + zeros},
        {"-X POST", "", "POST " + defaults + length(0) + form + "\r\n"},
        {"-X PUT", zeros, "PUT " + defaults + length(4) + "\r\n" + zeros},
        {"-X PUT", "", "PUT " + defaults + length(0) + "\r\n"},
        {"-X DELETE", "unsent", "DELETE " + defaults + "\r\n"},
        {"-X PATCH", "xy", "PATCH " + defaults + length(2) + form + "\r\nxy"},
    };
    for (const Sent& row : rows) {
        std::string request;
        std::string expected = row.request;
        {
            const ScriptedServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
                                        row.request[0] == 'P' ? row.body.size() : 0, &request);
            RequestConfig config = requestOf(row.options + " " + server.url("/p?q"));
            config.body = row.body;
            EXPECT_EQ(exchange.perform(config), "200 ");
            const std::string host = "Host: " + server.authority() + "\r\nAccept: */*\r\n";
            expected.replace(expected.find(' '), 1, " /p?q HTTP/1.1\r\n" + host);
        }
        EXPECT_EQ(request, expected);
    }
}

}  // namespace
}  // namespace test
