// A host that throws, destroys the engine at any time,
// and has texts that must not put on the wire what was not asked for.

#include <new>
#include <random>
#include <thread>

#include "support/engine_test.h"

namespace test {

using Host = EngineTest;
using HostDeathTest = EngineTest;

/// Throws out of one operation.
class ThrowingRequest : public HostRequest {
public:
    ThrowingRequest(std::string operation, std::function<void()> fault)
        : HostRequest(Get(origin("/bytes/100000"))), operation_(operation), fault_(fault) {
        config.xauth_check_domain = true;
    }
    void notifyHeader(const char* /*line*/, unsigned /*length*/) override { in("header"); }
    void notifySize(unsigned /*size*/) override { in("size"); }
    void notifyDataReceived(const char* /*data*/, unsigned /*length*/) override { in("data"); }
    std::string xauthCookieDomain() const override { return in("domain"), ""; }
    void notifyDataEnd() override { in("end"); }

private:
    void in(const char* operation) const {
        if (operation_ == operation) fault_();
    }

    std::string operation_;
    std::function<void()> fault_;
};

/// Of the exceptions one is a request's way to end its transfer, which is not reported.
TEST_F(Host, ThrowsAndFailsThatRequestOnly) {
    struct Row {
        const char* operation;
        std::function<void()> fault;
        std::size_t reported;
    };
    const Row rows[] = {{"header", [] { throw 7; }, 1},
                        {"size", [] { throw std::logic_error("no"); }, 2},
                        {"data", [] { throw std::bad_alloc(); }, 3},
                        {"data", [] { throw std::range_error("enough"); }, 3}};
    for (const auto& [operation, fault, reported] : rows) {
        const auto request = std::make_shared<ThrowingRequest>(operation, fault);
        expectOutcome(request->runToOutcome(), "200 " + failed_writing);
        EXPECT_EQ(logger.lines("error: Engine::").size(), reported) << operation;
    }
}

TEST_F(HostDeathTest, WhatLeavesTheEngineThreadEndsTheProcessByName) {
    engine.reset();  // a child that the test forks would be without its thread
    for (const char* operation : {"domain", "end"}) {
        const auto request = std::make_shared<ThrowingRequest>(
            operation, [] { throw std::runtime_error("host's fault"); });
        const auto run = [&] {
            startEngine();
            request->runToOutcome();
        };
        EXPECT_DEATH(run(), "Thread 'CurlEngine' ended by an exception: host's fault") << operation;
    }
}

/// The caller gets what a filter's function throws, then the executor; nothing of the request
/// stays.
TEST_F(Host, GetsWhatALogFilterThrows) {
    const auto token = std::make_shared<int>(0);
    const auto unwanted = [token](auto, const auto&) { ADD_FAILURE(); };
    zel::http::LogFilter filter;
    filter.headers_filter = [](const auto& /*headers*/) -> zel::http::HeaderMap {
        throw std::runtime_error("no mask");
    };
    EXPECT_THROW(client->start_request(Get(origin("/hello")), filter, unwanted, unwanted),
                 std::runtime_error);
    EXPECT_EQ(token.use_count(), 4);
    EXPECT_THROW(runUntil("the outcome", [] { return false; }), std::runtime_error);
    EXPECT_EQ(token.use_count(), 2);
}

/// With requests wherever they happen to be.
TEST_F(Host, DestroysTheEngineAThousandTimes) {
    std::minstd_rand random;
    RecordingLogger none(-1);
    for (int round = 0; round < 1000; ++round) {
        startEngine(&none);
        const auto download = hostRequest(origin("/bytes/100000"));
        const auto silent = hostRequest(origin("/silence"));
        for (const auto& request : {download, silent}) {
            request->runRequest();
            for (auto spin = random() % 4; spin > 0; --spin) std::this_thread::yield();
        }
        if (random() % 2 == 0) download->pauseRequest();
        if (random() % 4 == 0) settle();
        engine.reset();
        ASSERT_LE(download->outcomes, 1);
        ASSERT_EQ(download.use_count() + silent.use_count(), 2);
    }
}

const std::string line = "\r\nX-Evil: 1";
const std::string nul("u\0evil", 6);

struct Text {
    const char* name;
    std::function<void(Get&)> put;
    std::string outcome;
    std::size_t reported;
};

class HostileText : public EngineTest, public testing::WithParamInterface<Text> {};

TEST_P(HostileText, PutsNothingElseOnTheWire) {
    std::string seen;
    const std::string challenge = "WWW-Authenticate: Digest realm=r, nonce=n\r\n";
    auto server = std::make_unique<ScriptedServer>([&](Socket& socket) {
        for (std::string request; !(request = readRequest(socket)).empty();) {
            seen += request;
            const bool answered = request.find("Authorization: Digest") != std::string::npos;
            write(socket, "HTTP/1.1 " + (answered ? "200 OK\r\n" : "401 No\r\n" + challenge) +
                              "Content-Length: 0\r\n\r\n");
        }
    });
    Get config(server->url());
    // Some before and some behind what is left out, in whatever order.
    for (int i = 0; i < 8; ++i) config.header("X-Asked-" + std::to_string(i), "v");
    GetParam().put(config);
    zel::http::LogFilter none;  // the client's lines show header fields
    none.payload = zel::http::LogFilter::None;
    expectOutcome(outcomeOf(config, none), GetParam().outcome);
    EXPECT_EQ(logger.lines("left out").size(), GetParam().reported);
    engine.reset();
    server.reset();
    EXPECT_EQ(seen.find("evil") & seen.find("X-Evil"), std::string::npos) << seen;
    for (int i = 0; i < 8 && !seen.empty(); ++i) {
        EXPECT_NE(seen.find("X-Asked-" + std::to_string(i) + ": v\r\n"), std::string::npos);
    }
}

auto header(const std::string& name, const std::string& value) {
    return [=](Get& config) { config.header(name, value); };
}
auto login(const std::string& user, const std::string& password) {
    return [=](Get& config) { config.login(user, password); };
}
auto url(const std::string& rest) {
    return [=](Get& config) { config.url += rest; };
}
const std::string bad_url = "<Invalid URL> URL using bad/illegal format or missing URL";

const Text texts[] = {
    {"none, for the strongest login", login("u", "secret"), "200 ", 0},
    {"none, for a login that is not offered",
     [](Get& config) { config.login("u", "secret").auth_method = zel::http::AuthMethod::BASIC; },
     "401 ", 0},
    {"a line in a header", header("X-A", "secret" + line), "401 ", 1},
    {"a bare LF in a header", header("X-A", "secret\nX-Evil: 1"), "401 ", 1},
    {"a line in a name", header("X-A: a" + line, "b"), "401 ", 1},
    {"NUL in a name", header(nul, "b"), "401 ", 1},
    {"NUL in a header", header("X-A", nul), "401 ", 1},
    {"a name that continues a line", header(" X-Evil", "b"), "401 ", 1},
    {"a name that continues it with a tab", header("\tX-Evil", "b"), "401 ", 1},
    {"a line in the user", login("u" + line, "secret"), "401 ", 1},
    {"a line in the password", login("u", "secret" + line), "401 ", 1},
    {"NUL in the user", login(nul, "secret"), "401 ", 1},
    {"a line in the path", url(" HTTP/1.1" + line), bad_url, 0},
    {"NUL in the URL", url(nul), bad_url, 0},
    {"a line in the user of the URL", [](Get& config) { config.url.insert(7, "u%0D%0AX-Evil:1@"); },
     "401 ", 0},
};
INSTANTIATE_TEST_SUITE_P(Caller, HostileText, testing::ValuesIn(texts), nameOf<Text>);

}  // namespace test
