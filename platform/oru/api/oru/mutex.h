#pragma once

#include <mutex>
#include <string>
#include <utility>

namespace oru {

/// A mutex with a name for tools and traces. Not recursive. Works with `std::lock_guard`.
class mutex {
public:
    /// An unlocked mutex.
    explicit mutex(std::string name) : name_(std::move(name)) {}

    /// @{
    /// As `std::mutex` does it.
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }
    /// @}
    const std::string& name() const noexcept { return name_; }  ///< as constructed

private:
    std::mutex mutex_;
    std::string name_;
};

}  // namespace oru
