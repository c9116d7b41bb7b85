#pragma once

/// @file
/// Requests as asynchronous operations of Boost.Asio. Header only, so that no other copy of Asio is
/// used than that of your program.

#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <boost/version.hpp>
#include <memory>
#include <type_traits>
#include <utility>

#if BOOST_VERSION >= 107700
#include <boost/asio/associated_cancellation_slot.hpp>
#endif

#include "zel_http/client.h"
#include "zel_http/outcome.h"

namespace zel::http {
namespace detail {

/// One request and the handler that waits for it. The client's callbacks share the ownership.
template <typename Handler>
class AsioOperation : public std::enable_shared_from_this<AsioOperation<Handler>> {
public:
    AsioOperation(boost::asio::io_context& loop, std::weak_ptr<Client> client, Handler handler)
        : client_(std::move(client)),
          handler_(std::move(handler)),
          loop_work_(loop.get_executor()),
          handler_work_(boost::asio::make_work_guard(handler_, loop.get_executor())) {}

    /// The loop's thread.
    void start(const RequestConfig& config, const LogFilter& filter) {
        if (finished_) return;  // cancelled before
        const auto client = client_.lock();
        if (!client) return complete(boost::asio::error::operation_aborted, {});
        const auto finish = [self = this->shared_from_this()](auto /*id*/, const auto& data) {
            self->complete({}, data);
        };
        id_ = client->start_request(config, filter, finish, finish);
    }

#if BOOST_VERSION >= 107700
    /// Runs on the handler's executor, and so must whatever emits the cancellation. The handler
    /// never runs inside the emission.
    void listenForCancellation() {
        auto slot = boost::asio::get_associated_cancellation_slot(handler_);
        if (!slot.is_connected()) return;
        slot.assign([weak = this->weak_from_this(), loop = loop_work_.get_executor()](auto kind) {
            if (kind == boost::asio::cancellation_type::none) return;
            boost::asio::post(loop, [weak] {
                if (const auto self = weak.lock()) self->cancel();
            });
        });
    }
#endif

private:
    void cancel() {
        if (finished_) return;
        if (const auto client = client_.lock()) client->cancel_request(id_);
        complete(boost::asio::error::operation_aborted, {});
    }

    /// Passes the handler on to its executor. It may destroy the client, or run on another thread.
    void complete(boost::system::error_code error, Outcome outcome) {
        finished_ = true;
        const auto executor = handler_work_.get_executor();
        boost::asio::dispatch(
            executor,
            [handler = std::move(handler_), error, outcome = std::move(outcome),
             handler_work = std::move(handler_work_), loop_work = std::move(loop_work_)]() mutable {
#if BOOST_VERSION >= 107700
                boost::asio::get_associated_cancellation_slot(handler).clear();
#endif
                std::move(handler)(error, std::move(outcome));
            });
    }

    using LoopExecutor = boost::asio::io_context::executor_type;

    const std::weak_ptr<Client> client_;
    Handler handler_;
    boost::asio::executor_work_guard<LoopExecutor> loop_work_;
    boost::asio::executor_work_guard<boost::asio::associated_executor_t<Handler, LoopExecutor>>
        handler_work_;
    Client::RequestId id_ = Client::NoRequestId;
    bool finished_ = false;
};

/// Starts the request on the loop's thread.
struct AsioInitiation {
    boost::asio::io_context& loop;
    std::weak_ptr<Client> client;

    template <typename Handler>
    void operator()(Handler&& handler, RequestConfig config, LogFilter filter) const {
        auto operation = std::make_shared<AsioOperation<std::decay_t<Handler>>>(
            loop, client, std::forward<Handler>(handler));
#if BOOST_VERSION >= 107700
        operation->listenForCancellation();
#endif
        boost::asio::dispatch(loop,
                              [operation, config = std::move(config), filter = std::move(filter)] {
                                  operation->start(config, filter);
                              });
    }
};

}  // namespace detail

/// Starts a request as an asynchronous operation of Boost.Asio. `token` decides how you wait:
/// `boost::asio::use_future`, `use_awaitable`, a `yield_context`, or a handler, that is, a function
/// that takes `(boost::system::error_code, Outcome)`. The error code is set only when the request
/// was cancelled, by the cancellation slot of the token (any type of cancellation; Boost 1.77 or
/// newer), or since the client was destroyed before the request had started. It is then
/// `operation_aborted`; a future, an awaitable and a `yield_context` throw it.
///
/// Call it on any thread. `loop` must be the loop of the client's executor. While the request runs,
/// `loop.run()` does not return for lack of work. The handler runs on its associated executor,
/// which by default is `loop`. Without an engine in the process the handler never runs. If
/// `Client::start_request` throws, the exception comes out of `io_context::run`.
template <typename Token>
auto async_request(boost::asio::io_context& loop, const std::shared_ptr<Client>& client,
                   RequestConfig config, LogFilter filter, Token&& token) {
    return boost::asio::async_initiate<Token, void(boost::system::error_code, Outcome)>(
        detail::AsioInitiation{loop, client}, token, std::move(config), std::move(filter));
}

}  // namespace zel::http
