#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "oru/executor.h"

namespace zel::http {

/// What the outcomes of one pass post to executors. While an outbox collects on a thread, the tasks
/// that the thread posts wait in it, and are handed over together: waking an executor's thread for
/// each of them costs more than anything else that the library does. Belongs to one thread.
class Outbox {
public:
    /// Runs `work` with an outbox, and hands over what it holds, also when `work` throws.
    template <typename Work>
    static void collect(Work work) {
        Outbox outbox;
        try {
            work();
        } catch (...) {
            outbox.handOver();
            throw;
        }
        outbox.handOver();
    }

    /// Posts by way of the calling thread's outbox, or at once where none collects: on another
    /// thread, that is, to which the host's FSM runner has taken the outcome.
    static void post(oru::executor& executor, std::function<void()> task);

    /// Hands over what the calling thread's outbox holds, if there is one: before a pass inside a
    /// pass waits.
    static void handOverWhatIsHeld();

    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

private:
    struct Parcel {
        oru::executor* executor;
        std::vector<std::function<void()>> tasks;
    };

    Outbox();
    ~Outbox();
    void add(oru::executor& executor, std::function<void()> task);
    void handOver();

    static thread_local Outbox* current;

    Outbox* outer;
    std::vector<Parcel> parcels;
};

}  // namespace zel::http
