// The tests of `StateReporter`, with the tools of zel_http::testing. Two have a client without a
// network, whose answers and clock are the test's. The last has a real client, and a server on this
// machine that fails first. They need no framework of tests, and can be used in any.

#include "state_reporter.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <iostream>
#include <memory>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/engine.h"
#include "zel_http/testing/fake_client.h"
#include "zel_http/testing/scripted_server.h"

using namespace std::chrono_literals;
using zel::http::ClientFailure;
using zel::http::ErrorData;
using zel::http::Method;
using zel::http::ResponseData;
using zel::testing::Answer;
using zel::testing::FakeClient;
using zel::testing::Matcher;

namespace {

int failures = 0;

void check(bool holds, const std::string& what) {
    if (!holds) ++failures;
    std::cout << (holds ? "ok      " : "FAILED  ") << what << '\n';
}

/// A reporter whose requests go to a `FakeClient`, and whose timer the test runs.
struct Fixture {
    /// Runs the tasks of the loop that are there.
    void poll() {
        loop.restart();
        loop.poll();
    }

    const std::string url = "http://server.example/state";
    boost::asio::io_context loop;
    oru::asio_executor executor{loop};
    std::shared_ptr<FakeClient> client = std::make_shared<FakeClient>(executor);
    std::function<void()> retry;
    StateReporter reporter{*client, url, [this](auto /*delay*/, auto work) { retry = work; }};
};

void triesAgainAfterAFailure() {
    Fixture test;
    const Matcher report(Method::PUT, test.url);
    test.client->expect(report, ErrorData{ClientFailure::ConnectionFailure, "no network"});
    test.client->expect(report, ResponseData{503, {}, "busy"});
    test.client->expect(report, ResponseData{204, {}, ""});
    test.reporter.report("door open");
    for (int i = 0; i < 2; ++i) {
        test.poll();
        check(test.reporter.reported().empty(), "a failure is no report");
        test.retry();
    }
    test.poll();
    check(test.reporter.reported() == "door open", "the third try reports the state");
    check(test.client->problems().empty(), "no other requests: " + test.client->problems());
}

void aNewerStateTakesThePlaceOfTheOlder() {
    Fixture test;
    const auto reports = [](const std::string& state) {
        return Matcher(state, [state](const auto& config) { return config.body == state; });
    };
    test.client->expect(reports("door open"), Answer::never());
    test.client->expect(reports("door shut"), {ResponseData{204, {}, ""}, 200ms});
    test.reporter.report("door open");
    test.reporter.report("door shut");
    check(test.client->count(FakeClient::State::Cancelled) == 1, "the older is cancelled");
    test.client->advance(199ms);
    test.poll();
    check(test.reporter.reported().empty(), "nothing is reported before the answer");
    test.client->advance(1ms);
    test.poll();
    check(test.reporter.reported() == "door shut", "the newer is reported");
    check(test.client->problems().empty(), "no other requests: " + test.client->problems());
}

void survivesAServerThatBreaksTheConnection() {
    std::string received;
    auto server = std::make_unique<zel::testing::ScriptedServer>(zel::testing::inTurn({
        zel::testing::reset,
        [&](zel::testing::Socket& socket) {
            received = zel::testing::readRequest(socket);
            zel::testing::write(socket, "HTTP/1.1 204 Done\r\n\r\n");
        },
    }));
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("test");
    const zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); },
                                   &logger);
    const auto client = zel::http::createClient(executor, logger);
    // Whoever waits for the retry waits no time.
    const auto later = [&](auto /*delay*/, auto retry) { boost::asio::post(loop, retry); };
    StateReporter reporter(*client, server->url("/state"), later);
    reporter.report("door open");
    while (reporter.reported().empty() && loop.run_one_for(20s) != 0) {
    }
    check(reporter.reported() == "door open", "reported after a broken connection");
    server.reset();  // ends its thread, which has written what is read here
    check(received.find("\r\n\r\ndoor open") != std::string::npos, "and the server has it");
}

}  // namespace

int main() {
    triesAgainAfterAFailure();
    aNewerStateTakesThePlaceOfTheOlder();
    survivesAServerThatBreaksTheConnection();
    std::cout << failures << " failures\n";
    return failures == 0 ? 0 : 1;
}
