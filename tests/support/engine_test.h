#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <cctype>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "loopback/descriptor_limit.h"
#include "loopback/event.h"
#include "loopback/origin.h"
#include "loopback/recording_logger.h"
#include "loopback/server_process.h"
#include "oru/asio_executor.h"
#include "support/process.h"
#include "support/request.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"
#include "zel_http/request.h"
#include "zel_http/testing/scripted_server.h"

namespace test {

using namespace loopback;      // the servers
using namespace zel::testing;  // and the scripted one

/// The URL of a resource of an origin in a process of its own, which lives as long as the tests.
std::string origin(const std::string& target);

/// "200 text", with " hop=H" for a response with X-Hop; a long body as its length, and as "other
/// bytes" unless it is `bodyOf` of that length.
inline std::string textOf(const zel::http::ResponseData& response) {
    std::string text = response.body.substr(0, response.body.find('\n'));
    if (const std::size_t size = response.body.size(); size > 60) {
        text = std::to_string(size) + (response.body == bodyOf(size) ? " bytes" : " other bytes");
    }
    const auto hop = response.headers.find("x-hop");
    if (hop != response.headers.end()) text += " hop=" + hop->second;
    return std::to_string(response.status) + " " + text;
}
/// "<Operation timed out> Timeout was reached".
inline std::string textOf(const zel::http::ErrorData& error) {
    return testing::PrintToString(error.failure) + " " + error.message;
}

/// A host's own request: keeps what it is told, and its outcome as a text.
class HostRequest : public zel::http::Request {
public:
    explicit HostRequest(const RequestConfig& asked) : Request(asked) {}

    void notifyDataReceived(const char* data, unsigned length) override {
        body.append(data, length);
        received += length;
        if (on_data) on_data();
    }
    void notifyHeader(const char* /*line*/, unsigned /*length*/) override { ++header_lines; }
    void notifyDataEnd() override { finish("end"); }
    void notifyFailure(zel::http::Failure failure, const char* text) override {
        finish(testing::PrintToString(failure) + " " + text);
    }
    void start() override {}

    /// "200 end", or "404 <Error code in HTTP Response> HTTP code=404", once it is there.
    std::string outcome() const {
        waitFor("the outcome of a host's request", [this] { return outcomes > 0; });
        return outcome_;
    }
    std::string runToOutcome() {
        runRequest();
        return outcome();
    }

    /// Runs after each block of the body.
    std::function<void()> on_data;
    std::string body;
    std::atomic<std::size_t> received{0};
    std::atomic<int> header_lines{0};
    std::atomic<int> outcomes{0};

private:
    void finish(const std::string& text) {
        if (outcomes == 0) outcome_ = std::to_string(getResponseCode()) + " " + text;
        ++outcomes;
    }

    std::string outcome_;
};

inline std::shared_ptr<HostRequest> hostRequest(const RequestConfig& config) {
    return std::make_shared<HostRequest>(config);
}
inline std::shared_ptr<HostRequest> hostRequest(const std::string& url) {
    return hostRequest(Get(url));
}

/// The name of a row of a table, as the test runner takes it.
template <typename Row>
std::string nameOf(const testing::TestParamInfo<Row>& row) {
    std::string name = row.param.name;
    const auto other = [](unsigned char c) { return std::isalnum(c) == 0; };
    std::replace_if(name.begin(), name.end(), other, '_');
    return name;
}

/// An engine class of the host's own: runs `step` with each handle that is set up, in place of the
/// step for TLS.
class OwnEngine : public zel::http::Engine {
public:
    using Step = std::function<void(OwnEngine& engine, void* curl)>;
    OwnEngine(logging::Logger& log, Step step)
        : Engine([](const auto& closure) { closure(); }, &log), step_(std::move(step)) {}
    OwnEngine(const OwnEngine&) = delete;
    OwnEngine& operator=(const OwnEngine&) = delete;
    ~OwnEngine() override { stop(); }
    using Engine::deleteCookiesFromRequest;
    using Engine::getCurrentXAuthCookieDomainFromRequest;
    void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request> /*request*/) override {
        step_(*this, curl);
    }

private:
    const Step step_;
};

