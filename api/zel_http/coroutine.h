#pragma once

/// @file
/// Requests that a coroutine awaits. Your program needs C++20; its loop and its coroutine types may
/// be any. Header only: the library itself needs no more than C++17.

#include <coroutine>
#include <utility>

#include "zel_http/client.h"
#include "zel_http/outcome.h"

namespace zel::http {

/// What `request` returns. Await it at once, and only once.
class [[nodiscard]] RequestAwaiter {
public:
    /// For `request`, which makes it.
    RequestAwaiter(Client& client, RequestConfig config, LogFilter filter)
        : client_(client), config_(std::move(config)), filter_(std::move(filter)) {}
    RequestAwaiter(const RequestAwaiter&) = delete;
    RequestAwaiter& operator=(const RequestAwaiter&) = delete;
    ~RequestAwaiter() = default;

    /// @{
    /// What the compiler calls for a `co_await`.
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        const auto resume = [this, waiting](const auto& data) {
            outcome_ = data;
            waiting.resume();
        };
        handle_ = client_.start_request(config_, filter_, resume, resume);
    }
    Outcome await_resume() { return std::move(outcome_); }
    /// @}

private:
    Client& client_;
    const RequestConfig config_;
    const LogFilter filter_;
    Outcome outcome_;
    oru::AsyncActionHandle<ZelHttpClientTag> handle_;
};

/// `co_await request(client, config)` starts the request and suspends your coroutine until there is
/// an outcome, which is the value of the expression. Await it on the client's thread; the coroutine
/// goes on there, too. To cancel the request, destroy the suspended coroutine, on that thread as
/// well. `client` must outlive the coroutine. Without an engine in the process the coroutine never
/// goes on. If `Client::start_request` throws, the `co_await` throws the same.
inline RequestAwaiter request(Client& client, RequestConfig config, LogFilter filter = {}) {
    return {client, std::move(config), std::move(filter)};
}

}  // namespace zel::http
