// The client's promise: exactly one outcome for each request, unless it was cancelled first.

#include <thread>

#include "support/engine_test.h"

namespace test {

using zel::http::Client;
using Handle = oru::AsyncActionHandle<zel::http::ZelHttpClientTag>;
using Lines = std::vector<std::string>;

class ClientTest : public EngineTest {
protected:
    /// Adds "1: 200 hello" to `outcomes` when it comes.
    Client::RequestId start(const std::string& target,
                            const std::function<void(Client::RequestId)>& then = {}) {
        const auto keep = [this, then](Client::RequestId id, const auto& data) {
            EXPECT_EQ(oru::this_thread::get_id(), owner);
            outcomes.push_back(std::to_string(id) + ": " + textOf(data));
            if (then) then(id);
        };
        return client->start_request(Get(origin(target)), {}, keep, keep);
    }
    /// Adds "200 hello" when it comes.
    Handle startHandle(
        const std::string& target, const std::function<void()>& then = [] {}) {
        const auto keep = [this, then](const auto& data) {
            outcomes.push_back(textOf(data));
            then();
        };
        return client->start_request(Get(origin(target)), {}, keep, keep);
    }
    /// What came by the time a later request has its outcome, at least `count`.
    Lines outcomesAfter(std::size_t count) {
        runUntil("outcomes", [&] { return outcomes.size() >= count; });
        const auto own = std::exchange(client, zel::http::createClient(executor, logger));
        outcomeOf(origin("/hello"));
        client = own;
        return outcomes;
    }
    /// Returns once the outcomes of `count` requests are posted to the loop, which stands still.
    void waitForPosted(std::size_t count) {
        waitFor("outcomes", [&] { return logger.lines("runCallbackHandler").size() >= count; });
        settle();
    }

