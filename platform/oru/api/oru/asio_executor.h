#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "oru/executor.h"
#include "oru/task_queue.h"

namespace oru {

/// Runs tasks in a Boost.Asio `io_context`. Your application runs the context on one thread, and
/// may use it for its own timers and sockets, too. Header only, so that no other copy of Asio is
/// used than that of your program. The context must outlive the executor. If a task throws, the
/// exception comes out of `io_context::run`. Priorities are ignored.
class asio_executor final : public executor {
public:
    /// Posts to `context`.
    explicit asio_executor(boost::asio::io_context& context)
        : context_(context), tasks_(std::make_shared<task_queue>()) {}

    void post(std::function<void()> task, int /*priority*/) override {
        if (tasks_->push(std::move(task))) ask(context_, tasks_);
    }
    void post_all(std::vector<std::function<void()>> tasks, int /*priority*/) override {
        if (tasks_->push(std::move(tasks))) ask(context_, tasks_);
    }

private:
    /// Runs one task when the context calls it. The context owns it, and it shares the ownership of
    /// the tasks, so these may outlive the executor.
    class turn {
    public:
        turn(boost::asio::io_context& context, std::shared_ptr<task_queue> tasks)
            : context_(context), tasks_(std::move(tasks)) {}
        turn(turn&&) = default;
        turn(const turn&) = delete;
        turn& operator=(const turn&) = delete;
        turn& operator=(turn&&) = delete;
        ~turn() {
            if (tasks_) tasks_->clear();  // the context is destroyed, or out of memory
        }

        void operator()() {
            const auto tasks = std::exchange(tasks_, nullptr);
            const auto next = tasks->take();
            if (next->more) ask(context_, tasks);
            next->task();
        }

    private:
        boost::asio::io_context& context_;
        std::shared_ptr<task_queue> tasks_;
    };

    static void ask(boost::asio::io_context& context, std::shared_ptr<task_queue> tasks) {
        boost::asio::post(context, turn(context, std::move(tasks)));
    }

    boost::asio::io_context& context_;
    const std::shared_ptr<task_queue> tasks_;
};

}  // namespace oru
