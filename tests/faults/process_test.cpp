// Descriptors that run out, that are too many for `select`, and one that somebody else closes.

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <boost/algorithm/string/join.hpp>
#include <filesystem>
#include <set>

#include "support/engine_test.h"

/// The longest wait by `poll`, in milliseconds.
std::atomic<int> longest_poll{0};

extern "C" CURLMcode curl_multi_poll(CURLM* multi_handle, curl_waitfd* extra_fds,
                                     unsigned extra_nfds, int timeout_ms, int* ret) {
    static const auto next = test::replaced(&curl_multi_poll, "curl_multi_poll");
    longest_poll = std::max(longest_poll.load(), timeout_ms);
    return next(multi_handle, extra_fds, extra_nfds, timeout_ms, ret);
}

namespace test {

constexpr std::size_t crowd = 2000;

class Process : public EngineTest {
protected:
    void TearDown() override {
        for (const int descriptor : low_) close(descriptor);
        EngineTest::TearDown();
    }
    /// Takes all descriptors below `FD_SETSIZE`.
    void takeLowDescriptors() {
        many_ = std::make_unique<DescriptorLimit>(rlim_t{2} * FD_SETSIZE + crowd);
        while (low_.empty() || low_.back() < FD_SETSIZE) {
            low_.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
    }
    /// From now on the engine waits with `poll`: its own descriptor is too high for `select`.
    void restartWithPoll() {
        engine.reset();
        takeLowDescriptors();
        startEngine();
    }
    /// The outcomes, each once, of as many requests, attached in one pass.
    std::string crowdOutcomes(const std::string& url) {
        std::vector<std::shared_ptr<HostRequest>> requests(crowd);
        whileEngineIsHeld([&] {
            for (auto& request : requests) (request = hostRequest(url))->runRequest();
        });
        std::set<std::string> outcomes;
        for (const auto& request : requests) outcomes.insert(request->outcome());
        return boost::algorithm::join(outcomes, ", ");
    }

private:
    std::unique_ptr<DescriptorLimit> many_;
    std::vector<int> low_;
};

TEST_F(Process, Has1024DescriptorsFor2000Requests) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs a descriptor to look at an object's type";
#endif
    const DescriptorLimit usual(FD_SETSIZE);
    expectOutcome(crowdOutcomes(origin("/hello")),
                  "0 <Failed to establish connection> " +
                      std::string(curl_easy_strerror(CURLE_COULDNT_CONNECT)) + ", 200 end");
}

/// In flight together, which the origin makes sure of; without and with a high one of the engine.
TEST_F(Process, Has2000RequestsInFlightBeyondSelect) {
    takeLowDescriptors();
    expectOutcome(crowdOutcomes(origin("/together/2000")), "200 end");
    engine.reset();
    startEngine();
    expectOutcome(crowdOutcomes(origin("/together/2000")), "200 end");
}

class Wait : public Process, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        Process::SetUp();
        if (GetParam()) restartWithPoll();
    }
};
INSTANTIATE_TEST_SUITE_P(Loop, Wait, testing::Bool(),
                         [](const auto& row) { return row.param ? "Poll" : "Select"; });

TEST_P(Wait, MakesNoPassesWithoutWork) {
    const std::uint64_t before = passes();
    outcomeOf(Get(origin("/silence")).within(200));
    EXPECT_LT(passes() - before, 30U);
    longest_poll = 0;
    settle();  // its last wait is an idle engine's
    waitFor("a wait", [&] { return !GetParam() || longest_poll != 0; });
    EXPECT_EQ(longest_poll, GetParam() ? 30000 : 0);
}

/// Nothing can wake it any more, so it looks at its queue now and then, and can be destroyed.
TEST_P(Wait, OutlivesWhatWakesIt) {
    Flag queued;
    Flag closed;
    engine->queueRequest([&] {  // between two waits: nothing wakes one that is under way
        queued.await("the end of the wake-up");
        int last = -1;  // libcurl 8.14 has one of its own, made before
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code none;
            if (read_symlink(entry, none) != "anon_inode:[eventfd]") continue;
            last = std::max(last, std::stoi(entry.path().filename()));
        }
        close(last);
        closed.set();
    });
    queued.set();
    closed.await("the engine thread");
    const auto begun = std::chrono::steady_clock::now();
    const std::uint64_t before = passes();
    waitFor("passes", [&] { return passes() > before + 10; });
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(90));
    engine.reset();
}

}  // namespace test
