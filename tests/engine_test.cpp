#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <future>
#include <optional>
#include <thread>

#include "origin.h"
#include "support/probe_request.h"
#include "support/scripted_server.h"

namespace {

std::atomic<int> select_calls{0};
std::atomic<int> poll_calls{0};
std::atomic<bool> eventfd_fails{false};

}  // namespace

// The engine's two ways to wait, counted on the way through.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                      timeval* timeout) {
    ++select_calls;
    timespec wait{timeout->tv_sec, timeout->tv_usec * 1000};
    return pselect(count, readable, writable, exceptional, &wait, nullptr);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" CURLMcode curl_multi_poll(CURLM* multi, curl_waitfd* extra, unsigned count, int timeout,
                                     int* ready) {
    ++poll_calls;
    static const auto next =
        reinterpret_cast<decltype(&curl_multi_poll)>(dlsym(RTLD_NEXT, "curl_multi_poll"));
    return next(multi, extra, count, timeout, ready);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int eventfd(unsigned value, int flags) noexcept {
    return eventfd_fails ? -1 : static_cast<int>(syscall(SYS_eventfd2, value, flags));
}

namespace test {
namespace {

using zel::http::Engine;
using Task = std::function<void()>;

/// Holds the engine thread until released, so that closures pile up behind it.
class Gate {
public:
    explicit Gate(Engine& engine) {
        auto entered = std::make_shared<std::promise<void>>();
        engine.queueRequest([entered, open = open_.get_future().share()] {
            entered->set_value();
            open.wait();
        });
        entered->get_future().wait();
    }
    void open() { open_.set_value(); }

private:
    std::promise<void> open_;
};

TEST(Queue, RunsInOrderAndNestedClosuresInTheNextPass) {
    Host host;
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
}

TEST(Queue, NothingBehindATerminationRunsAndAllIsDestroyed) {
    const auto token = std::make_shared<int>(0);
    std::atomic<bool> ran{false};
    const Task behind = [&ran, token] { ran = true; };
    std::atomic<int> before{0};
    {
        Host host;
        Gate gate(host.engine);
        host.engine.queueRequest([&] { ++before; });
        host.engine.requestTermination();
        host.engine.queueRequest(behind);  // in the batch of the termination
        gate.open();
        while (host.logger.lines("Exiting thread loop").empty()) std::this_thread::yield();
        host.engine.queueRequest(behind);  // with no thread left to run it
        EXPECT_TRUE(Engine::hasEngine());
    }
    EXPECT_EQ(before, 1);
    EXPECT_FALSE(ran);
    EXPECT_EQ(token.use_count(), 2);  // this one and `behind`
    EXPECT_FALSE(Engine::hasEngine());
}

TEST(Lifecycle, OneEngineAtATimeAndAgain) {
    for (int round = 0; round < 3; ++round) {
        Host host;
        EXPECT_EQ(Engine::getEngine(), &host.engine);
        host.settle();
    }
    EXPECT_FALSE(Engine::hasEngine());
}

TEST(LifecycleDeathTest, ProgrammingFaultsStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Host first;
            Host second;
        },
        "zel_http/src/Engine/lifecycle.cpp:.*Assertion `!currentEngine' failed");
    EXPECT_DEATH(Engine::getEngine(), "Assertion `currentEngine' failed");
    EXPECT_DEATH(
        {
            Host host;
            host.engine.queueRequest([] { throw std::runtime_error("host's own fault"); });
            host.settle();
        },
        "CurlEngine.*host's own fault");
    EXPECT_DEATH(
        {
            eventfd_fails = true;
            Host host;
        },
        "Error creating eventfd");
}

TEST(Lifecycle, EngineThreadHasItsNameAndStack) {
    Host host;
    std::promise<void> checked;
    host.engine.queueRequest([&] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_STREQ(name, "CurlEngine");
        pthread_attr_t actual;
        pthread_getattr_np(pthread_self(), &actual);
        std::size_t stack = 0;
        pthread_attr_getstacksize(&actual, &stack);
        pthread_attr_destroy(&actual);
        EXPECT_GE(stack, 262144U);
        EXPECT_LT(stack, 8U * 1024 * 1024);
        checked.set_value();
    });
    checked.get_future().wait();
}

TEST(Lifecycle, DestroyedWithTransfersRunningItNotifiesNobody) {
    const auto arrived = std::make_shared<std::promise<void>>();
    ScriptedServer server([arrived](Peer& peer) {
        peer.read();
        arrived->set_value();
        peer.waitForClose();
    });
    const auto running = probe(server.url());
    const auto queued = probe(server.url());
    {
        Host host;
        running->runRequest();
        arrived->get_future().wait();
        host.engine.requestTermination();
        queued->runRequest();
    }
    EXPECT_EQ(running->outcomes + queued->outcomes, 0);
    EXPECT_EQ(running.use_count() + queued.use_count(), 2);  // nobody else holds them
    running->tryToCancelRequest();                           // without an engine: nothing
    running->runRequest();
}

