#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "Download/fault.h"
#include "Download/progress.h"
#include "Download/sink.h"
#include "Download/state.h"

namespace zel::http {

/// A time that no clock overflows with.
inline std::chrono::milliseconds bounded(std::chrono::milliseconds time) {
    constexpr std::chrono::hours year(365 * 24);
    return std::min<std::chrono::milliseconds>(time, year);
}

/// A download from start to outcome, on its own thread: the tries and the delays between them,
/// their limits, and what becomes of head and body. All its waits end when the handle is dropped.
class DownloadWorker {
public:
    explicit DownloadWorker(std::shared_ptr<DownloadState> state);

    /// Posts the outcome, unless the handle is dropped before.
    void run();

private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;
    using Deadline = std::optional<Clock::time_point>;

    // worker.cpp: the tries.
    void download();
    void tryUntilWhole();
    /// Nothing when the body is whole, else why the try failed.
    std::optional<Fault> tryOnce();
    void startTransfer();
    void dropTransfer();
    void delayRetry(const Fault& fault);
    bool mayRetry(const Fault& fault) const;
    void complete();
    void fail(const Fault& fault);
    TransferFacts takeFacts();

    // worker_body.cpp: one response.
    void awaitHead();
    void decide();
    void checkStatus();
    void askHost();
    void takeBody();
    bool awaitBlock(Lock& lock);
    void awaitFirstByte(Lock& lock);
    void write(std::string_view block);
    void noteBytes();
    void checkSize(std::uint64_t bytes) const;
    void checkEnd();
    void slowDown(std::size_t bytes);
    void report();

    // worker_waits.cpp
    /// Waits for `reached`; false at the deadline. Throws `Cancelled`, or `Fault` at the limit of
    /// the whole download.
    template <typename Reached>
    bool waitFor(Lock& lock, Deadline deadline, Reached reached);
    /// Throws as `waitFor` does.
    void goOn();
    void waitWhilePaused(Lock& lock);
    std::size_t ask(std::function<std::size_t(const DownloadCallbacks&)> question);
    void offer(const char* data, std::size_t size);
    void awaitRoom(int descriptor);
    Deadline stallDeadline() const;

    const std::shared_ptr<DownloadState> state_;
    const DownloadConfig& config_;
    const Deadline whole_;
    std::unique_ptr<Sink> sink_;
    std::shared_ptr<DownloadResult> result_;  // made before it is needed
    ProgressMeter meter_;
    DownloadHead head_;
    TransferFacts facts_;  // of the last try that was dropped
    unsigned retries_ = 0;
    unsigned starts_over_ = 0;
    Clock::time_point last_byte_{};
    Clock::time_point next_block_{};
    std::minstd_rand random_;
};

}  // namespace zel::http
