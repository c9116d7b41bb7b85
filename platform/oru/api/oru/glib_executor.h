#pragma once

#include <glib.h>

#include <functional>
#include <utility>
#include <vector>

#include "oru/executor.h"
#include "oru/task_guard.h"
#include "oru/task_queue.h"

namespace oru {

/// Runs tasks in a GLib main loop, on the thread that runs `context`. Each iteration of the loop
/// runs one task, so that the other sources of your application get their turn in between. Tasks
/// also run in a nested loop that a task runs. If a task throws, the process ends through
/// `eventlog_die`, since GLib, which is C, cannot pass on an exception. Priorities are ignored:
/// tasks have `G_PRIORITY_DEFAULT`.
///
/// The context must outlive the executor. Destroy the executor on the thread that runs the context
/// (one of its own tasks may do that), or while no thread runs it. The destructor destroys the
/// tasks that have not run.
class glib_executor final : public executor {
public:
    /// A null `context` stands for the process's default context.
    explicit glib_executor(GMainContext* context = nullptr)
        : tasks_(new task_queue), source_(g_source_new(&functions, sizeof(GSource))) {
        g_source_set_name(source_, "oru::glib_executor");
        g_source_set_callback(source_, nullptr, tasks_, destroy);
        g_source_set_can_recurse(source_, TRUE);
        g_source_attach(source_, context);
    }
    ~glib_executor() override {
        tasks_->clear();
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    glib_executor(const glib_executor&) = delete;
    glib_executor& operator=(const glib_executor&) = delete;

    void post(std::function<void()> task, int /*priority*/) override { push(std::move(task)); }
    void post_all(std::vector<std::function<void()>> tasks, int /*priority*/) override {
        push(std::move(tasks));
    }

private:
    template <typename Tasks>
    void push(Tasks tasks) {
        // As soon as a task can run, it may destroy the executor.
        GSource* const source = g_source_ref(source_);
        if (tasks_->push(std::move(tasks))) g_source_set_ready_time(source, 0);  // wakes the loop
        g_source_unref(source);
    }

    /// GLib calls it to run one task. The source stays ready while there are tasks.
    static gboolean dispatch(GSource* source, GSourceFunc /*run*/, gpointer data) {
        auto& tasks = *static_cast<task_queue*>(data);
        const auto next = tasks.take();
        if (!next || !next->more) {
            g_source_set_ready_time(source, -1);
            if (!tasks.empty()) g_source_set_ready_time(source, 0);  // one was pushed in between
        }
        if (next) run_guarded(next->task);
        return G_SOURCE_CONTINUE;
    }
    static void destroy(gpointer data) { delete static_cast<task_queue*>(data); }
    /// Neither prepare nor check: the source is ready at its ready time and not before.
    static inline GSourceFuncs functions = {nullptr, nullptr, dispatch, nullptr, nullptr, nullptr};

    /// Owned by the source, which GLib keeps alive while one of its tasks runs.
    task_queue* const tasks_;
    GSource* const source_;
};

}  // namespace oru
