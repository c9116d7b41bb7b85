// The hooks, replaced by definitions in the executable.

#include "zel_http/engine_hooks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "loopback/scripted_server.h"
#include "support/probe_request.h"

namespace {

std::atomic<int> added{0};
std::atomic<int> attached{0};
std::atomic<bool> refuse{false};
std::atomic<bool> throws{false};
std::atomic<int> performs_a_pass{1};
std::atomic<std::size_t> performs{0};
std::atomic<std::size_t> blocks_of_pass{0};
std::size_t most_blocks = 0;

}  // namespace

void engine_request_added() {
    ++added;
    if (throws) throw std::runtime_error("no room");
}

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    ++attached;
    return refuse ? CURLM_OUT_OF_MEMORY : curl_multi_add_handle(multi, easy);
}

CURLMcode engine_curl_multi_perform(void* multi, int* running) {
    CURLMcode result = CURLM_OK;
    for (int i = 0; i < performs_a_pass; ++i) {
        if (i != 0) curl_multi_poll(multi, nullptr, 0, 10, nullptr);
        blocks_of_pass = 0;
        result = curl_multi_perform(multi, running);
        most_blocks = std::max(most_blocks, blocks_of_pass.load());
        ++performs;
    }
    return result;
}

namespace test {
namespace {

TEST(Hooks, TheExecutablesDefinitionsAreCalled) {
    Exchange host;
    const loopback::Origin origin;
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");
    EXPECT_EQ(added, 1);
    EXPECT_EQ(attached, 1);
    // In every pass, those that find nothing but a wake-up too.
    std::size_t passes = 0;
    host.engine.queueRequest([&] {
        passes = host.logger.lines("Engine::doCurlProcessing: ").size();
        passes = host.logger.lines("Engine::doCurlProcessing").size() - passes - performs;
    });
    host.settle();
    EXPECT_EQ(passes, 0U);
    throws = true;  // once the request is queued
    EXPECT_THROW(host.perform(origin.url("/silence")), std::runtime_error);
    throws = false;
    host.settle();
    host.loop.poll();                       // it may have been answered before its end
    EXPECT_EQ(host.client.use_count(), 1);  // nothing of it is left
    EXPECT_EQ(host.perform(origin.url("/hello")), "200 hello");
}

/// Of a body in many small chunks a pass takes a share, and the rest is held for the next ones.
TEST(Hooks, OneTransferLeavesRoomInAPassForOthers) {
    constexpr int chunks = 300000;
    std::string body = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < chunks; ++i) body += "1\r\nx\r\n";
    Exchange host;
    const loopback::ScriptedServer server(body + "0\r\n\r\n");
    const auto request = probe(server.url());
    request->on_data = [] { ++blocks_of_pass; };
    EXPECT_EQ(request->runToOutcome(), "200 end");
    EXPECT_EQ(request->body, std::string(chunks, 'x'));
    host.settle();
    EXPECT_LE(most_blocks, 512U);
}

/// A pause that was asked for too early meets a body that is there already: it is kept back, and
/// when the request refuses it on the resume, libcurl reports a success that is none.
TEST(Hooks, ALatePauseHoldsTheBodyAndAFailedResumeIsNoSuccess) {
    Exchange host;
    const loopback::Origin origin;
    for (const bool refuses : {false, true}) {
        const auto request = probe(origin.url("/bytes/2000?close"));
        if (refuses) request->on_data = [] { throw std::runtime_error("enough"); };
        performs_a_pass = 30;
        host.engine.queueRequest([&] {  // both for one pass
            request->runRequest();
            request->pauseRequest();
        });
        for (int i = 0; i < 2; ++i)
            host.settle();  // the pass of the closure, and the one of what it queues
        performs_a_pass = 1;
        EXPECT_EQ(request->received, 0U);
        EXPECT_EQ(request->outcomes, 0);
        request->resumeRequest();
        EXPECT_EQ(request->outcome(),
                  refuses
                      ? "200 <Protocol failure> Failed writing received data to disk/application"
                      : "200 end");
        EXPECT_EQ(request->received, 2000U);
    }
}

TEST(HooksDeathTest, ARefusedHandleStopsTheProcessWithItsReason) {
    const auto refused = [] {
        refuse = true;
        Exchange().perform("http://127.0.0.1:1/");
    };
    EXPECT_EXIT(refused(), testing::KilledBySignal(SIGABRT), "refuses a transfer: Out of memory");
}

}  // namespace
}  // namespace test