    const unsigned long owner = oru::this_thread::get_id();
    Lines outcomes;
};

TEST_F(ClientTest, IdentifiersAndTwoClients) {
    EXPECT_EQ(start("/hello"), 1U);
    outcomesAfter(1);
    EXPECT_EQ(start(":99999/"), 2U);
    outcomesAfter(2);
    const auto first = std::exchange(client, zel::http::createClient(executor, logger));
    EXPECT_EQ(start("/status/404"), 1U);
    const std::string bad = "<Invalid URL> URL using bad/illegal format or missing URL";
    EXPECT_EQ(outcomesAfter(3), (Lines{"1: 200 hello", "2: " + bad, "1: 404 status 404"}));
    EXPECT_EQ(first->allocate_request_id(), 3U);
    for (int i = 0; i < 300; ++i) start(i % 3 == 0 ? "/status/500" : "/bytes/50000?chunked");
    EXPECT_EQ(outcomesAfter(303).size(), 303U);
}

/// Notes each hand-over to a client, and whether it came as one of several.
class Handovers : public oru::executor {
public:
    explicit Handovers(oru::executor& executor) : executor_(executor) {}
    void post(std::function<void()> task, int priority) override {
        notes += "1 ";
        executor_.post(std::move(task), priority);
    }
    void post_all(std::vector<std::function<void()>> tasks, int priority) override {
        notes += std::to_string(tasks.size()) + "+ ";
        executor_.post_all(std::move(tasks), priority);
    }
    std::string notes;

private:
    oru::executor& executor_;
};

/// Outcomes that come in one pass are handed over in one go where the engine thread does it, and
/// are tasks of their own: the first fails, and the others come in a loop that the second runs.
TEST_F(ClientTest, APassHandsOverOnceForEachExecutor) {
    Handovers notes(executor);
    Handovers others(executor);
    client = zel::http::createClient(notes, logger);
    const auto other = zel::http::createClient(others, logger);
    whileEngineIsHeld([&] {
        start(":99999/", [](Client::RequestId) { throw std::runtime_error("callback"); });
        start(":99999/", [&](Client::RequestId) { loop.poll(); });
        const auto keep = [&](auto, const auto& data) { outcomes.push_back(textOf(data)); };
        other->start_request(Get("x:"), {}, keep, keep);
        start(":99999/");
    });
    EXPECT_EQ(notes.notes + others.notes, "3+ 1+ ");
    EXPECT_THROW(loop.poll(), std::runtime_error);
    EXPECT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(loop.poll(), 1U);  // which ran the others
    EXPECT_EQ(outcomes.size(), 4U);
    client = zel::http::createClient(executor, logger);
}

TEST_F(ClientTest, CancelBeforeDuringAndAfterTheTransfer) {
    client->cancel_request(start("/hello"));  // 1: before
    const auto during = start("/silence");
    const auto posted = start("/hello");
    waitForPosted(1);
    // Also again, and what never was.
    for (const auto id : {during, posted, posted, 99U}) client->cancel_request(id);
    start("/hello", [&](Client::RequestId id) {  // 4: after, by its own callback
        client->cancel_request(id);
        start("/status/204");
    });
    EXPECT_EQ(outcomesAfter(2), (Lines{"4: 200 hello", "5: 204 "}));
    EXPECT_EQ(logger.lines("Cancelling"),
              (Lines{"info: HTTP(1) Cancelling", "info: HTTP(2) Cancelling",
                     "info: HTTP(3) Cancelling"}));
    EXPECT_TRUE(logger.lines("HTTP(3) <=").empty());
}

TEST_F(ClientTest, ALogFilterMayCancelItsOwnRequest) {
    zel::http::LogFilter filter;
    const auto calls = std::make_shared<int>(0);
    filter.headers_filter = [this, calls](const zel::http::HeaderMap& headers) {
        if (++*calls == 2) client->cancel_request(1);  // for the response
        EXPECT_GE(calls.use_count(), 2);               // lives to its end
        return headers;
    };
    const auto unwanted = [](auto, const auto&) { ADD_FAILURE(); };
    client->start_request(Get(origin("/hello")), filter, unwanted, unwanted);
    start("/status/204");
    runUntil("the response", [&] { return *calls == 2; });
    EXPECT_EQ(outcomesAfter(1), (Lines{"2: 204 "}));
    EXPECT_EQ(logger.lines("Cancelling"), (Lines{"info: HTTP(1) Cancelling"}));
}

TEST_F(ClientTest, HandlesCancelWhenDroppedAndOnlyThen) {
    startHandle("/silence");  // dropped at once
    Handle kept = startHandle("/status/201");
    Handle moved = std::move(kept);
    Handle dropped = startHandle("/status/202");
    waitForPosted(2);
    dropped.cancel();  // though its outcome is posted
    Handle inside;
    inside = startHandle("/status/203", [&] { inside = Handle(); });
    EXPECT_EQ(outcomesAfter(2), (Lines{"201 status 201", "203 status 203"}));
    EXPECT_EQ(logger.lines("Cancelling").size(), 2U);
    moved = startHandle("/status/205");
    moved = startHandle("/status/206");  // drops the former
    EXPECT_EQ(outcomesAfter(3).back(), "206 status 206");
}

TEST_F(ClientTest, TheLastPointerDroppedInFlightStillDelivers) {
    const std::weak_ptr<Client> gone = client;
    start("/hello");
    client = zel::http::createClient(executor, logger);
    EXPECT_EQ(outcomesAfter(1), (Lines{"1: 200 hello"}));
    settle();
    EXPECT_TRUE(gone.expired());
    Handle handle = startHandle("/silence");
    client = zel::http::createClient(executor, logger);
    handle.cancel();  // which now holds the last pointer
}

TEST_F(ClientTest, AForeignThreadIsReportedAndServed) {
    start("/hello");
    outcomesAfter(1);
    std::thread([&] { start("/status/201"); }).join();
    EXPECT_EQ(logger.lines("THREAD"), (Lines{"info: ZEL-HTTP THREAD ASSERT FAILED!"}));
    EXPECT_EQ(outcomesAfter(2).back(), "2: 201 status 201");
}

TEST_F(ClientTest, EmptyCallbacksStopTheProcess) {
    const auto callback = [](auto&&...) {};
    EXPECT_DEATH(client->start_request({}, {}, Client::ResponseCallback(), callback),
                 "Client.*response_cb");
    EXPECT_DEATH(client->start_request({}, {}, Client::ResponseCallback(callback), nullptr),
                 "Client.*error_cb");
}

}  // namespace test
