#pragma once

#include <atomic>
#include <functional>
#include <string>

namespace loopback {

/// Polls `reached` until it returns true. Throws after 20 s (100 in an emulator), with `event` in
/// the message: the one bound of all waits.
void waitFor(const std::string& event, const std::function<bool()>& reached);

/// Set by one thread and awaited by others, as when a server's script waits for a step of a test.
class Flag {
public:
    void set() { set_ = true; }
    bool isSet() const { return set_; }
    void await(const std::string& event) const {
        waitFor(event, [this] { return isSet(); });
    }

private:
    std::atomic<bool> set_{false};
};

}  // namespace loopback
