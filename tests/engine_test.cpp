// The engine from a host's side: its queue, its life, and the control of transfers.

#include <fcntl.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include "Engine/statistics.h"
#include "support/engine_test.h"

namespace test {

using zel::http::Engine;

using Queue = EngineTest;
using Lifecycle = EngineTest;
using LifecycleDeathTest = EngineTest;
using Control = EngineTest;
using Statistics = EngineTest;

TEST_F(Queue, RunsInOrderAndNestedClosuresInTheNextPass) {
    const auto mark = [&](const std::string& name) { return [=] { logger.add("mark " + name); }; };
    whileEngineIsHeld([&] {
        std::thread([&] { engine->queueRequest(mark("a")); }).join();
        engine->queueRequest([&] { engine->queueRequest(mark("c")); });
        std::thread([&] { engine->queueRequest(mark("b")); }).join();
    });
    std::string order;
    for (const auto& line : logger.lines()) {
        if (line.rfind("mark ", 0) == 0) order += line.substr(5);
        if (line == "8: Engine::processPendingRequests" && !order.empty()) order += '|';
    }
    EXPECT_EQ(order.substr(0, 4), "ab|c");
}

/// A closure may run steps of a pass itself; the one it has queued before is not left waiting.
TEST_F(Queue, ClosuresRunPassesOfTheirOwn) {
    const std::function<void()> steps[] = {[&] { engine->runTasks(); },
                                           [&] { engine->doCurlProcessing(); }};
    for (const auto& step : steps) {
        Flag ran;
        engine->queueRequest([&] {
            engine->queueRequest([&] { ran.set(); });
            step();
        });
        ran.await("the closure");
    }
}

TEST_F(Queue, NothingBehindATerminationRunsAndAllIsDestroyed) {
    const auto ran = std::make_shared<std::atomic<int>>(0);
    Flag released;
    engine->queueRequest([&] { released.await("the test"); });
    engine->queueRequest([ran] { *ran += 1; });
    engine->requestTermination();
    engine->queueRequest([ran] { *ran += 10; });  // in the batch of the termination
    released.set();
    waitFor("the end of the thread", [&] { return !logger.lines("Exiting thread loop").empty(); });
    engine->queueRequest([ran] { *ran += 10; });  // with no thread left to run it
    engine.reset();
    EXPECT_EQ(*ran, 1);
    EXPECT_EQ(ran.use_count(), 1);
    EXPECT_FALSE(Engine::hasEngine());
}

TEST_F(LifecycleDeathTest, ProgrammingFaultsStopTheProcess) {
    settle();
    const auto second = [&] { const Engine another(atOnce, &logger); };
    EXPECT_DEATH(second(), "zel_http/src/Engine/lifecycle.cpp:.*Assertion `!currentEngine' failed");
    if (!ZEL_HTTP_THREAD_CHECKS) return;
    EXPECT_DEATH(engine->flagTermination(), "loop.cpp:.*Assertion");  // on another thread
}

TEST_F(LifecycleDeathTest, WithoutAnEngineARequestDoesNothing) {
    engine.reset();
    EXPECT_DEATH(Engine::getEngine(), "Assertion `currentEngine' failed");
    const auto request = hostRequest("http://127.0.0.1:1/");
    request->runRequest();
    request->tryToCancelRequest();
    request->pauseRequest();
    request->resumeRequest();
    startEngine();
    HostRequest unowned(Get("http://127.0.0.1:1/"));
    EXPECT_THROW(unowned.runRequest(), std::bad_weak_ptr);
    EXPECT_THROW(unowned.tryToCancelRequest(), std::bad_weak_ptr);
    EXPECT_EQ(request->outcomes, 0);
}

/// A program that the host executes gets neither a connection nor what wakes the engine.
TEST_F(Lifecycle, DescriptorsAreNotInherited) {
    EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");
    int own = 0;
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
        sockaddr peer{};
        socklen_t length = sizeof peer;
        getpeername(descriptor, &peer, &length);
        std::error_code none;
        const std::filesystem::path link = "/proc/self/fd/" + std::to_string(descriptor);
        const bool wakeup = read_symlink(link, none) == "anon_inode:[eventfd]";
        if (!wakeup && peer.sa_family != AF_INET) continue;
        ++own;
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << wakeup;
    }
    EXPECT_GE(own, 2);  // libcurl 8.14 has an eventfd of its own
}

