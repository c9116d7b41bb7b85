#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace oru {

/// The tasks of an executor that have not run yet, for executors whose loop is given one turn at a
/// time: whoever makes the queue non-empty asks the loop for a turn, and each turn that leaves
/// tasks behind asks for the next before it runs its own. So many tasks need one wake-up, the
/// loop's other work runs in between, and a task may throw or run the loop itself. Any thread.
class task_queue {
public:
    task_queue() = default;
    task_queue(const task_queue&) = delete;
    task_queue& operator=(const task_queue&) = delete;
    ~task_queue() { clear(); }

    /// What a turn has to do.
    struct turn {
        std::function<void()> task;  ///< run it
        bool more;                   ///< others are left: ask the loop for the next turn
    };

    /// @{
    /// Appends; true if the queue was empty, so that the loop must be asked for a turn.
    bool push(std::function<void()> task) {
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        return tasks_.size() == 1;
    }
    bool push(std::vector<std::function<void()>> tasks) {
        const std::lock_guard lock(mutex_);
        const bool was_empty = tasks_.empty();
        for (auto& task : tasks) tasks_.push_back(std::move(task));
        return was_empty && !tasks.empty();
    }
    /// @}

    /// Removes the oldest task; nothing when there is none.
    std::optional<turn> take() {
        const std::lock_guard lock(mutex_);
        if (tasks_.empty()) return std::nullopt;
        turn next{std::move(tasks_.front()), false};
        tasks_.pop_front();
        next.more = !tasks_.empty();
        return next;
    }

    /// Whether no task waits.
    bool empty() const {
        const std::lock_guard lock(mutex_);
        return tasks_.empty();
    }

    /// Destroys the tasks, one by one and without the lock: destroying one may post another.
    void clear() {
        while (take()) {
        }
    }

private:
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;  // guarded by mutex_
};

}  // namespace oru
