#pragma once

#include <functional>
#include <string>

#include "oru/export.h"

namespace oru {

/// A thread with a name and scheduling attributes. Move-only. What any implementation must do:
/// - apply the scheduler and the stack size, and show the name to `ps -L` and debuggers;
/// - start the thread with all signals blocked, so that the host's handlers run on its own threads;
/// - end the process through `eventlog_die`, with the thread's name and `what()`, when an exception
///   leaves the thread's function.
class ORU_EXPORT thread {
public:
    /// The system's schedulers; `inherited` is the creating thread's.
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
        /// Policy and priority; both count only with a policy other than `inherited`.
        void set_scheduler(scheduler_policy policy, scheduler_priority priority) {
            policy_ = policy;
            priority_ = priority;
        }
        /// In bytes; 0, the default, leaves the system's own size.
        void set_stack_size(unsigned bytes) { stack_size_ = bytes; }

        /// @{
        /// As set.
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
    /// Leaves `other` without a thread.
    thread(thread&& other) noexcept;
    thread& operator=(thread&& other) noexcept;
    /// @}
    thread(const thread&) = delete;
    thread& operator=(const thread&) = delete;
    /// Stops the process by assertion if the handle still holds a thread, that is, one that has not
    /// been joined. So does assigning to such a handle.
    ~thread();

    /// Whether the handle holds a thread.
    bool joinable() const noexcept { return id != 0; }
    /// Waits for the thread to end; afterwards the handle holds no thread.
    void join();

    /// Starts a thread that runs `*fn`, writes its identifier into `id`, and takes ownership of
    /// `fn`, also when it throws. Only the first 15 bytes of `name` are visible to the system.
    /// Throws `std::system_error` when the system refuses the thread or an attribute.
    static void create_thread(const std::string& name, const attributes& attributes,
                              unsigned long& id, std::function<void()>* fn);

    /// The identifier that `create_thread` wrote; 0 is no thread.
    unsigned long id = 0;
};

namespace this_thread {

/// The calling thread's identifier: the same for every call on one thread, different for threads
/// that exist at the same time, never 0 and never all bits set.
ORU_EXPORT unsigned long get_id() noexcept;

}  // namespace this_thread

}  // namespace oru
