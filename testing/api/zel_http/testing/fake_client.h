#pragma once

/// @file
/// A client without an engine and without a network, for the tests of an application.

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "oru/executor.h"
#include "zel_http/client.h"
#include "zel_http/outcome.h"

namespace zel::testing {

/// Tells the requests that a test means from others.
struct Matcher {
    /// Those with this method and exactly this URL.
    Matcher(http::Method method, const std::string& url);
    /// Those for which `predicate` returns true. `name` stands for them in `FakeClient::problems`.
    Matcher(std::string name, std::function<bool(const http::RequestConfig&)> predicate);

    std::string name;                                           ///< for people
    std::function<bool(const http::RequestConfig&)> predicate;  ///< must be set
};

/// What comes of a request.
struct Answer {
    /// @{
    /// This outcome, `delay` after the request has started, by the client's clock.
    Answer(http::ResponseData response, std::chrono::milliseconds delay = {});
    Answer(http::ErrorData error, std::chrono::milliseconds delay = {});
    /// @}
    /// No outcome: the request is pending until it is cancelled.
    static Answer never();

    std::optional<http::Outcome> outcome;  ///< absent: never
    std::chrono::milliseconds delay{0};    ///< goes with `outcome`

private:
    Answer() = default;
};

/// A client that answers as a test has told it to, and keeps what it was asked. It keeps the
/// promise of `Client`: a callback runs once, in a task of the executor, never inside
/// `start_request`, and not after a cancel. A client belongs to its executor's thread, with
/// everything that is here.
///
/// It reads no limit of a request: a time-out is a failure that the test gives. It logs nothing and
/// calls no function of a `LogFilter`. Like a real client it must be owned by a `std::shared_ptr`,
/// and what is posted shares the ownership.
class FakeClient : public http::Client, public std::enable_shared_from_this<FakeClient> {
public:
    /// What has become of a request.
    enum class State { Pending, Delivered, Cancelled };
    /// What the application has asked for.
    struct SentRequest {
        RequestId id = NoRequestId;    ///< as `start_request` has returned it
        http::RequestConfig config;    ///< as given to `start_request`
        http::LogFilter filter;        ///< so that a test can try its functions
        bool expected = false;         ///< some `expect` or `allow` was for it
        State state = State::Pending;  ///< as it is now
    };

    /// Outcomes arrive through `executor`, which must outlive the client.
    explicit FakeClient(oru::executor& executor);

    /// The application must send so many of `requests`, and each is answered so. A request goes to
    /// the first `expect` or `allow` that matches it and is not used up, in the order of their
    /// calls: two for the same request answer one after the other. What none is for stays pending.
    void expect(Matcher requests, Answer answer, unsigned times = 1);
    /// The application may send any number of `requests`, or none, and each is answered so.
    void allow(Matcher requests, Answer answer);

    /// Moves the client's clock, which stands still otherwise. Outcomes whose time has come are
    /// posted, the earliest first. What a callback starts then starts at the new time: where one
    /// request follows another, run the executor between two steps.
    void advance(std::chrono::milliseconds time);

    /// All requests so far, in the order in which they were started. References stay valid.
    const std::deque<SentRequest>& requests() const { return requests_; }
    /// How many of them are in this state.
    std::size_t count(State state) const;
    /// What differs from what was expected, a line for each: requests that were not sent as often
    /// as they must be, and those that nothing was for. Empty when all is well.
    std::string problems() const;

    using Client::start_request;
    RequestId start_request(const http::RequestConfig& config, const http::LogFilter& filter,
                            const ResponseCallback& response_cb,
                            const ErrorCallback& error_cb) override;
    void cancel_request(RequestId id) override;
    RequestId allocate_request_id() override;

private:
    struct Expectation {
        Matcher requests;
        Answer answer;
        std::optional<unsigned> times;  // absent: any number
        unsigned sent = 0;
    };
    struct PendingRequest {
        SentRequest& sent;
        std::optional<http::Outcome> outcome;
        ResponseCallback response_cb;
        ErrorCallback error_cb;
    };

    /// Counts the request; null when nothing is for it.
    const Answer* answerFor(const http::RequestConfig& config);
    void deliver(RequestId id);

    oru::executor& executor_;
    std::vector<Expectation> expectations_;
    std::deque<SentRequest> requests_;
    std::map<RequestId, PendingRequest> pending_;
    std::multimap<std::chrono::milliseconds, RequestId> due_;  // outcomes that are not posted yet
    std::chrono::milliseconds now_{0};
    RequestId next_id_ = 1;
};

}  // namespace zel::testing
