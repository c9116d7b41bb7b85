#pragma once

/// @file
/// Requests that a coroutine awaits, for hosts with C++20 whatever their loop and their coroutine
/// types are. Header only: the library itself needs C++17.

#include <coroutine>
#include <utility>

#include "zel_http/client.h"
#include "zel_http/outcome.h"

namespace zel::http {

/// What `request` returns; to be awaited at once and once.
class [[nodiscard]] RequestAwaiter {
public:
    /// Made by `request`.
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

/// `co_await request(client, config)` starts the request and suspends the coroutine until there is
/// an outcome, which is its value. Await it on the client's thread, where the coroutine also
/// continues. Destroying the suspended coroutine there cancels the request; `client` must outlive
/// it. Without an engine in the process the coroutine is never resumed. What `start_request`
/// throws, the `co_await` throws.
inline RequestAwaiter request(Client& client, RequestConfig config, LogFilter filter = {}) {
    return {client, std::move(config), std::move(filter)};
}

}  // namespace zel::http
