#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <utility>

#include "oru/executor.h"

namespace oru {

/// Posts to a Boost.Asio `io_context`, which the application runs on one thread and may use for its
/// own timers and sockets, too. Header only, so that the application's copy of Asio is the only one
/// involved. The context must outlive the executor; an exception from a task leaves
/// `io_context::run`. Priorities are ignored.
class asio_executor final : public executor {
public:
    /// Posts to `context`.
    explicit asio_executor(boost::asio::io_context& context) : context_(context) {}

    void post(std::function<void()> task, int /*priority*/) override {
        boost::asio::post(context_, std::move(task));
    }

private:
    boost::asio::io_context& context_;
};

}  // namespace oru
