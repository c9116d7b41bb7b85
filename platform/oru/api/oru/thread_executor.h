#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "oru/assert.h"
#include "oru/executor.h"
#include "oru/thread.h"

namespace oru {

/// An executor with a thread of its own, for programs that have no loop. The thread has a name and
/// blocks all signals, as every `oru::thread`; an exception from a task ends the process through
/// `eventlog_die`. Priorities are ignored.
///
/// The destructor waits for the task that is running and drops the others: they are destroyed
/// unrun, on the destroying thread. To have them run, post a last task and wait for it first.
/// Destroying the executor in a task of its own stops the process by assertion.
class thread_executor final : public executor {
public:
    /// Throws `std::system_error` when the system refuses the thread or an attribute.
    explicit thread_executor(const std::string& name, const thread::attributes& attributes = {}) {
        thread::create_thread(name, attributes, thread_.id,
                              new std::function<void()>([this] { run(); }));
    }
    ~thread_executor() override {
        ORU_ASSERT(this_thread::get_id() != thread_.id);
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
        while (!tasks_.empty()) take();  // one by one: destroying a task may post another
    }
    thread_executor(const thread_executor&) = delete;
    thread_executor& operator=(const thread_executor&) = delete;

    void post(std::function<void()> task, int /*priority*/) override {
        // Notified under the lock: as soon as it is released the task may run and have the executor
        // destroyed.
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        wake_.notify_one();
    }

private:
    void run() {
        while (const auto task = next()) (*task)();
    }

    /// Waits for a task; nothing once the executor is being destroyed.
    std::optional<std::function<void()>> next() {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (stopping_) return std::nullopt;
        return take();
    }

    std::function<void()> take() {
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        return task;
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;  // guarded by mutex_
    bool stopping_ = false;                    // guarded by mutex_
    thread thread_;
};

}  // namespace oru
