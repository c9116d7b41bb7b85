// Every allocation that a request costs the engine thread fails once, each in a process of its own.

#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <sstream>
#include <thread>

#include "loopback/tls_servers.h"
#include "support/engine_test.h"

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
namespace {

/// Down to the one that fails; 0 when none does.
std::atomic<long> allocations_left{0};
thread_local bool counts_allocations = false;

/// The `nth` allocation that the calling thread makes from now on fails, libraries' own included.
void failAllocation(long nth) {
    allocations_left = nth;
    counts_allocations = nth != 0;
}

bool allocationFails() {
    if (!counts_allocations || allocations_left == 0 || --allocations_left != 0) return false;
    counts_allocations = false;
    return true;
}

}  // namespace

// The C library's own, by their other names.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) noexcept {
    return allocationFails() ? nullptr : __libc_malloc(size);
}
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
void* calloc(std::size_t count, std::size_t size) noexcept {
    return allocationFails() ? nullptr : __libc_calloc(count, size);
}
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
void* realloc(void* memory, std::size_t size) noexcept {
    return allocationFails() ? nullptr : __libc_realloc(memory, size);
}
}

namespace test {

// A handshake makes thousands of allocations, nearly all inside OpenSSL. All up to here fail, which
// is more than a plain request makes, and then one of so many; an emulator takes its time.
#ifdef __arm__
constexpr long each_up_to = 20;
constexpr long one_of = 499;
#else
constexpr long each_up_to = 180;
constexpr long one_of = 211;
#endif

/// Serves a request with all that came, as the origin or as a proxy and the origin behind it; not
/// one after the other, since a transfer that failed may leave its connection open.
void mirror(Socket& accepted) {
    std::thread([socket = std::move(accepted)]() mutable {
        std::string request = readRequest(socket);
        if (request.rfind("CONNECT", 0) == 0) {
            write(socket, "HTTP/1.1 200 OK\r\n\r\n");
            request += readRequest(socket);
        }
        write(socket, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + request);
    }).detach();
}

struct Scenario {
    const char* name;
    /// What stands in the outcome that no fault has touched.
    std::string mark;
    std::function<Get(const std::vector<std::string>& servers)> request;
};

/// All that a caller learns.
std::string allOf(const zel::http::ResponseData& data) {
    std::ostringstream text;
    text << data.status << '\n';
    for (const auto& [name, value] : data.headers) text << name << ": " << value << '\n';
    return text.str() + data.body;
}
std::string allOf(const zel::http::ErrorData& data) { return "error: " + textOf(data); }

class Memory : public EngineTest, public testing::WithParamInterface<Scenario> {
protected:
    /// The outcome on an engine thread whose `nth` allocation fails.
    std::string outcomeWithout(long nth) {
        std::string outcome;
        const auto keep = [&](auto, const auto& data) { outcome = allOf(data); };
        engine->queueRequest([&] { failAllocation(nth); });
        client->start_request(GetParam().request(servers), {}, keep, keep);
        runUntil("the outcome", [&] { return !outcome.empty(); });
        settle();  // what follows an outcome counts too
        return outcome;
    }
    /// Without log lines, which have allocations of their own; with the proxy for a host of its
    /// own.
    void start() {
        startEngine(atOnce, &none);
        if (GetParam().request(servers).url.find("0.0.0.0") != std::string::npos) {
            engine->setProxyConfig("http://" + servers[4], "device", "secret");
        }
    }
    /// Ends the process: with status 0 when no allocation was left to fail, 1 when all is as it
    /// must be (the exact answer or an error, and the exact answer to the next request), else 2.
    [[noreturn]] void lose(long nth, const std::string& right) {
        alarm(10);
        mallopt(M_PERTURB, 0xa5);  // what is used before it is written, or once it is freed, shows
        start();
        const std::string first = outcomeWithout(nth);
        const bool failed = allocations_left.exchange(0) == 0;
        const std::string next = outcomeWithout(0);
        const bool good = first == right || (failed && first.rfind("error: ", 0) == 0);
        std::cerr << "first: " << first << "\nnext: " << next << '\n';
        _exit(!good || next != right ? 2 : failed ? 1 : 0);
    }

    RecordingLogger none{-1};
    std::vector<std::string> servers;
};

TEST_P(Memory, RunsOutAtEachAllocationOnce) {
    engine.reset();
    const ServerProcess process([](const ServerProcess::Ready& ready) {
        const TlsServers tls;
        const ScriptedServer proxy(mirror);
        ready({tls.local().url("/mirror"), tls.elsewhere().url("/mirror"),
               tls.mutual().url("/mirror"), tls.certificates().file(""), proxy.authority()});
    });
    servers = process.addresses();
    start();
    const std::string right = outcomeWithout(0);
    ASSERT_NE(right.find(GetParam().mark), std::string::npos) << right;
    engine.reset();
    testing::FLAGS_gtest_death_test_style = "fast";  // no thread is left that a fork would miss
    bool whole = false;
    long nth = 1;
    for (; !whole && !HasFailure(); nth += nth < each_up_to ? 1 : one_of) {
        const auto ended = [&](int status) {
            whole = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            const bool named = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
            return whole || named || (WIFEXITED(status) && WEXITSTATUS(status) == 1);
        };
        EXPECT_EXIT(lose(nth, right), ended, "next: |std::bad_alloc|refuses a transfer") << nth;
    }
    RecordProperty("outcome", std::to_string(nth) + " allocations");
}

Get own(const std::string& url) {
    return Get(url).header("X-Own", "value").header("User-Agent", "own");
}
const std::string body(5000, 'b');

// Without a query: libcurl sends a request for which it could not copy its query without one.
const Scenario scenarios[] = {
    {"POST behind a redirect", "GET /mirror",
     [](const auto&) { return own(origin("/redirect/mirror")).sends(Method::POST, body); }},
    {"PUT with a login", "welcome",
     [](const auto&) {
         return own(origin("/private")).sends(Method::PUT, body).login("device", "secret:word");
     }},
    {"proxy", "CONNECT 0.0.0.0",  // which is no host that bypasses it, but would be served
     [](const auto& to) { return own("http://0.0.0.0" + to[4].substr(9) + "/mirror"); }},
    {"name of another", "error: <Protocol",
     [](const auto& to) { return own(to[1]).trusting(to[3] + "root.pem"); }},
    {"client certificate", "GET /mirror",
     [](const auto& to) {
         return own(to[2])
             .trusting(to[3] + "root.pem")
             .identity(to[3] + "client.pem", to[3] + "client.key");
     }},
};
INSTANTIATE_TEST_SUITE_P(Engine, Memory, testing::ValuesIn(scenarios), nameOf<Scenario>);

using ClientMemory = EngineTest;

TEST_F(ClientMemory, MayRunOutInACancel) {
    for (long nth = 1; nth <= 8; ++nth) {
        int outcomes = 0;
        const auto count = [&](const auto&) { ++outcomes; };
        auto handle = client->start_request(Get(origin("/silence")).within(50), {}, count, count);
        failAllocation(nth);
        handle.cancel();
        failAllocation(0);
        outcomeOf(Get(origin("/silence")).within(100));
        EXPECT_EQ(outcomes, 0) << nth;
    }
}

}  // namespace test
#endif