TEST_F(Lifecycle, TheHostsSignalHandlerStays) {
    constexpr void (*own)(int) = [](int) {};
    const auto before = std::signal(SIGPIPE, own);
    const auto request = hostRequest(origin("/hello"));
    request->on_data = [&] {
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        EXPECT_EQ(now.sa_handler, own);
    };
    EXPECT_EQ(request->runToOutcome(), "200 end");
    EXPECT_EQ(std::signal(SIGPIPE, before), own);
}

TEST_F(Lifecycle, TheThreadHasItsStack) {
    std::size_t stack = 0;
    engine->queueRequest([&] {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
    });
    settle();
    EXPECT_GE(stack, 256 * 1024U);
    EXPECT_LT(stack, 1024 * 1024U) << "TSan adds some";
}

TEST_F(Control, CancelledRequestsHearNothing) {
    const auto at_once = hostRequest(origin("/silence"));
    whileEngineIsHeld([&] {
        at_once->pauseRequest();  // is not left to a later transfer with its handle
        at_once->runRequest();
        at_once->tryToCancelRequest();
    });
    EXPECT_EQ(at_once.use_count(), 1);
    const auto running = hostRequest(origin("/silence"));
    running->runRequest();
    settle();
    for (int i = 0; i < 2; ++i) running->tryToCancelRequest();
    EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");  // comes after any outcome of theirs
    EXPECT_EQ(at_once->outcomes + running->outcomes, 0);
    EXPECT_EQ(running.use_count(), 1);
}

TEST_F(Control, AnUploadPausedBeforeItsStartWaitsWithItsBody) {
    for (const bool pauses_first : {true, false}) {
        Flag others_done;
        std::atomic<std::size_t> sent_meanwhile{1};
        const ScriptedServer server([&](Socket& socket) {
            const std::string request = readHead(socket);
            others_done.await("the other requests");
            sent_meanwhile = request.size() - request.find("\r\n\r\n") - 4 + socket.available();
            write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
        });
        const auto upload = hostRequest(Get(server.url()).sends(Method::PUT, bodyOf(1000)));
        whileEngineIsHeld([&] {
            if (pauses_first) upload->pauseRequest();
            upload->runRequest();
            engine->queueRequest([&] {  // with its handle, without a connection
                upload->pauseRequest();
                engine->processPendingRequests();
            });
        });
        for (int i = 0; i < 2; ++i) EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");
        others_done.set();
        waitFor("the server", [&] { return sent_meanwhile != 1; });
        EXPECT_EQ(sent_meanwhile, 0U);
        upload->resumeRequest();
        EXPECT_EQ(upload->outcome(), "200 end");
    }
}

/// libcurl reads on for many blocks before the engine comes to its queue.
TEST_F(Control, APauseHoldsTheNextBlock) {
    constexpr std::size_t length = std::size_t{16} * 1024 * 1024;
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[] {}, "end"},
        {[] { throw std::runtime_error("enough"); }, failed_writing},
        {[] { throw 7; }, failed_writing}};
    for (const auto& row : rows) {
        const auto request = hostRequest(origin("/bytes/" + std::to_string(length)));
        std::atomic<std::size_t> held{0};
        std::atomic<bool> resumed{false};
        request->on_data = [&] {
            if (resumed.exchange(false)) row.first();
            if (held != 0) return;
            for (int i = 0; i < 2; ++i) request->pauseRequest();
            held = request->received.load();
        };
        request->runRequest();
        waitFor("the first block", [&] { return held != 0; });
        for (int i = 0; i < 2; ++i) EXPECT_EQ(outcomeOf(origin("/hello")), "200 hello");
        EXPECT_EQ(request->received, held);
        resumed = true;
        request->resumeRequest();
        EXPECT_EQ(request->outcome(), "200 " + row.second);
        EXPECT_EQ(request->body == bodyOf(length), row.second == "end");
    }
}

