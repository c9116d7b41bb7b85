#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <utility>

#include "zel_http/engine.h"

namespace zel::http {

/// A count that one thread adds to and any thread reads; neither waits. Made of two halves, since
/// not every 32-bit target has atomic operations on 64 bits.
class Count {
public:
    /// By one thread only, so that no locked instruction is needed.
    void add(std::uint64_t amount) noexcept {
        const std::uint32_t high = high_.load(std::memory_order_relaxed);
        const std::uint64_t sum = join(high, low_.load(std::memory_order_relaxed)) + amount;
        const auto carried = static_cast<std::uint32_t>(sum >> 32U);
        if (carried != high) high_.store(carried, std::memory_order_relaxed);
        low_.store(static_cast<std::uint32_t>(sum), std::memory_order_release);
        if (carried != high) settled_.store(carried, std::memory_order_release);
    }

    /// Between the two stores of `high_` and `settled_` the low half may be of either side. The sum
    /// is passing a multiple of 2^32 then, and that is returned.
    std::uint64_t value() const noexcept {
        const std::uint32_t settled = settled_.load(std::memory_order_acquire);
        const std::uint32_t low = low_.load(std::memory_order_acquire);
        const std::uint32_t high = high_.load(std::memory_order_relaxed);
        return join(high, high == settled ? low : 0);
    }

private:
    static constexpr std::uint64_t join(std::uint32_t high, std::uint32_t low) {
        return std::uint64_t{high} << 32U | low;
    }

    std::atomic<std::uint32_t> high_{0};
    std::atomic<std::uint32_t> low_{0};
    std::atomic<std::uint32_t> settled_{0};  ///< follows `high_`, once `low_` belongs to it
};

/// What `Engine::statistics` tells. The engine thread counts, but for what is queued.
class Engine::Counters {
public:
    /// Called under the queue's lock, without which nothing leaves the queue. Any thread.
    void queued() { queued_.fetch_add(1, std::memory_order_relaxed); }
    /// The next transfer that begins is one of the queue.
    void takeFromQueue() { taken_from_queue_ = true; }
    /// In this order: nobody sees the transfer in neither place.
    void begin() {
        begun_.add(1);
        in_flight_.store(in_flight_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (std::exchange(taken_from_queue_, false))
            queued_.fetch_sub(1, std::memory_order_release);
    }
    /// Around each wait of the loop: the engine thread works from now on, or has worked until now.
    void worksFromNow() { working_since_ = Clock::now(); }
    void worksUntilNow();
    /// A request is about to be sent on the handle's connection.
    void noteTlsSession(CURL* curl);
    /// The transfer has ended, or is given up.
    void end(const ActiveTask& task);

    EngineStatistics snapshot() const noexcept;

    Count connections_opened;
    Count connections_reused;
    Count bytes_received;
    Count passes;
    Count wake_ups;

private:
    using Clock = std::chrono::steady_clock;

    std::atomic<std::uint32_t> queued_{0};
    bool taken_from_queue_ = false;
    std::atomic<std::uint32_t> in_flight_{0};
    Count begun_;
    Count ended_;
    Count tls_sessions_resumed_;
    Count bytes_sent_;
    std::atomic<std::uint32_t> longest_pass_{0};  ///< microseconds
    Clock::time_point working_since_;
};

}  // namespace zel::http
