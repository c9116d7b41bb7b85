#include <gtest/gtest.h>

#include <stdexcept>

#include "Engine/completion_rules.h"
#include "origin.h"
#include "support/probe_request.h"
#include "support/scripted_server.h"

namespace test {
namespace {

using zel::http::Failure;
using namespace std::chrono_literals;

/// What no decent server sends, and what the request is told.
TEST(Completion, RawAnswers) {
    struct Row {
        const char* reply;
        const char* outcome;
        const char* body;
    };
    Host host;
    for (const Row& row : std::initializer_list<Row>{
             {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", "200 end", "ok"},
             {"HTTP/1.1 304 Not Modified\r\n\r\n", "304 end", ""},
             {"HTTP/1.1 302 Found\r\nContent-Length: 4\r\n\r\nhere", "302 end", "here"},
             {"HTTP/1.1 403 No\r\nContent-Length: 2\r\n\r\nno",
              "403 <Authentication failure> HTTP code=403", "no"},
             {"HTTP/1.1 404 No\r\nContent-Length: 2\r\n\r\nno",
              "404 <Error code in HTTP Response> HTTP code=404", "no"},
             {"HTTP/1.1 600 Odd\r\nContent-Length: 0\r\n\r\n", "0 <Protocol failure> HTTP code=0",
              ""},
             {"HTTP/1.1 99 Odd\r\nContent-Length: 0\r\n\r\n",
              "0 <Invalid URL> Unsupported protocol", ""},
             {"", "0 <Protocol failure> Server returned nothing (no headers, no data)", ""},
             {"garbage\r\n\r\n", "0 <Invalid URL> Unsupported protocol", ""},
             {"HTTP/1.1 200 OK\r\nContent-Le", "200 <Protocol failure> Transferred a partial file",
              ""},
             {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf",
              "200 <Protocol failure> Transferred a partial file", "half"},
             {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nmore than that", "200 end", "more"},
             {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
              "200 end", "ok"},
             {"HTTP/1.1 200 OK\nBare: line feeds\n\nok", "200 end", "ok"},
         }) {
        ScriptedServer server(row.reply);
        const auto request = probe(server.url());
        EXPECT_EQ(request->runToOutcome(), row.outcome) << row.reply;
        EXPECT_EQ(request->body, row.body) << row.reply;
    }
}

/// Each code of the mapping that can be provoked, for real.
TEST(Completion, FailedTransfers) {
    Host host;
    ScriptedServer silent([](Peer& peer) {
        peer.read();
        peer.write("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n12");
        peer.waitForClose();
    });
    std::string closed;
    { closed = ScriptedServer("").url(); }
    struct Row {
        std::string url;
        const char* outcome;
        int code;
    };
    for (const Row& row : std::initializer_list<Row>{
             {"", "0 <Invalid URL> URL using bad/illegal format or missing URL", 3},
             {"http://", "0 <Invalid URL> URL using bad/illegal format or missing URL", 3},
             {"http://a b/", "0 <Invalid URL> URL using bad/illegal format or missing URL", 3},
             {"http://h:99999/", "0 <Invalid URL> URL using bad/illegal format or missing URL", 3},
             {"ftp://127.0.0.1/", "0 <Invalid URL> Unsupported protocol", 1},
             {"file:///etc/passwd", "0 <Invalid URL> Unsupported protocol", 1},
             {"http://no-such-host.invalid/", "0 <DNS Lookup failure> Couldn't resolve host name",
              6},
             {closed, "0 <Failed to establish connection> Couldn't connect to server", 7},
             {silent.url(), "200 <Operation timed out> Timeout was reached", 28},
         }) {
        const auto request = probe(row.url);
        request->config.timeout = row.code == 28 ? 300ms : 0ms;
        EXPECT_EQ(request->runToOutcome(), row.outcome) << row.url;
        const auto lines = host.logger.lines("HTTPClientCurl error (" + row.url + "): ");
        ASSERT_EQ(lines.size(), 1U) << row.url;
        EXPECT_EQ(lines[0].rfind("error: HTTPClientCurl error (" + row.url +
                                     "): " + std::to_string(row.code) + " '",
                                 0),
                  0U)
            << lines[0];
    }
    host.engine.setProxyConfig("http://no-such-proxy.invalid:1", "", "");
    EXPECT_EQ(probe("http://device.invalid/")->runToOutcome(),
              "0 <DNS Lookup failure> Couldn't resolve proxy name");
    EXPECT_EQ(zel::http::failureOf(CURLE_SSL_CONNECT_ERROR), Failure::ProtocolFailure);
}

TEST(Completion, StatusIsLoggedAtLevelOne) {
    Host host;
    ScriptedServer server("HTTP/1.1 600 Odd\r\nContent-Length: 0\r\n\r\n");
    probe(server.url())->runToOutcome();
    EXPECT_EQ(host.logger.lines("http_code=").at(0),
              "8: Engine::runCallbackHandlerInFsmContext: res=0, http_code=600");
    EXPECT_EQ(host.logger.lines("zel-http received").at(0), "1: zel-http received HTTP status '0'");
    EXPECT_TRUE(host.logger.lines("error: ").empty());
}

/// The FSM runner may keep closures until after the engine is gone.
TEST(Completion, LateClosuresNeedNoEngine) {
    RecordingLogger logger;
    const tool::Origin origin;
    std::promise<std::function<void()>> handed;
    const auto request = probe(origin.url("/hello"));
    std::function<void()> late;
    {
        zel::http::Engine engine([&](const auto& closure) { handed.set_value(closure); }, &logger);
        request->runRequest();
        late = handed.get_future().get();
    }
    EXPECT_EQ(request->outcomes, 0);
    late();
    EXPECT_EQ(request->outcome(), "200 end");
}

TEST(Callbacks, WhatARequestThrowsFailsItsTransferAlone) {
    Host host;
    const tool::Origin origin;
    struct Row {
        std::function<void()> on_header;
        std::function<void()> on_data;
        std::size_t error_lines;
    };
    const auto nothing = [] {};
    for (const Row& row : std::initializer_list<Row>{
             {[] { throw 7; }, nothing, 1},
             {[] { throw std::runtime_error("no header, please"); }, nothing, 1},
             {nothing, [] { throw std::bad_alloc(); }, 1},
             {nothing, [] { throw 7; }, 1},
             {nothing, [] { throw std::range_error("enough"); }, 0},  // the way to end a transfer
         }) {
        const std::size_t before = host.logger.lines("error: Engine::").size();
        const auto request = probe(origin.url("/bytes/100000"));
        request->on_header = row.on_header;
        request->on_data = row.on_data;
        EXPECT_EQ(request->runToOutcome().substr(4),
                  "<Protocol failure> Failed writing received data to disk/application");
        EXPECT_EQ(host.logger.lines("error: Engine::").size() - before, row.error_lines);
        EXPECT_EQ(request->outcomes, 1);
    }
    EXPECT_EQ(probe(origin.url("/hello"))->runToOutcome(), "200 end");
}

/// libcurl reports such a transfer as complete; the failed callback must win.
TEST(Callbacks, FailureWhileResumingIsNoSuccess) {
    Host host;
    const tool::Origin origin;
    const auto request = probe(origin.url("/bytes/200000?close"));
    request->on_data = [&] {
        if (request->received < 200000) return;
        throw std::runtime_error("enough");
    };
    const auto paused = std::make_shared<std::promise<void>>();
    bool first = true;
    request->on_header = [&, paused] {
        if (!first) return;
        first = false;
        request->pauseRequest();
        paused->set_value();
    };
    request->runRequest();
    paused->get_future().wait();
    host.settle();
    request->resumeRequest();
    EXPECT_EQ(request->outcome(),
              "200 <Protocol failure> Failed writing received data to disk/application");
}

TEST(Callbacks, SizeIsToldOnceTheLengthIsKnown) {
    Host host;
    const tool::Origin origin;
    for (const auto& [query, declared] :
         {std::pair("", 1234U), std::pair("?chunked", 0U), std::pair("?close", 0U)}) {
        const auto request = probe(origin.url("/bytes/1234") + query);
        EXPECT_EQ(request->runToOutcome(), "200 end");
        EXPECT_EQ(request->declared, declared) << query;
        EXPECT_EQ(request->body.size(), 1234U) << query;
    }
    ScriptedServer huge("HTTP/1.1 200 OK\r\nContent-Length: 5000000000\r\n\r\n");
    const auto request = probe(huge.url());
    request->runToOutcome();
    EXPECT_EQ(request->declared, 4294967295U);
}

}  // namespace
}  // namespace test