inline void atOnce(const std::function<void()>& closure) { closure(); }

/// An engine whose outcomes run at once on its thread, and a client on the test's thread. Each test
/// ends with a look at what must hold whatever it did: the engine serves, nothing holds the client,
/// no thread or descriptor is left, and no log line has "secret" or a line end of somebody else's.
class EngineTest : public testing::Test {
protected:
    void SetUp() override {
        // TSan starts a thread of its own with the first of the process.
        std::thread([] {}).join();
        before_ = descriptorsAndThreads();
        startEngine();
    }
    void TearDown() override {
        if (engine) {
            EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello") << "by the engine afterwards";
            settle();
            loop.poll();
            EXPECT_EQ(client.use_count(), 1);
        }
        engine.reset();
        waitFor("the end of all threads and descriptors", [this] {
            const auto [descriptors, threads] = descriptorsAndThreads();
            // A thread that was joined before may have been there for a moment more.
            return descriptors == before_.first && threads <= before_.second;
        });
        for (const char* unwanted : {"secret", "\nHTTP(", "\nX-Evil"}) {
            for (const auto& line : logger.lines(unwanted)) ADD_FAILURE() << "logged: " << line;
        }
    }

    /// Replaces the engine.
    void startEngine(logging::Logger* log = nullptr) {
        engine.reset();
        engine = std::make_unique<zel::http::Engine>(atOnce, log == nullptr ? &logger : log);
    }
    /// The outcome on an engine of the host's own, after which there is a plain one again.
    std::string outcomeOn(OwnEngine::Step step, HostRequest& request) {
        engine.reset();
        engine = std::make_unique<OwnEngine>(logger, std::move(step));
        std::string outcome = request.runToOutcome();
        startEngine();
        return outcome;
    }
    /// Performs a request of the client.
    std::string outcomeOf(const RequestConfig& config, const zel::http::LogFilter& filter = {}) {
        std::string outcome;
        const auto keep = [&](auto, const auto& data) { outcome = textOf(data); };
        client->start_request(config, filter, keep, keep);
        runUntil("the outcome of " + config.url.substr(0, 60), [&] { return !outcome.empty(); });
        return outcome;
    }
    std::string outcomeOf(const std::string& url) { return outcomeOf(Get(url)); }
    /// What came of a fault, for the table of `./dev faults` too.
    static void expectOutcome(const std::string& actual, const std::string& expected) {
        RecordProperty("outcome", actual);
        EXPECT_EQ(actual, expected);
    }
    /// Runs the client's executor until then.
    void runUntil(const std::string& event, const std::function<bool()>& reached) {
        waitFor(event, [&] {
            if (reached()) return true;
            loop.run_one_for(std::chrono::milliseconds(100));
            return reached();
        });
    }
    /// Returns when the engine thread has run all that was queued before, and a pass after it.
    void settle() {
        for (int pass = 0; pass < 2; ++pass) {
            Flag reached;
            engine->queueRequest([&] { reached.set(); });
            reached.await("the engine thread");
        }
    }
    /// Runs `work` while the engine thread is held, in a pass that then runs what `work` has
    /// queued.
    void whileEngineIsHeld(const std::function<void()>& work) {
        Flag held;
        Flag released;
        engine->queueRequest([&] {
            held.set();
            released.await("the test");
            engine->processPendingRequests();
        });
        held.await("the engine thread");
        work();
        released.set();
        settle();
    }
    /// How many passes the engine has made.
    std::uint64_t passes() const { return engine->statistics().passes; }

    RecordingLogger logger;
    boost::asio::io_context loop;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_guard{
        loop.get_executor()};
    oru::asio_executor executor{loop};
    std::unique_ptr<zel::http::Engine> engine;
    std::shared_ptr<zel::http::Client> client = zel::http::createClient(executor, logger);

private:
    std::pair<long, long> before_;
};

}  // namespace test
