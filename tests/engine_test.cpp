// The engine from a host's side: its queue, its life, its wait, and the control of transfers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <future>
#include <thread>

#include "loopback/scripted_server.h"
#include "support/probe_request.h"

namespace test {
namespace {

using namespace loopback;  // the servers

using zel::http::Engine;

/// Holds the engine thread until opened, so that closures pile up behind it.
class Gate {
public:
    explicit Gate(Engine& engine) {
        engine.queueRequest([this] {
            entered_ = true;
            while (!open_) std::this_thread::yield();
            left_ = true;
        });
        while (!entered_) std::this_thread::yield();
    }
    void open() {
        open_ = true;
        while (!left_) std::this_thread::yield();
    }

private:
    std::atomic<bool> entered_{false};
    std::atomic<bool> open_{false};
    std::atomic<bool> left_{false};
};

TEST(Queue, RunsInOrderAndNestedClosuresInTheNextPass) {
    Exchange host;
    EXPECT_EQ(Engine::getEngine(), &host.engine);
    Gate gate(host.engine);
    const auto mark = [&](const std::string& name) {
        return [&, name] { host.logger.add("mark " + name); };
    };
    std::thread([&] { host.engine.queueRequest(mark("a")); }).join();
    host.engine.queueRequest([&] {
        host.logger.add("mark b");
        host.engine.queueRequest(mark("d"));
    });
    std::thread([&] { host.engine.queueRequest(mark("c")); }).join();
    gate.open();
    host.settle();
    std::string order;
    for (const auto& line : host.logger.lines()) {
        if (line.rfind("mark ", 0) == 0) order += line.substr(5);
        if (line == "8: Engine::processPendingRequests" && !order.empty()) order += '|';
    }
    EXPECT_EQ(order.substr(0, 5), "abc|d");
    host.engine.queueRequest([&] { std::ifstream("/proc/thread-self/comm") >> order; });
    host.settle();
    EXPECT_EQ(order, "CurlEngine");
}

/// A host's closure may run steps of a pass itself; what is queued behind is not left waiting.
TEST(Queue, ClosuresRunPassesOfTheirOwn) {
    Exchange host;
    const std::function<void()> steps[] = {[&] { host.engine.processPendingRequests(); },
                                           [&] { host.engine.runTasks(); },
                                           [&] { host.engine.doCurlProcessing(); }};
    std::atomic<int> ran{0};
    for (const auto& step : steps) {
        std::promise<void> entered, queued, last;
        host.engine.queueRequest([&] {
            entered.set_value();
            queued.get_future().wait();
            host.engine.queueRequest([&] { ++ran; });
            step();
        });
        entered.get_future().wait();
        host.engine.queueRequest([&] { ++ran; });
        host.engine.queueRequest([&] { last.set_value(); });
        queued.set_value();
        ASSERT_EQ(last.get_future().wait_for(patience / 3), std::future_status::ready);
    }
    host.settle();
    EXPECT_EQ(ran, 6);
}

TEST(Queue, NothingBehindATerminationRunsAndAllIsDestroyed) {
    const auto token = std::make_shared<std::atomic<int>>(0);
    {
        Exchange host;
        Gate gate(host.engine);
        host.engine.queueRequest([token] { *token += 1; });
        host.engine.requestTermination();
        host.engine.queueRequest([token] { *token += 10; });  // in the batch of the termination
        gate.open();
        while (host.logger.lines("Exiting thread loop").empty()) std::this_thread::yield();
        host.engine.queueRequest([token] { *token += 10; });  // with no thread left to run it
    }
    EXPECT_EQ(*token, 1);
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(Engine::hasEngine());
}

TEST(LifecycleDeathTest, ProgrammingFaultsStopTheProcess) {
    const auto twice = [] { const Exchange first, second; };
    EXPECT_DEATH(twice(), "zel_http/src/Engine/lifecycle.cpp:.*Assertion `!currentEngine' failed");
    EXPECT_DEATH(Engine::getEngine(), "Assertion `currentEngine' failed");
    const auto thrown = [] {
        Exchange host;
        host.engine.queueRequest([] { throw std::runtime_error("host's own fault"); });
        host.settle();
    };
    EXPECT_DEATH(thrown(), "CurlEngine.*host's own fault");
}

TEST(Lifecycle, WithoutAnEngineARequestDoesNothing) {
    const auto request = probe("http://127.0.0.1:1/");
    request->runRequest();
    request->tryToCancelRequest();
    request->pauseRequest();
    request->resumeRequest();
    ProbeRequest unowned("http://127.0.0.1:1/");
    EXPECT_EQ(unowned.getResponseCode(), 4294967295U);
    const Exchange host;
    EXPECT_THROW(unowned.runRequest(), std::bad_weak_ptr);
    EXPECT_THROW(unowned.tryToCancelRequest(), std::bad_weak_ptr);
    EXPECT_EQ(request->outcomes, 0);
}

/// A program that the host executes gets neither a connection nor what wakes the engine.
TEST(Lifecycle, DescriptorsAreNotInherited) {
    Exchange host;
    const loopback::Origin origin;
    const std::string url = origin.url("/hello");
    EXPECT_EQ(host.perform(url), "200 hello");
    int connections = 0;
    for (int descriptor = 3; descriptor < 256; ++descriptor) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        std::array<char, 50> target{};
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        const bool opened = readlink(link.c_str(), target.data(), target.size() - 1) > 0;
        const bool connection =
            getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            url.find(":" + std::to_string(ntohs(peer.sin_port)) + "/") != std::string::npos;
        if (connection) ++connections;
        if (connection || (opened && std::string(target.data()) == "anon_inode:[eventfd]")) {
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << target.data();
        }
    }
    EXPECT_GE(connections, 1);
}

TEST(Lifecycle, AFinishedRequestLeavesAnEngineThatGoesAlone) {
    std::promise<void> settled, gone;
    std::thread fsm;
    const auto request = probe("http://127.0.0.1:1/");
    {
        Exchange host([&](const auto& outcome) {
            fsm = std::thread([&, outcome] {
                outcome();
                settled.get_future().wait();
                request->tryToCancelRequest();  // what a client's requests end with
                gone.get_future().wait();
            });
        });
        EXPECT_NE(request->runToOutcome(), "none came");
        host.settle();
        settled.set_value();
    }  // unordered with the cancel, which the thread sanitizer sees
    gone.set_value();
    fsm.join();
}

TEST(Control, CancelledRequestsHearNothing) {
    Exchange host;
    std::atomic<int> connections{0};
    ScriptedServer server([&](Socket& socket) {
        ++connections;
        waitForClose(socket);
    });
    const auto at_once = probe(server.url());
    Gate gate(host.engine);
    at_once->runRequest();
    at_once->tryToCancelRequest();
    gate.open();
    const auto running = probe(server.url());
    running->runRequest();
    while (connections == 0) std::this_thread::yield();
    running->tryToCancelRequest();
    running->tryToCancelRequest();
    const loopback::Origin origin;
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");  // the sentinel
    EXPECT_EQ(at_once->outcomes + running->outcomes, 0);
    EXPECT_EQ(at_once.use_count() + running.use_count(), 2);
    EXPECT_EQ(connections, 1);
}

/// Before the start, an upload waits with its body; while a download runs, the server finds that
/// the client takes no more. A later request completes meanwhile. After the resume all arrives.
TEST(Control, PauseHoldsAndResumeGoesOn) {
    constexpr std::size_t length = std::size_t{64} * 1024 * 1024;
    Exchange host;
    const loopback::Origin origin;
    std::promise<void> sentinel_done;
    std::promise<std::size_t> body_by_then;
    std::atomic<bool> paused{false};
    std::atomic<bool> stalled{false};
    ScriptedServer server([&](Socket& socket) {
        const std::string request = readRequest(socket);
        if (request.rfind("PUT", 0) == 0) {
            sentinel_done.get_future().wait();
            body_by_then.set_value(request.size() - request.find("\r\n\r\n") - 4 +
                                   socket.available());
            std::string body(1000, '\0');
            boost::asio::read(socket, boost::asio::buffer(body));
            write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
            return;
        }
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
        const std::string block(65536, 's');
        for (std::size_t sent = 0; sent < length; sent += block.size()) {
            pollfd writable{socket.native_handle(), POLLOUT, 0};
            if (poll(&writable, 1, 300) == 0) stalled = true;
            write(socket, block);
            while (!paused) std::this_thread::yield();
        }
    });
    const auto upload = probe("-X PUT -d " + std::string(1000, 'u') + " " + server.url());
    {
        Gate gate(host.engine);
        upload->pauseRequest();
        upload->runRequest();
        gate.open();
    }
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");
    sentinel_done.set_value();
    EXPECT_EQ(body_by_then.get_future().get(), 0U);
    upload->resumeRequest();
    EXPECT_EQ(upload->outcome(), "200 end");

    const auto download = probe(server.url());
    download->runRequest();
    while (download->received == 0) std::this_thread::yield();
    download->pauseRequest();
    download->pauseRequest();
    host.settle();
    paused = true;
    while (!stalled) std::this_thread::yield();
    const std::size_t held = download->received;
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");
    EXPECT_EQ(download->received, held);
    EXPECT_LT(held, length);
    download->resumeRequest();
    EXPECT_EQ(download->outcome(), "200 end");
    EXPECT_EQ(download->received, length);
}

/// The pauses meet an answer that is there already: libcurl (7.88) keeps its header lines and hands
/// several over in one call.
TEST(Control, HeaderLinesComeOneByOneAfterAPause) {
    Exchange host;
    std::promise<void> asked, answer, answered;
    const ScriptedServer server([&](Socket& socket) {
        readRequest(socket);
        asked.set_value();
        answer.get_future().wait();
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\nSet-Cookie: a=b\r\n\r\n0123456789");
        answered.set_value();
    });
    const auto request = probe(server.url());
    int lines = 0;
    request->on_header = [&] { ++lines; };
    request->runRequest();
    asked.get_future().wait();
    Gate gate(host.engine);
    host.engine.queueRequest([&] {  // all in one batch
        answer.set_value();
        answered.get_future().wait();
    });
    request->pauseRequest();
    request->resumeRequest();
    request->pauseRequest();
    gate.open();
    host.settle();
    request->resumeRequest();
    EXPECT_EQ(request->outcome(), "200 end");
    EXPECT_EQ(lines, 4);
    EXPECT_EQ(request->body, "0123456789");
}

TEST(Control, RunOnOneThreadPausedAndResumedOnAnother) {
    const loopback::Origin origin;
    const Exchange host;
    for (int i = 0; i < 200; ++i) {
        const auto request = probe(origin.url("/hello"));
        std::thread other([&] {
            request->pauseRequest();
            request->resumeRequest();
        });
        request->runRequest();
        other.join();
        ASSERT_EQ(request->outcome(), "200 end");
    }
}

/// Pause and resume act on the transfer with the lower handle, which is now and then the second:
/// what they held of the first before that goes on.
TEST(Control, ARequestThatRunsAgainWhileItPausesCompletesTwice) {
    const loopback::Origin origin;
    Exchange host;
    std::vector<std::shared_ptr<ProbeRequest>> ballast;
    for (int i = 0; i < 10; ++i) {
        const auto request = probe(origin.url("/bytes/200000"));
        std::promise<void> paused;
        std::atomic<bool> again{false};
        request->on_data = [&] {
            if (again.exchange(true)) return;
            request->runRequest();
            request->pauseRequest();
            paused.set_value();
        };
        ballast.push_back(probe(origin.url("/hello")));
        ballast.back()->runRequest();
        request->runRequest();
        paused.get_future().wait();
        host.settle();
        request->resumeRequest();
        host.runUntil([&] { return request->outcomes == 2; });
        EXPECT_EQ(request->received, 400000U);
    }
}

/// libcurl reads on for many blocks before the engine comes to its queue.
TEST(Control, APauseHoldsTheNextBlock) {
    constexpr std::size_t length = std::size_t{16} * 1024 * 1024;
    Exchange host;
    const loopback::Origin origin;
    const auto request = probe(origin.url("/bytes/" + std::to_string(length)));
    std::promise<std::size_t> first;
    std::atomic<bool> first_seen{false};
    request->on_data = [&] {
        if (first_seen.exchange(true)) return;
        request->pauseRequest();
        first.set_value(request->received);
    };
    request->runRequest();
    const std::size_t held = first.get_future().get();
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");
    EXPECT_EQ(request->received, held);
    request->resumeRequest();
    EXPECT_EQ(request->outcome(), "200 end");
    EXPECT_EQ(request->body, loopback::bodyOf(length));
}

}  // namespace
}  // namespace test
