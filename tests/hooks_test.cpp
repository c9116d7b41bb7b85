// The hooks, replaced by definitions in the executable.

#include "zel_http/engine_hooks.h"

#include <gtest/gtest.h>

#include "origin.h"
#include "support/probe_request.h"

namespace {

std::atomic<int> added{0};
std::atomic<int> attached{0};
std::atomic<int> performed{0};
std::atomic<bool> refuse{false};

}  // namespace

void engine_request_added() { ++added; }

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    ++attached;
    return refuse ? CURLM_OUT_OF_MEMORY : curl_multi_add_handle(multi, easy);
}

CURLMcode engine_curl_multi_perform(void* multi, int* running) {
    ++performed;
    return curl_multi_perform(multi, running);
}

namespace test {
namespace {

TEST(Hooks, TheExecutablesDefinitionsAreCalled) {
    Host host;
    const tool::Origin origin;
    EXPECT_EQ(probe(origin.url("/hello"))->runToOutcome(), "200 end");
    EXPECT_EQ(added, 1);
    EXPECT_EQ(attached, 1);
    EXPECT_GT(performed, 0);
}

TEST(HooksDeathTest, ARefusedHandleStopsTheProcessWithItsReason) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            refuse = true;
            Host host;
            probe("http://127.0.0.1:1/")->runToOutcome();
        },
        testing::KilledBySignal(SIGABRT), "refuses a transfer: Out of memory");
}

}  // namespace
}  // namespace test
