#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace oru {

/// The tasks of an executor that have not run yet. It is for executors that ask their loop to call
/// them back; such a call is a turn, and runs one task. `push` tells whether the queue was empty:
/// if so, the executor asks its loop for a turn. A turn that leaves tasks in the queue asks for the
/// next turn before it runs its own task. So many tasks need only one wake-up, other work of the
/// loop runs between two tasks, and a task may throw or run the loop itself. Any thread may call
/// this.
class task_queue {
public:
    task_queue() = default;
    task_queue(const task_queue&) = delete;
    task_queue& operator=(const task_queue&) = delete;
    ~task_queue() { clear(); }

    /// What a turn has to do.
    struct turn {
        std::function<void()> task;  ///< run it
        bool more;                   ///< tasks are left: ask the loop for the next turn first
    };

    /// @{
    /// Appends. Returns true if the queue was empty: then ask the loop for a turn.
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

    /// Removes and returns the oldest task. Returns nothing when there is none.
    std::optional<turn> take() {
        const std::lock_guard lock(mutex_);
        if (tasks_.empty()) return std::nullopt;
        turn next{std::move(tasks_.front()), false};
        tasks_.pop_front();
        next.more = !tasks_.empty();
        return next;
    }

    /// Whether the queue has no task.
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
