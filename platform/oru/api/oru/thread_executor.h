#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "oru/assert.h"
#include "oru/executor.h"
#include "oru/thread.h"

namespace oru {

/// An executor with a thread of its own, for programs that have no loop. As with every
/// `oru::thread`, the thread has a name and all signals are blocked on it. If a task throws, the
/// process ends through `eventlog_die`. Priorities are ignored.
///
/// The destructor waits for the task that is running. It destroys the others without running them,
/// on the thread that calls it. If you want them to run, post a last task and wait for that first.
/// One of its own tasks must not destroy the executor: an assertion ends the process.
class thread_executor final : public executor {
public:
    /// Throws `std::system_error` when the system refuses the thread or an attribute.
    explicit thread_executor(const std::string& name, const thread::attributes& attributes = {})
        : queue_(std::make_shared<queue>()) {
        thread::create_thread(name, attributes, thread_.id,
                              new std::function<void()>([queue = queue_] { run(*queue); }));
    }
    ~thread_executor() override {
        ORU_ASSERT(this_thread::get_id() != thread_.id);
        {
            const std::lock_guard lock(queue_->mutex);
            queue_->stopping = true;
        }
        queue_->wake.notify_one();
        thread_.join();
        while (!queue_->tasks.empty()) take(*queue_);  // destroying a task may post another
    }
    thread_executor(const thread_executor&) = delete;
    thread_executor& operator=(const thread_executor&) = delete;

    void post(std::function<void()> task, int /*priority*/) override {
        add([&](auto& tasks) { tasks.push_back(std::move(task)); });
    }
    void post_all(std::vector<std::function<void()>> posted, int /*priority*/) override {
        add([&](auto& tasks) {
            for (auto& task : posted) tasks.push_back(std::move(task));
        });
    }

private:
    struct queue {
        std::mutex mutex;
        std::condition_variable wake;
        std::deque<std::function<void()>> tasks;  // guarded by mutex
        bool stopping = false;                    // guarded by mutex
    };

    /// Notifies after it has released the lock, since the thread that wakes up needs the lock. By
    /// then a task may have led to the executor's destruction, so `queue` keeps the queue alive.
    template <typename Add>
    void add(Add add_to) {
        const auto queue = queue_;
        {
            const std::lock_guard lock(queue->mutex);
            add_to(queue->tasks);
        }
        queue->wake.notify_one();
    }

    static void run(queue& queue) {
        while (const auto task = next(queue)) (*task)();
    }

    /// Waits for a task and returns it. Returns nothing once the executor is being destroyed.
    static std::optional<std::function<void()>> next(queue& queue) {
        std::unique_lock lock(queue.mutex);
        queue.wake.wait(lock, [&queue] { return queue.stopping || !queue.tasks.empty(); });
        if (queue.stopping) return std::nullopt;
        return take(queue);
    }

    static std::function<void()> take(queue& queue) {
        auto task = std::move(queue.tasks.front());
        queue.tasks.pop_front();
        return task;
    }

    const std::shared_ptr<queue> queue_;
    thread thread_;
};

}  // namespace oru
