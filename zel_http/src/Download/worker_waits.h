#pragma once

#include <algorithm>

#include "Download/worker.h"

namespace zel::http {

template <typename Reached>
bool DownloadWorker::waitFor(Lock& lock, Deadline deadline, Reached reached) {
    if (whole_) deadline = deadline ? std::min(*deadline, *whole_) : *whole_;
    const auto over = [&] { return state_->cancelled || reached(); };
    if (deadline) {
        state_->changed.wait_until(lock, *deadline, over);
    } else {
        state_->changed.wait(lock, over);
    }
    if (state_->cancelled) throw Cancelled();
    if (reached()) return true;
    if (whole_ && Clock::now() >= *whole_) {
        throw Fault(DownloadFailure::TimeLimit, "the time is over");
    }
    return false;
}

}  // namespace zel::http
