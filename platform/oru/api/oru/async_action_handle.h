#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "oru/assert.h"

namespace oru {

/// How often a wrapped callback may fire: `Once` disarms every callback of its handle as it fires,
/// `Repeating` leaves them armed.
enum class CallbackType : int { Repeating = 0, Once = 1 };

/// Owns a running action, such as a request, and lets its callbacks run only while the handle
/// lives. Destroying the handle disarms the callbacks and runs the cancel action, once. `Tag` makes
/// handles of different services different types.
///
/// Move-only: a moved-from handle is inert, and assigning to a handle drops what it held. The
/// handle, its callbacks and its destruction belong to one thread; nothing here is locked.
template <typename Tag>
class AsyncActionHandle {
public:
    /// A callable that calls the wrapped one only while the handle's flag is armed.
    template <typename Callback>
    class WrappedCallback {
    public:
        /// `flag` is the handle's.
        WrappedCallback(CallbackType kind, std::shared_ptr<bool> flag, Callback callback)
            : kind_(kind), active_flag(std::move(flag)), callback_(std::move(callback)) {
            ORU_ASSERT(this->active_flag);
        }

        /// Calls the wrapped callback if the flag is armed.
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

    /// An armed handle without a cancel action.
    AsyncActionHandle() : active_flag(std::make_shared<bool>(true)) {}
    /// @{
    /// Leaves `other` inert. Assigning drops what this handle held, once it holds the new content:
    /// the cancel action may assign again, or destroy the handle.
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

    /// Wraps `callback` so that it shares this handle's flag. Not for a moved-from handle.
    template <typename Callback>
    WrappedCallback<Callback> wrap(CallbackType kind, Callback callback) const {
        return WrappedCallback<Callback>(kind, active_flag, std::move(callback));
    }

    /// Installs what `cancel` and the destructor run once; it must not throw.
    void set_cancel_action(std::function<void()> action) { cancel_action = std::move(action); }

    /// Disarms the callbacks and runs the cancel action, as the destructor does. A second call does
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
