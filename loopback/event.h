#pragma once

#include <atomic>
#include <functional>
#include <string>

namespace loopback {

/// Throws when `reached` stays false for 20 s (100 in an emulator), the bound of every wait;
/// `event` did not come then.
void waitFor(const std::string& event, const std::function<bool()>& reached);

/// One thread sets it, others wait for it: a script for a client, say.
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
