#include "zel_http/testing/fake_client.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "oru/assert.h"

namespace zel::testing {
namespace {

/// "GET http://device.example/".
std::string nameOf(http::Method method, const std::string& url) {
    std::ostringstream name;
    name << method << ' ' << url;
    return name.str();
}

}  // namespace

Matcher::Matcher(http::Method method, const std::string& url)
    : name(nameOf(method, url)), predicate([method, url](const http::RequestConfig& config) {
          return config.method == method && config.url == url;
      }) {}

Matcher::Matcher(std::string name, std::function<bool(const http::RequestConfig&)> predicate)
    : name(std::move(name)), predicate(std::move(predicate)) {}

Answer::Answer(http::ResponseData response, std::chrono::milliseconds delay)
    : outcome(std::move(response)), delay(delay) {}

Answer::Answer(http::ErrorData error, std::chrono::milliseconds delay)
    : outcome(std::move(error)), delay(delay) {}

Answer Answer::never() { return {}; }

FakeClient::FakeClient(oru::executor& executor) : executor_(executor) {}

void FakeClient::expect(Matcher requests, Answer answer, unsigned times) {
    expectations_.push_back({std::move(requests), std::move(answer), times});
}

void FakeClient::allow(Matcher requests, Answer answer) {
    expectations_.push_back({std::move(requests), std::move(answer), std::nullopt});
}

void FakeClient::advance(std::chrono::milliseconds time) {
    now_ += time;
    const auto later = due_.upper_bound(now_);
    for (auto outcome = due_.begin(); outcome != later; ++outcome) {
        executor_.post([self = shared_from_this(), id = outcome->second] { self->deliver(id); }, 0);
    }
    due_.erase(due_.begin(), later);
}

std::size_t FakeClient::count(State state) const {
    return static_cast<std::size_t>(
        std::count_if(requests_.begin(), requests_.end(),
                      [state](const SentRequest& request) { return request.state == state; }));
}

std::string FakeClient::problems() const {
    std::ostringstream text;
    for (const Expectation& expectation : expectations_) {
        if (expectation.sent == expectation.times.value_or(expectation.sent)) continue;
        text << "expected " << *expectation.times << " times, sent " << expectation.sent << ": "
             << expectation.requests.name << '\n';
    }
    for (const SentRequest& request : requests_) {
        if (request.expected) continue;
        text << "not expected: " << nameOf(request.config.method, request.config.url) << '\n';
    }
    return text.str();
}

http::Client::RequestId FakeClient::start_request(const http::RequestConfig& config,
                                                  const http::LogFilter& filter,
                                                  const ResponseCallback& response_cb,
                                                  const ErrorCallback& error_cb) {
    ORU_ASSERT(response_cb);
    ORU_ASSERT(error_cb);
    const RequestId id = allocate_request_id();
    const Answer* const answer = answerFor(config);
    requests_.push_back({id, config, filter, answer != nullptr, State::Pending});
    const auto outcome = answer != nullptr ? answer->outcome : std::nullopt;
    pending_.emplace(id, PendingRequest{requests_.back(), outcome, response_cb, error_cb});
    if (outcome) {
        due_.emplace(now_ + answer->delay, id);
        advance({});  // posts it when it has no delay
    }
    return id;
}

void FakeClient::cancel_request(RequestId id) {
    // Extracted, so that it is destroyed last: it may hold the last pointer to this client.
    const auto request = pending_.extract(id);
    if (!request.empty()) request.mapped().sent.state = State::Cancelled;
}

http::Client::RequestId FakeClient::allocate_request_id() {
    while (next_id_ == NoRequestId || pending_.count(next_id_) != 0) ++next_id_;
    return next_id_++;
}

const Answer* FakeClient::answerFor(const http::RequestConfig& config) {
    for (Expectation& expectation : expectations_) {
        if (expectation.sent == expectation.times || !expectation.requests.predicate(config)) {
            continue;
        }
        ++expectation.sent;
        return &expectation.answer;
    }
    return nullptr;
}

void FakeClient::deliver(RequestId id) {
    const auto request = pending_.extract(id);
    if (request.empty()) return;  // cancelled
    const PendingRequest& ended = request.mapped();
    ended.sent.state = State::Delivered;
    if (const auto* response = std::get_if<http::ResponseData>(&*ended.outcome)) {
        ended.response_cb(id, *response);
    } else {
        ended.error_cb(id, std::get<http::ErrorData>(*ended.outcome));
    }
}

}  // namespace zel::testing
