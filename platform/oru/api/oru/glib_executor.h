#pragma once

#include <glib.h>

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include "oru/executor.h"
#include "oru/task_guard.h"

namespace oru {

/// Posts to a GLib main loop. Tasks run on the thread that runs `context`, one in each iteration,
/// so that the application's other sources run in between; also in a nested loop that a task runs.
/// No exception may pass through GLib, which is C: one from a task ends the process through
/// `eventlog_die`. Priorities are ignored: tasks have `G_PRIORITY_DEFAULT`.
///
/// The context must outlive the executor, which is destroyed on the thread that runs the context,
/// in a task of its own if need be, or when no thread runs it. The destructor destroys tasks that
/// have not run.
class glib_executor final : public executor {
public:
    /// Null is the process's default context.
    explicit glib_executor(GMainContext* context = nullptr)
        : queue_(new queue), source_(g_source_new(&functions, sizeof(GSource))) {
        queue_->source = source_;
        g_source_set_name(source_, "oru::glib_executor");
        g_source_set_callback(source_, run_one, queue_, destroy);
        g_source_set_can_recurse(source_, TRUE);
        g_source_attach(source_, context);
    }
    ~glib_executor() override {
        drop(*queue_);
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    glib_executor(const glib_executor&) = delete;
    glib_executor& operator=(const glib_executor&) = delete;

    void post(std::function<void()> task, int /*priority*/) override {
        const std::lock_guard lock(queue_->mutex);
        queue_->tasks.push_back(std::move(task));
        g_source_set_ready_time(source_, 0);  // wakes the loop, unless the source is ready already
    }

private:
    /// Owned by the source, which GLib keeps alive while one of its tasks runs.
    struct queue {
        std::mutex mutex;
        std::deque<std::function<void()>> tasks;  // guarded by mutex
        GSource* source = nullptr;
    };

    static gboolean dispatch(GSource* /*source*/, GSourceFunc run, gpointer data) {
        return run(data);
    }
    /// Neither prepare nor check: the source is ready at its ready time and not before.
    static inline GSourceFuncs functions = {nullptr, nullptr, dispatch, nullptr, nullptr, nullptr};

    static gboolean run_one(gpointer data) {
        if (const auto task = take(*static_cast<queue*>(data))) run_guarded(*task);
        return G_SOURCE_CONTINUE;
    }
    static void destroy(gpointer data) { delete static_cast<queue*>(data); }

    /// Removes and returns the oldest task; nothing when the queue is empty.
    static std::optional<std::function<void()>> take(queue& queue) {
        const std::lock_guard lock(queue.mutex);
        if (queue.tasks.empty()) return std::nullopt;
        auto task = std::move(queue.tasks.front());
        queue.tasks.pop_front();
        if (queue.tasks.empty()) g_source_set_ready_time(queue.source, -1);
        return task;
    }
    /// One by one and without the lock: destroying a task may post another.
    static void drop(queue& queue) {
        while (take(queue)) {
        }
    }

    queue* const queue_;
    GSource* const source_;
};

}  // namespace oru
