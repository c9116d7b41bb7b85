#include "oru/thread.h"

#include <cxxabi.h>

#include <pthread.h>

#include <csignal>
#include <exception>
#include <memory>
#include <system_error>
#include <type_traits>
#include <utility>

#include "eventlog/eventlog.h"
#include "oru/assert.h"

namespace oru {
namespace {

static_assert(std::is_same_v<pthread_t, unsigned long>, "thread identifiers are pthread_t values");

struct Start {
    std::string name;
    std::unique_ptr<std::function<void()>> fn;
};

void check(int error, const char* what) {
    if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

int native_policy(thread::scheduler_policy policy) {
    switch (policy) {
        case thread::scheduler_policy::round_robin:
            return SCHED_RR;
        case thread::scheduler_policy::fifo:
            return SCHED_FIFO;
        default:
            return SCHED_OTHER;
    }
}

class NativeAttributes {
public:
    explicit NativeAttributes(const thread::attributes& wanted) {
        check(pthread_attr_init(&native_), "pthread_attr_init");
        try {
            apply(wanted);
        } catch (...) {
            pthread_attr_destroy(&native_);
            throw;
        }
    }
    NativeAttributes(const NativeAttributes&) = delete;
    NativeAttributes& operator=(const NativeAttributes&) = delete;
    ~NativeAttributes() { pthread_attr_destroy(&native_); }

    const pthread_attr_t* get() const { return &native_; }

private:
    void apply(const thread::attributes& wanted) {
        if (wanted.stack_size() != 0) {
            check(pthread_attr_setstacksize(&native_, wanted.stack_size()),
                  "pthread_attr_setstacksize");
        }
        if (wanted.policy() == thread::scheduler_policy::inherited) return;
        sched_param param{};
        param.sched_priority = static_cast<int>(wanted.priority());
        check(pthread_attr_setinheritsched(&native_, PTHREAD_EXPLICIT_SCHED),
              "pthread_attr_setinheritsched");
        check(pthread_attr_setschedpolicy(&native_, native_policy(wanted.policy())),
              "pthread_attr_setschedpolicy");
        check(pthread_attr_setschedparam(&native_, &param), "pthread_attr_setschedparam");
    }

    pthread_attr_t native_{};
};

/// Blocks every signal while it lives; a thread created meanwhile inherits the mask.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

[[noreturn]] void die(const std::string& name, const char* what) {
    eventlog_die("Thread '%s' ended by an exception: %s", logging::arguments(name, what));
}

void* run(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    pthread_setname_np(pthread_self(), start->name.substr(0, 15).c_str());
    try {
        (*start->fn)();
    } catch (abi::__forced_unwind&) {
        throw;  // pthread_exit and cancellation unwind with it and must pass
    } catch (const std::exception& error) {
        die(start->name, error.what());
    } catch (...) {
        die(start->name, "not a std::exception");
    }
    return nullptr;
}

}  // namespace

thread::thread(thread&& other) noexcept : id(std::exchange(other.id, 0)) {}

thread& thread::operator=(thread&& other) noexcept {
    ORU_ASSERT(!joinable());
    id = std::exchange(other.id, 0);
    return *this;
}

thread::~thread() { ORU_ASSERT(!joinable()); }

void thread::join() {
    check(pthread_join(id, nullptr), "pthread_join");
    id = 0;
}

void thread::create_thread(const std::string& name, const attributes& attributes, unsigned long& id,
                           std::function<void()>* fn) {
    std::unique_ptr<std::function<void()>> function(fn);
    const NativeAttributes native(attributes);
    std::unique_ptr<Start> start(new Start{name, std::move(function)});
    const AllSignalsBlocked blocked;
    const int error = pthread_create(&id, native.get(), run, start.get());
    if (error != 0) id = 0;  // glibc writes it even when it fails
    check(error, "pthread_create");
    static_cast<void>(start.release());  // the thread owns it now
}

unsigned long this_thread::get_id() noexcept { return pthread_self(); }

}  // namespace oru
