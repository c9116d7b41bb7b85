#pragma once

#include <functional>
#include <string>

#include "oru/export.h"

namespace oru {

/// A handle of a thread that has a name, a stack size and a scheduler. You can move it but not copy
/// it. Every implementation must:
/// - apply the scheduler and the stack size, and show the name to `ps -L` and debuggers;
/// - start the thread with all signals blocked, so that your program's signal handlers run on your
///   program's threads;
/// - when the thread's function throws, end the process through `eventlog_die`, with the name of
///   the thread and the text of the exception.
class ORU_EXPORT thread {
public:
    /// The schedulers of the system. `inherited` is that of the thread that creates this one.
    enum class scheduler_policy : int {
        inherited = 0,
        time_sharing = 1,
        round_robin = 2,
        fifo = 3
    };

    /// The priority within the policy: 0 for `time_sharing`, 1 (lowest) to 99 for the real-time
    /// policies.
    enum class scheduler_priority : int { normal = 0 };

    /// How a thread is created.
    class attributes {
    public:
        /// Sets policy and priority. With the policy `inherited` the priority is not used.
        void set_scheduler(scheduler_policy policy, scheduler_priority priority) {
            policy_ = policy;
            priority_ = priority;
        }
        /// Sets the size in bytes. With 0, the default, the thread has the system's usual size.
        void set_stack_size(unsigned bytes) { stack_size_ = bytes; }

        /// @{
        /// What was set, or the default.
        scheduler_policy policy() const { return policy_; }
        scheduler_priority priority() const { return priority_; }
        unsigned stack_size() const { return stack_size_; }
        /// @}

    private:
        scheduler_policy policy_ = scheduler_policy::inherited;
        scheduler_priority priority_ = scheduler_priority::normal;
        unsigned stack_size_ = 0;
    };

    /// A handle that holds no thread.
    thread() = default;
    /// @{
    /// Afterwards `other` holds no thread.
    thread(thread&& other) noexcept;
    thread& operator=(thread&& other) noexcept;
    /// @}
    thread(const thread&) = delete;
    thread& operator=(const thread&) = delete;
    /// If the handle still holds a thread, that is, one that has not been joined, an assertion ends
    /// the process. It also does when you assign to such a handle.
    ~thread();

    /// Whether the handle holds a thread.
    bool joinable() const noexcept { return id != 0; }
    /// Waits until the thread has ended. Afterwards the handle holds no thread.
    void join();

    /// Starts a thread that runs `*fn`, and writes its identifier into `id`. It takes ownership of
    /// `fn`, also if it throws. The system shows only the first 15 bytes of `name`. It throws
    /// `std::system_error` when the system refuses the thread or an attribute.
    static void create_thread(const std::string& name, const attributes& attributes,
                              unsigned long& id, std::function<void()>* fn);

    /// The identifier that `create_thread` has written. 0 means that the handle holds no thread.
    unsigned long id = 0;
};

namespace this_thread {

/// The identifier of the calling thread. It is the same for every call on one thread, and different
/// for threads that exist at the same time. It is never 0, and never has all bits set.
ORU_EXPORT unsigned long get_id() noexcept;

}  // namespace this_thread

}  // namespace oru
