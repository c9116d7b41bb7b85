// Every allocation that a request costs the engine thread fails once, each in a process of its own.

#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "loopback/tls_servers.h"
#include "support/engine_test.h"

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)

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

/// All that a caller learns.
std::string allOf(const zel::http::ResponseData& data) {
    return textOf(data) + testing::PrintToString(data.headers) + data.body;
}
std::string allOf(const zel::http::ErrorData& data) { return "error: " + textOf(data); }

class Memory : public EngineTest {
protected:
    /// The outcome on an engine thread whose `nth` allocation fails.
    std::string outcomeWithout(long nth, const RequestConfig& request) {
        std::string outcome;
        const auto keep = [&](auto, const auto& data) { outcome = allOf(data); };
        engine->queueRequest([&] { failAllocation(nth); });
        client->start_request(request, {}, keep, keep);
        runUntil("the outcome", [&] { return !outcome.empty(); });
        settle();  // what follows an outcome counts too
        return outcome;
    }
    /// Ends the process: with status 0 when no allocation was left to fail, 1 when all is as it
    /// must be (the exact answer or an error, and the exact answer to the next request), else 2.
    [[noreturn]] void lose(long nth, const RequestConfig& request, const std::string& right) {
        alarm(10 * ZEL_HTTP_SLOWNESS);
        mallopt(M_PERTURB, 0xa5);  // what is used before it is written, or once it is freed, shows
        startEngine(&none);
        const std::string first = outcomeWithout(nth, request);
        const bool failed = allocations_left.exchange(0) == 0;
        const std::string next = outcomeWithout(0, request);
        const bool good = first == right || (failed && first.rfind("error: ", 0) == 0);
        std::cerr << "first: " << first << "\nnext: " << next << '\n';
        _exit(!good || next != right ? 2 : failed ? 1 : 0);
    }
    /// A handshake makes thousands of allocations, nearly all inside OpenSSL. As many fail as a
    /// plain request makes, and then one of so many; an emulator takes its time.
    void loseEach(const RequestConfig& request, const std::string& mark) {
        constexpr bool emulated = ZEL_HTTP_SLOWNESS > 1;
        constexpr long each_up_to = emulated ? 20 : 180, one_of = emulated ? 499 : 211;
        startEngine(&none);
        const std::string right = outcomeWithout(0, request);
        ASSERT_NE(right.find(mark), std::string::npos) << right;
        engine.reset();
        bool whole = false;
        for (long nth = 1; !whole && !HasFailure(); nth += nth < each_up_to ? 1 : one_of) {
            const auto ended = [&](int status) {
                whole = WIFEXITED(status) && WEXITSTATUS(status) == 0;
                const bool named = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
                return whole || named || (WIFEXITED(status) && WEXITSTATUS(status) == 1);
            };
            EXPECT_EXIT(lose(nth, request, right), ended,
                        "next: |std::bad_alloc|refuses a transfer")
                << "allocation " << nth << " of " << mark;
        }
    }

    RecordingLogger none{-1};  // log lines allocate
};

TEST_F(Memory, RunsOutAtEachAllocationOfARequest) {
    engine.reset();
    const ServerProcess process([](const ServerProcess::Ready& ready) {
        const TlsServers tls;
        ready({tls.elsewhere().url("/mirror"), tls.mutual().url("/mirror"),
               tls.certificates().file("")});
    });
    const auto& servers = process.addresses();
    testing::FLAGS_gtest_death_test_style = "fast";  // no thread is left that a fork would miss
    const auto own = [&](const std::string& url) {
        return Get(url)
            .header("X-Own", "value")
            .header("User-Agent", "own")
            .trusting(servers[2] + "root.pem");
    };
    const std::string body(5000, 'b');
    // Without a query: libcurl sends a request for which it could not copy its query without one.
    loseEach(own(origin("/redirect/mirror")).sends(Method::POST, body), "GET /mirror");
    loseEach(own(origin("/private")).sends(Method::PUT, body).login("device", "secret:word"),
             "welcome");
    loseEach(own(servers[0]), "error: <Protocol");  // the name of another
    loseEach(own(servers[1]).identity(servers[2] + "client.pem", servers[2] + "client.key"),
             "GET /mirror");
}

}  // namespace test
#endif
