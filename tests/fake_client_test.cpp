// The promise of a client, kept by the one that applications test with.

#include "zel_http/testing/fake_client.h"

#include <gtest/gtest.h>

#include "oru/asio_executor.h"
#include "support/request.h"

namespace test {

using namespace std::chrono_literals;
using zel::http::ErrorData;
using zel::http::ResponseData;
using zel::testing::Answer;
using zel::testing::FakeClient;

class FakeClientTest : public testing::Test {
protected:
    static std::string textOf(const ResponseData& response) { return response.body; }
    static std::string textOf(const ErrorData& error) { return error.message; }
    /// Adds "1 body" to `outcomes` when it comes.
    unsigned start(
        const std::string& url, const std::function<void()>& then = [] {}) {
        const auto keep = [this, then](unsigned id, const auto& data) {
            outcomes += std::to_string(id) + " " + textOf(data) + ", ";
            then();
        };
        return client->start_request(Get(url), {}, keep, keep);
    }
    /// The outcomes by now.
    std::string after(std::chrono::milliseconds time) {
        client->advance(time);
        loop.restart();
        loop.poll();
        return outcomes;
    }

    std::string outcomes;
    boost::asio::io_context loop;
    oru::asio_executor executor{loop};
    std::shared_ptr<FakeClient> client = std::make_shared<FakeClient>(executor);
};

TEST_F(FakeClientTest, OutcomesComeLaterOnceAndByTheirDelay) {
    client->allow({Method::GET, "slow"}, {ResponseData{200, {}, "slow"}, 20ms});
    client->allow({Method::GET, "quick"}, {ErrorData{{}, "quick"}, 10ms});
    client->allow({Method::GET, "at once"}, ResponseData{404, {}, "at once"});
    start("slow");
    start("quick");
    start("at once", [this] { start("quick"); });
    EXPECT_EQ(outcomes, "");
    EXPECT_EQ(after(0ms), "3 at once, ");
    EXPECT_EQ(after(9ms), "3 at once, ");
    EXPECT_EQ(after(60ms), "3 at once, 2 quick, 4 quick, 1 slow, ");
    EXPECT_EQ(after(60ms), "3 at once, 2 quick, 4 quick, 1 slow, ");
}

TEST_F(FakeClientTest, NothingComesAfterACancel) {
    client->allow({Method::GET, "at once"}, ResponseData{200, {}, "posted"});
    client->allow({Method::GET, "never"}, Answer::never());
    const auto posted = start("at once");
    start("never");
    start("at once", [&] { client->cancel_request(3); });  // delivered: of no effect
    const auto ignore = [](const auto&) { FAIL(); };
    { const auto dropped = client->start_request(Get("at once"), {}, ignore, ignore); }
    for (const auto id : {posted, posted, 99U}) client->cancel_request(id);
    EXPECT_EQ(after(1h), "3 posted, ");
    EXPECT_EQ(client->count(FakeClient::State::Cancelled), 2U);
    EXPECT_EQ(client->count(FakeClient::State::Pending), 1U);
    // The last pointer to the client may be in what a cancel destroys.
    start("never", [own = client] {});
    std::exchange(client, nullptr)->cancel_request(5);
}

TEST_F(FakeClientTest, TellsWhatDiffersFromWhatIsExpected) {
    client->expect({Method::GET, "a"}, ResponseData{200, {}, "first"});
    client->expect({Method::GET, "a"}, ResponseData{200, {}, "second"}, 2);
    client->expect({"a page", [](const auto& sent) { return sent.url == "p"; }}, Answer::never());
    for (const auto* url : {"a", "a", "b"}) start(url);
    EXPECT_EQ(after(0ms), "1 first, 2 second, ");
    EXPECT_EQ(client->problems(),
              "expected 2 times, sent 1: GET a\nexpected 1 times, sent 0: a page\n"
              "not expected: GET b\n");
    for (const auto* url : {"a", "p"}) start(url);
    EXPECT_EQ(client->problems(), "not expected: GET b\n");
    EXPECT_EQ(client->requests().back().config.url, "p");
}

}  // namespace test
