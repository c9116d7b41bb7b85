#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "oru/assert.h"

namespace oru {

/// How often a callback that a handle has wrapped may run. `Repeating`: any number of times.
/// `Once`: when it runs, all callbacks of its handle stop working.
enum class CallbackType : int { Repeating = 0, Once = 1 };

/// Stands for a running action, such as a request. The callbacks of the action run only while the
/// handle exists. When you destroy the handle, or call `cancel`, the action is cancelled and its
/// callbacks do not run any more. `Tag` gives the handles of different services different types.
///
/// You can move a handle but not copy it. A handle that was moved from does nothing. When you
/// assign to a handle, the action that it held is cancelled. Use the handle, destroy it, and let
/// its callbacks run on one thread only: there is no lock.
template <typename Tag>
class AsyncActionHandle {
public:
    /// Calls the wrapped callback only while the handle's flag is true.
    template <typename Callback>
    class WrappedCallback {
    public:
        /// `flag` is that of the handle.
        WrappedCallback(CallbackType kind, std::shared_ptr<bool> flag, Callback callback)
            : kind_(kind), active_flag(std::move(flag)), callback_(std::move(callback)) {
            ORU_ASSERT(this->active_flag);
        }

        /// Calls the wrapped callback if the flag is true.
        template <typename... Args>
        void operator()(Args&&... args) {
            const bool armed = *active_flag;
            if (kind_ == CallbackType::Once) *active_flag = false;
            if (armed) callback_(std::forward<Args>(args)...);
        }

    private:
        CallbackType kind_;
        std::shared_ptr<bool> active_flag;
        Callback callback_;
    };

    /// A handle whose callbacks run, and which has nothing to cancel yet.
    AsyncActionHandle() : active_flag(std::make_shared<bool>(true)) {}
    /// @{
    /// Afterwards `other` does nothing. An assignment first takes the new action, and then cancels
    /// the one that this handle held. So that one's cancel action may assign again, or destroy the
    /// handle.
    AsyncActionHandle(AsyncActionHandle&& other) noexcept
        : active_flag(std::move(other.active_flag)),
          cancel_action(std::exchange(other.cancel_action, nullptr)) {}
    AsyncActionHandle& operator=(AsyncActionHandle&& other) noexcept {
        AsyncActionHandle former(std::move(other));
        active_flag.swap(former.active_flag);
        cancel_action.swap(former.cancel_action);
        return *this;
    }
    /// @}
    AsyncActionHandle(const AsyncActionHandle&) = delete;
    AsyncActionHandle& operator=(const AsyncActionHandle&) = delete;
    ~AsyncActionHandle() { cancel(); }

    /// Returns a function that calls `callback` as long as this handle allows it. Do not call it on
    /// a handle that was moved from: an assertion ends the process.
    template <typename Callback>
    WrappedCallback<Callback> wrap(CallbackType kind, Callback callback) const {
        return WrappedCallback<Callback>(kind, active_flag, std::move(callback));
    }

    /// Sets the cancel action, which `cancel` or the destructor runs, once. It must not throw.
    void set_cancel_action(std::function<void()> action) { cancel_action = std::move(action); }

    /// Stops the callbacks and runs the cancel action, as the destructor does. A second call does
    /// nothing. The cancel action may destroy the handle.
    void cancel() noexcept {
        const auto flag = std::move(active_flag);
        const auto action = std::exchange(cancel_action, nullptr);
        if (flag) *flag = false;
        if (action) action();
    }

private:
    std::shared_ptr<bool> active_flag;
    std::function<void()> cancel_action;
};

}  // namespace oru
