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

/// Describes which requests of the application a test means.
struct Matcher {
    /// Those with this method and exactly this URL.
    Matcher(http::Method method, const std::string& url);
    /// Those for which `predicate` returns true. `name` stands for them in `FakeClient::problems`.
    Matcher(std::string name, std::function<bool(const http::RequestConfig&)> predicate);

    std::string name;                                           ///< how `problems` calls them
    std::function<bool(const http::RequestConfig&)> predicate;  ///< must be set
};

/// How a request ends.
struct Answer {
    /// @{
    /// With this outcome, `delay` after the request has started, by the client's own clock.
    Answer(http::ResponseData response, std::chrono::milliseconds delay = {});
    Answer(http::ErrorData error, std::chrono::milliseconds delay = {});
    /// @}
    /// Not at all: the request stays pending until it is cancelled.
    static Answer never();

    std::optional<http::Outcome> outcome;  ///< not set: the request never ends
    std::chrono::milliseconds delay{0};    ///< used only with `outcome`

private:
    Answer() = default;
};

/// A client that answers as your test tells it to, and remembers which requests the application has
/// started. It promises the same as `Client`: a callback runs once, as a task of the executor,
/// never inside `start_request`, and never after a cancel. Use the client, and all that is here,
/// only on the executor's thread.
///
/// It ignores the limits of a request (`timeout`, `max_download_size`): to test a time-out, answer
/// with an `ErrorData`. It logs nothing and calls no function of a `LogFilter`. Like a real client
/// it must be owned by a `std::shared_ptr`. Outcomes that are on their way to the executor share
/// the ownership.
class FakeClient : public http::Client, public std::enable_shared_from_this<FakeClient> {
public:
    /// What has become of a request.
    enum class State { Pending, Delivered, Cancelled };
    /// What the application has asked for.
    struct SentRequest {
        RequestId id = NoRequestId;    ///< as `start_request` has returned it
        http::RequestConfig config;    ///< as given to `start_request`
        http::LogFilter filter;        ///< so that a test can try its functions
        bool expected = false;         ///< an `expect` or `allow` matched it
        State state = State::Pending;  ///< as it is now
    };

    /// Outcomes arrive through `executor`, which must outlive the client.
    explicit FakeClient(oru::executor& executor);

    /// The application must send `requests` exactly `times` times. Each gets `answer`. A request is
    /// answered by the first `expect` or `allow` that matches it and has answers left, in the order
    /// in which your test has called them. So with two for the same request the first request gets
    /// the first answer, and the second request the second. A request that none matches stays
    /// pending.
    void expect(Matcher requests, Answer answer, unsigned times = 1);
    /// The application may send `requests` any number of times, or not at all. Each gets `answer`.
    void allow(Matcher requests, Answer answer);

    /// Moves the client's clock, which stands still otherwise. Posts the outcomes whose time has
    /// come, the earliest first. When a callback starts another request, that one starts at the new
    /// time. So if your application sends one request after the other, advance in several steps,
    /// and run the executor after each.
    void advance(std::chrono::milliseconds time);

    /// All requests so far, in the order in which they were started. References stay valid.
    const std::deque<SentRequest>& requests() const { return requests_; }
    /// How many of them are in this state.
    std::size_t count(State state) const;
    /// One line for each difference: requests that were sent less often than `expect` says, and
    /// requests for which no `expect` or `allow` was left. Empty when there is no difference.
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

    /// Counts the request; null when no expectation matches it.
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
