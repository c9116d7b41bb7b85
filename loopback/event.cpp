#include "loopback/event.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace loopback {

void waitFor(const std::string& event, const std::function<bool()>& reached) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(20 * ZEL_HTTP_SLOWNESS);
    while (!reached()) {
        const bool late = std::chrono::steady_clock::now() > deadline;
        if (late) throw std::runtime_error("waited in vain for " + event);
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

}  // namespace loopback