/// Both ways to wait, with and without descriptors above what `select` can take.
TEST(Wait, SelectAndPollByTheLimitOfDescriptors) {
    struct Row {
        rlim_t limit;
        int occupied;
        bool polls;
    };
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const tool::Origin origin;
    for (const Row& row : {Row{FD_SETSIZE, 0, false}, Row{FD_SETSIZE + 1, 0, true},
                           Row{FD_SETSIZE + 200, FD_SETSIZE + 10, true}}) {
        const rlimit limit{row.limit, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        std::vector<int> occupied;
        while (static_cast<int>(occupied.size()) < row.occupied) {
            occupied.push_back(open("/dev/null", O_RDONLY));
        }
        select_calls = poll_calls = 0;
        {
            Host host;
            EXPECT_EQ(probe(origin.url("/bytes/300000"))->runToOutcome(), "200 end");
            host.settle();
            // Woken through its descriptor, or the round trips would take 30 s each.
            EXPECT_FALSE(host.logger.lines("waking up").empty());
        }
        EXPECT_EQ(poll_calls > 0, row.polls) << row.limit;
        EXPECT_EQ(select_calls > 0, !row.polls) << row.limit;
        for (const int descriptor : occupied) close(descriptor);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST(Control, WithoutAnOwnerOrAnEngine) {
    ProbeRequest plain("http://127.0.0.1/");
    plain.runRequest();  // no engine: nothing
    plain.pauseRequest();
    plain.resumeRequest();
    EXPECT_EQ(plain.getResponseCode(), 4294967295U);
    EXPECT_EQ(plain.xauthCookieDomain(), "");
    Host host;
    EXPECT_THROW(plain.runRequest(), std::bad_weak_ptr);
    EXPECT_THROW(plain.pauseRequest(), std::bad_weak_ptr);
    plain.pauseRequest();  // recorded before it threw
}

TEST(Control, CancelledRequestsHearNothing) {
    Host host;
    std::atomic<int> connections{0};
    ScriptedServer server([&](Peer& peer) {
        ++connections;
        peer.read();
        peer.waitForClose();
    });
    const auto atOnce = probe(server.url());
    Gate gate(host.engine);
    atOnce->runRequest();
    atOnce->tryToCancelRequest();
    gate.open();
    const auto running = probe(server.url());
    running->runRequest();
    while (connections == 0) std::this_thread::yield();
    running->tryToCancelRequest();
    running->tryToCancelRequest();
    const tool::Origin origin;
    EXPECT_EQ(probe(origin.url("/hello"))->runToOutcome(), "200 end");  // the sentinel
    EXPECT_EQ(atOnce->outcomes + running->outcomes, 0);
    EXPECT_EQ(atOnce.use_count() + running.use_count(), 2);
    EXPECT_EQ(connections, 1);
}

/// Pauses before the start or at the first byte: the server finds that the client takes no more,
/// a later request completes meanwhile, and nothing of the body arrives until the resume.
TEST(Control, PauseHoldsAndResumeDelivers) {
    constexpr std::size_t length = std::size_t{64} * 1024 * 1024;
    const tool::Origin origin;
    for (const bool before_start : {true, false}) {
        std::promise<std::size_t> stalled;
        ScriptedServer server([&](Peer& peer) {
            peer.read();
            peer.write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
            const std::size_t sent = peer.writeUntilStalled(length);
            stalled.set_value(sent);
            peer.write(std::string(length - sent, 's'));
        });
        Host host;
        const auto request = probe(server.url());
        if (before_start) request->pauseRequest();
        request->runRequest();
        if (!before_start) {
            while (request->received == 0) std::this_thread::yield();
            request->pauseRequest();
        }
        request->pauseRequest();  // a second one queues nothing
        if (before_start) {
            // Asked for before the engine knew the request, it reaches it now.
            request->resumeRequest();
            request->pauseRequest();
        }
        EXPECT_LT(stalled.get_future().get(), length);
        const std::size_t held = request->received;
        EXPECT_EQ(probe(origin.url("/hello"))->runToOutcome(), "200 end");
        EXPECT_EQ(request->received, held);
        EXPECT_EQ(request->outcomes, 0);
        request->resumeRequest();
        EXPECT_EQ(request->outcome(), "200 end");
        EXPECT_EQ(request->received, length);
    }
}

}  // namespace
}  // namespace test
