// Servers and proxies that die, stall and cheat, answers that no decent server sends, and name
// look-ups that hang.

#include <netdb.h>

#include <atomic>

#include "support/engine_test.h"

namespace {

/// Look-ups of "hangs.test" return once this is false.
std::atomic<bool> hanging{false};
std::atomic<int> hung{0};

}  // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    static const auto next = test::replaced(&getaddrinfo, "getaddrinfo");
    if (name == nullptr || std::string(name) != "hangs.test") {
        return next(name, service, hints, result);
    }
    ++hung;
    loopback::waitFor("the end of the look-up", [] { return !hanging; });
    return next("127.0.0.1", service, hints, result);
}

namespace test {

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string half_header = ok + "Content-Type: text/pl";
const std::string half_body = ok + "Content-Length: 100\r\n\r\nhalf";
const std::string empty = "Content-Length: 0\r\n";
const std::string chunked = "Transfer-Encoding: chunked\r\n";

const std::string protocol = "<Protocol failure> ";
const std::string reset_text = protocol + "Failure when receiving data from the peer";
const std::string partial = protocol + "Transferred a partial file";
const std::string nothing = protocol + "Server returned nothing (no headers, no data)";
const std::string timed_out = "<Operation timed out> Timeout was reached";
const std::string not_http = "<Invalid URL> Unsupported protocol";
const std::string too_many = protocol + "Weird server reply";
const std::string broken_tls = protocol + "SSL connect error";

std::string fields(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "X-" + std::to_string(i) + ": v\r\n";
    return text;
}

struct Row {
    const char* name;
    Script script;
    std::string outcome;
};

class Server : public EngineTest, public testing::WithParamInterface<Row> {};

TEST_P(Server, HasOneOutcome) {
    const auto& [name, script, outcome] = GetParam();
    const ScriptedServer server(script);
    const bool proxy = std::string(name).rfind("proxy", 0) == 0;
    if (proxy) engine->setProxyConfig(server.url(), "", "");
    const std::string at = proxy ? "device.example" : server.authority();
    const auto request = Get((outcome == broken_tls ? "https://" : "http://") + at);
    expectOutcome(outcomeOf(Get(request).within(outcome == timed_out ? 300 : 0)), outcome);
    engine->setProxyConfig("", "", "");
}

const Row faults[] = {
    {"closed before the answer", says(""), nothing},
    {"closed in the header", says(half_header), partial},
    {"closed in the body", says(half_body), partial},
    {"reset before the answer", says("", reset), reset_text},
    {"silent in the body", says(half_body, stall), timed_out},
    {"silent in the TLS handshake", stall, timed_out},
    {"TLS asked of HTTP", [](Socket& socket) { write(socket, ok); }, broken_tls},
    {"proxy closes behind CONNECT", says(""), reset_text},
};
INSTANTIATE_TEST_SUITE_P(Faulty, Server, testing::ValuesIn(faults), nameOf<Row>);

const Row answers[] = {
    {"redirect to nowhere", says("HTTP/1.1 302 Found\r\nContent-Length: 4\r\n\r\nhere"),
     "302 here"},
    {"status 600", says("HTTP/1.1 600 Odd\r\n" + empty + "\r\n"), protocol + "HTTP code=0"},
    {"status 99", says("HTTP/1.1 99 Odd\r\n" + empty + "\r\n"), not_http},
    // Must cost no such memory.
    {"declares 4 GiB", says(ok + "Content-Length: 4294967295\r\n\r\nhalf"), partial},
    {"trailer", says(ok + chunked + "\r\n2\r\nok\r\n0\r\nX-Hop: t\r\n\r\n"), "200 ok hop=t"},
    {"field like a status line", says(ok + chunked + "\r\n0\r\nHTTP/1.1: x\r\n\r\n"), "200 "},
    {"500 fields", says(ok + empty + fields(499) + "\r\n"), "200 "},
    {"501 fields", says(ok + empty + fields(500) + "\r\n"), too_many},
    {"501 with trailers", says(ok + chunked + "\r\n0\r\n" + fields(500) + "\r\n"), too_many},
    {"270 KB of fields",
     says(ok + "X-A: " + std::string(90000, 'a') + "\r\nX-B: " + std::string(90000, 'b') +
          "\r\nX-C: " + std::string(90000, 'c') + "\r\n\r\n"),
     too_many},
    {"100 first", says("HTTP/1.1 100 Continue\r\n\r\n" + ok + "Content-Length: 2\r\n\r\nok"),
     "200 ok"},
    {"field twice", says(ok + "X-Hop: a\r\nx-HOP: b\r\n: c\r\n" + empty + "\r\n"), "200  hop=a"},
    {"bare line ends", says("HTTP/1.1 200 OK\nX-Hop: bare\n\nok"), "200 ok"},
};
INSTANTIATE_TEST_SUITE_P(Odd, Server, testing::ValuesIn(answers), nameOf<Row>);

using FaultyServer = EngineTest;

TEST_F(FaultyServer, IsResetWhileItIsSent8MB) {
    for (const std::string answer : {"", "HTTP/1.1 413 Early\r\nContent-Length: 9\r\n\r\nhalf"}) {
        const ScriptedServer server(says(answer, reset));
        const auto request = Get(server.url()).sends(Method::PUT, std::string(8000000, 'u'));
        expectOutcome(outcomeOf(request).substr(0, protocol.size()), protocol);
    }
}

/// Others go on while a request waits for its name, until its limit, a cancel, or the engine's end.
TEST_F(FaultyServer, HasANameWhoseLookUpHangs) {
    for (const std::string end : {"limit", "cancel", "engine"}) {
        hanging = true;
        hung = 0;
        const auto request =
            hostRequest(Get("http://hangs.test/").within(end == "limit" ? 500 : 0));
        request->runRequest();
        waitFor("the look-up", [&] { return hung > 0; });
        EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");
        if (end == "limit") expectOutcome(request->outcome(), "0 " + timed_out);
        if (end == "cancel") request->tryToCancelRequest();
        if (end == "engine") engine.reset();
        waitFor("the end", [&] { return request.use_count() == 1; });
        EXPECT_EQ(request->outcomes, end == "limit" ? 1 : 0);
        hanging = false;
    }
}

/// A device's server may move: each new connection looks its name up.
TEST_F(FaultyServer, HasANameThatIsLookedUpEachTime) {
    hung = 0;
    auto named = Get("http://hangs.test" + origin("/hello").substr(16));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(outcomeOf(named.set(&RequestConfig::reset_state, true)), "200 hello");
    }
    EXPECT_EQ(hung, 2);
}

}  // namespace test
