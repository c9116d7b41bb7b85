#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "oru/export.h"

namespace oru {

/// Runs posted work on one thread, the executor's thread. What any implementation must do:
/// - accept posts on any thread, the executor's own included, and never run a task inside them;
/// - run tasks of one priority in the order in which they were posted, one at a time;
/// - destroy each task after it has run, and tasks that never run together with the executor.
class ORU_EXPORT executor {
public:
    executor() = default;
    executor(const executor&) = delete;
    executor& operator=(const executor&) = delete;
    virtual ~executor() = default;

    /// Queues `task` to run later on the executor's thread. Any thread. `priority` 0 is the
    /// default; an implementation may ignore it. An exception that leaves a task is handled by
    /// whoever runs the executor.
    virtual void post(std::function<void()> task, int priority) = 0;

    /// As a `post` of each of the tasks, in their order. The default does just that; the bundled
    /// executors wake their thread once for all of them.
    virtual void post_all(std::vector<std::function<void()>> tasks, int priority) {
        for (auto& task : tasks) post(std::move(task), priority);
    }
};

}  // namespace oru
