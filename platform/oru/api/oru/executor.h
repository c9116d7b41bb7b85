#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "oru/export.h"

namespace oru {

/// Runs functions, its tasks, on one thread: the executor's thread. Every implementation must:
/// - accept calls of `post` on any thread, its own included, and never run a task inside the call;
/// - run the tasks of one priority in the order in which they were posted, one at a time;
/// - destroy each task after it has run, and destroy tasks that never run, at the latest with the
///   executor or the loop that it posts to.
class ORU_EXPORT executor {
public:
    executor() = default;
    executor(const executor&) = delete;
    executor& operator=(const executor&) = delete;
    virtual ~executor() = default;

    /// Queues `task`, which runs later on the executor's thread. Call it on any thread. The usual
    /// `priority` is 0; an implementation may ignore it. Each executor says what happens to your
    /// program when a task throws: either the exception comes out of the function that runs the
    /// loop, or the process ends.
    virtual void post(std::function<void()> task, int priority) = 0;

    /// Does the same as a `post` of each task, in their order; when one task throws, the others
    /// still run. This default calls `post` for each. The bundled executors wake their thread only
    /// once for all of them.
    virtual void post_all(std::vector<std::function<void()>> tasks, int priority) {
        for (auto& task : tasks) post(std::move(task), priority);
    }
};

}  // namespace oru