/// The pauses meet an answer that is there already: libcurl (7.88) keeps its header lines and hands
/// several over in one call.
TEST_F(Control, HeaderLinesComeOneByOneAfterAPause) {
    std::shared_ptr<HostRequest> request;
    const ScriptedServer server([&](Socket& socket) {
        readHead(socket);
        whileEngineIsHeld([&] {
            write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nSet-Cookie: a=b\r\n\r\nbody");
            request->pauseRequest();
            request->resumeRequest();
            request->pauseRequest();
        });
        request->resumeRequest();
    });
    request = hostRequest(server.url());
    EXPECT_EQ(request->runToOutcome(), "200 end");
    EXPECT_EQ(request->header_lines, 4);
    EXPECT_EQ(request->body, "body");
}

/// Pause and resume act on the transfer with the lower handle, which is now and then the second:
/// what they held of the first before that goes on.
TEST_F(Control, ARequestThatRunsAgainWhileItPausesCompletesTwice) {
    for (int i = 0; i < 10; ++i) {
        const auto request = hostRequest(origin("/bytes/200000"));
        Flag again;
        request->on_data = [&] {
            if (again.isSet()) return;
            request->runRequest();
            request->pauseRequest();
            again.set();
        };
        hostRequest(origin("/hello"))->runRequest();  // takes a handle in between
        request->runRequest();
        again.await("the first block");
        settle();
        request->resumeRequest();
        waitFor("both outcomes", [&] { return request->outcomes == 2; });
        EXPECT_EQ(request->received, 400000U);
    }
}

/// On its way through the engine a transfer is always somewhere, whoever looks when, and an outcome
/// finds its own counted.
TEST_F(Statistics, FollowTransfersThroughTheEngine) {
    constexpr std::uint64_t crowd = 20;
    std::atomic<std::uint64_t> added{0};
    Flag done;
    std::thread watcher([&] {
        while (!done.isSet()) {
            const std::uint64_t expected = added;
            const auto now = engine->statistics();
            const auto found = now.transfers_queued + now.transfers_in_flight + now.transfers_ended;
            EXPECT_GE(found, expected);
            EXPECT_LE(now.transfers_in_flight, crowd);
        }
    });
    const auto run = [&](HostRequest& request) {
        request.runRequest();
        ++added;
    };
    std::vector<std::shared_ptr<HostRequest>> all(crowd);
    whileEngineIsHeld([&] {
        const auto held = std::chrono::steady_clock::now();
        for (auto& request : all) run(*(request = hostRequest(origin("/silence"))));
        for (auto& request : all) request->tryToCancelRequest();
        EXPECT_EQ(engine->statistics().transfers_queued, crowd);
        waitFor("a long pass", [&] {
            return std::chrono::steady_clock::now() - held > std::chrono::milliseconds(50);
        });
    });
    auto now = engine->statistics();
    EXPECT_EQ(now.transfers_queued + now.transfers_in_flight, 0U);
    EXPECT_EQ(now.transfers_ended, crowd);
    EXPECT_GE(now.longest_pass, std::chrono::milliseconds(50));

    const auto silent = hostRequest(origin("/silence"));
    const auto failing = hostRequest("http://");
    const auto retried = hostRequest("http://127.0.0.1:1/");
    retried->fallbackProxies = {"http://127.0.0.1:1"};
    const auto upload = hostRequest(Get(origin("/echo")).sends(Method::POST, bodyOf(1000)));
    for (const auto& request : {silent, failing, retried, upload}) {
        run(*request);
        if (request == silent) continue;
        request->outcome();
        EXPECT_EQ(engine->statistics().transfers_in_flight, 1U);
    }
    now = engine->statistics();
    EXPECT_EQ(now.transfers_queued, 0U);
    EXPECT_EQ(now.transfers_begun, crowd + 5);
    EXPECT_EQ(now.bytes_sent, 1000U);
    EXPECT_EQ(now.bytes_received, 1000U);
    silent->tryToCancelRequest();
    done.set();
    watcher.join();
}

TEST(Count, IsWholeWhileItPasses32Bits) {
    constexpr std::uint64_t step = 0x7fffffff;
    constexpr std::uint64_t end = 1000000 * step;
    zel::http::Count count;
    const auto writer = std::async(std::launch::async, [&] {
        for (std::uint64_t sum = 0; sum < end; sum += step) count.add(step);
    });
    std::uint64_t last = 0;
    while (last < end) {
        const std::uint64_t now = count.value();
        ASSERT_GE(now, last);
        ASSERT_LE(now, end);
        last = now;
    }
}

}  // namespace test
