#pragma once

#include <mutex>
#include <string>
#include <utility>

namespace oru {

/// A mutex with a name, which tools and traces can show. It is not recursive, and works with
/// `std::lock_guard`.
class mutex {
public:
    /// An unlocked mutex.
    explicit mutex(std::string name) : name_(std::move(name)) {}

    /// @{
    /// The same as those of `std::mutex`.
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }
    /// @}
    const std::string& name() const noexcept { return name_; }  ///< the constructor's `name`

private:
    std::mutex mutex_;
    std::string name_;
};

}  // namespace oru
