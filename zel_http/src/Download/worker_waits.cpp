// What the worker waits for beside the body: the host, a callable, a descriptor. The worker thread.

#include "Download/worker_waits.h"

#include <poll.h>

#include <array>
#include <cerrno>
#include <utility>

namespace zel::http {

void DownloadWorker::goOn() {
    Lock lock(state_->mutex);
    waitFor(lock, Clock::now(), [] { return false; });
}

void DownloadWorker::waitWhilePaused(Lock& lock) {
    if (!state_->paused) {
        if (state_->cancelled) throw Cancelled();
        return;
    }
    waitFor(lock, std::nullopt, [this] { return !state_->paused; });
    last_byte_ = Clock::now();  // a pause is no stall
}

DownloadWorker::Deadline DownloadWorker::stallDeadline() const {
    if (config_.limits.stall.count() <= 0) return std::nullopt;
    return last_byte_ + bounded(config_.limits.stall);
}

/// What the host answers on the executor's thread.
std::size_t DownloadWorker::ask(std::function<std::size_t(const DownloadCallbacks&)> question) {
    state_->set([this] { state_->answer.reset(); });
    state_->postQuestion(std::move(question));
    Lock lock(state_->mutex);
    waitFor(lock, std::nullopt, [this] { return state_->answer.has_value(); });
    return *state_->answer;
}

void DownloadWorker::offer(const char* data, std::size_t size) {
    while (size != 0) {
        {
            Lock lock(state_->mutex);
            waitWhilePaused(lock);
            state_->more = false;
        }
        const auto& take = std::get<CallableSink>(config_.sink).take;
        constexpr auto threw = static_cast<std::size_t>(-1);
        // 0 is the answer of a callable that throws, so what is taken counts from 1.
        const std::size_t answer = ask([&take, data, size](const DownloadCallbacks& /*callbacks*/) {
            return take(data, size) + 1;
        });
        const std::size_t taken = answer - 1;
        if (taken == threw || taken > size) {
            throw Fault(DownloadFailure::Refused, "the callable threw, or took more than it got");
        }
        data += taken;
        size -= taken;
        Lock lock(state_->mutex);
        if (size != 0) waitFor(lock, std::nullopt, [this] { return state_->more; });
    }
}

void DownloadWorker::awaitRoom(int descriptor) {
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->cancelled) throw Cancelled();
    }
    std::array<pollfd, 2> waits{
        {{descriptor, POLLOUT, 0}, {state_->cancelled_descriptor, POLLIN, 0}}};
    int timeout = -1;
    if (whole_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*whole_ - Clock::now());
        timeout = static_cast<int>(std::clamp<long long>(left.count(), 0, 1000000000));
    }
    const int ready = poll(waits.data(), waits.size(), timeout);
    if (ready == 0) throw Fault(DownloadFailure::TimeLimit, "the time is over");
    if (waits[1].revents != 0) throw Cancelled();
}

}  // namespace zel::http
