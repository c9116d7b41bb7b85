#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "zel_http/download.h"

namespace zel::http {

/// When to report progress, and the speed of late.
class ProgressMeter {
public:
    using Clock = std::chrono::steady_clock;

    explicit ProgressMeter(std::chrono::milliseconds interval) : interval_(interval) {}

    /// Begins at `bytes`, which say nothing about speed.
    void restart(std::uint64_t bytes) {
        last_ = Clock::now();
        last_bytes_ = bytes;
    }
    /// A report, unless the last one is too recent.
    std::optional<DownloadProgress> report(std::uint64_t bytes,
                                           std::optional<std::uint64_t> total) {
        const auto now = Clock::now();
        const std::chrono::duration<double> passed = now - last_;
        if (now - last_ < interval_ || passed.count() <= 0) return std::nullopt;
        const double speed = static_cast<double>(bytes - last_bytes_) / passed.count();
        speed_ = speed_ ? *speed_ + weight * (speed - *speed_) : speed;
        restart(bytes);
        DownloadProgress progress{bytes, total, *speed_, std::nullopt};
        if (total && *total >= bytes && *speed_ >= 1) {
            const double left = static_cast<double>(*total - bytes) * 1000 / *speed_;
            constexpr double longest = 1e12;
            if (left < longest) progress.left = std::chrono::milliseconds(std::int64_t(left));
        }
        return progress;
    }

private:
    static constexpr double weight = 0.3;  // of the last interval

    const std::chrono::milliseconds interval_;
    Clock::time_point last_ = Clock::now();
    std::uint64_t last_bytes_ = 0;
    std::optional<double> speed_;
};

}  // namespace zel::http
