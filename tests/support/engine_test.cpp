#include "support/engine_test.h"

#include <thread>

namespace test {
namespace {

std::string origin_url;

}  // namespace

std::string origin(const std::string& target) { return origin_url + target; }

void EngineTest::SetUp() {
    // TSan starts a thread of its own with the first of the process.
    std::thread([] {}).join();
    before_ = descriptorsAndThreads();
    startEngine();
}

void EngineTest::TearDown() {
    if (engine) {
        EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello") << "by the engine afterwards";
        settle();
        loop.poll();
        EXPECT_EQ(client.use_count(), 1);
    }
    engine.reset();
    waitFor("the end of all threads and descriptors",
            [this] { return descriptorsAndThreads() == before_; });
    for (const char* unwanted : {"secret", "\nHTTP(", "\nX-Evil"}) {
        for (const auto& line : logger.lines(unwanted)) ADD_FAILURE() << "logged: " << line;
    }
}

void EngineTest::startEngine(logging::Logger* log) {
    engine.reset();
    engine = std::make_unique<zel::http::Engine>(atOnce, log == nullptr ? &logger : log);
}

std::string EngineTest::outcomeOn(OwnEngine::Step step, HostRequest& request) {
    engine.reset();
    engine = std::make_unique<OwnEngine>(logger, std::move(step));
    const std::string outcome = request.runToOutcome();
    startEngine();
    return outcome;
}

std::string EngineTest::outcomeOf(const RequestConfig& config, const zel::http::LogFilter& filter) {
    std::string outcome;
    const auto keep = [&](auto, const auto& data) { outcome = textOf(data); };
    client->start_request(config, filter, keep, keep);
    runUntil("the outcome of " + config.url.substr(0, 60), [&] { return !outcome.empty(); });
    return outcome;
}

void EngineTest::expectOutcome(const std::string& actual, const std::string& expected) {
    RecordProperty("outcome", actual);
    EXPECT_EQ(actual, expected);
}

void EngineTest::runUntil(const std::string& event, const std::function<bool()>& reached) {
    waitFor(event, [&] {
        if (reached()) return true;
        loop.run_one_for(std::chrono::milliseconds(100));
        return reached();
    });
}

void EngineTest::settle() {
    for (int pass = 0; pass < 2; ++pass) {
        Flag reached;
        engine->queueRequest([&] { reached.set(); });
        reached.await("the engine thread");
    }
}

void EngineTest::whileEngineIsHeld(const std::function<void()>& work) {
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

}  // namespace test

/// The origin's process is made first: it is a fork, and tests have threads.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const loopback::ServerProcess servers([](const loopback::ServerProcess::Ready& ready) {
        const test::Origin served;
        ready({served.url("")});
    });
    test::origin_url = servers.addresses().at(0);
    return RUN_ALL_TESTS();
}
