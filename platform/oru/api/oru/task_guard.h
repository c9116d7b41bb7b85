#pragma once

#include <exception>
#include <functional>

#include "eventlog/eventlog.h"

namespace oru {

/// Runs `task` for a loop through which no exception may pass. If the task throws, the process ends
/// through `eventlog_die`, with the text of the exception.
inline void run_guarded(const std::function<void()>& task) noexcept {
    try {
        task();
    } catch (const std::exception& error) {
        eventlog_die("A task ended by an exception: %s", logging::arguments(error.what()));
    } catch (...) {
        eventlog_die("A task ended by an exception: %s",
                     logging::arguments("not a std::exception"));
    }
}

}  // namespace oru
