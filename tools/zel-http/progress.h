#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

namespace tool {

/// The progress of all downloads together, in bytes.
struct Amount {
    std::uint64_t written = 0;
    /// 0 while any length is not known.
    std::uint64_t total = 0;
};

/// Shows progress on standard error: on a terminal a bar that is redrawn in place, elsewhere a
/// plain line from time to time.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    Progress();

    /// The time between two calls of `show`.
    std::chrono::milliseconds interval() const;
    void show(const Amount& amount, Clock::time_point now);
    /// Erases the bar, so that a line can be printed in its place.
    void clear();

    /// "42 % of 29.0 MiB  3.1 MiB/s  0:05 left", after a bar of `bar_width` characters unless that
    /// is 0.
    static std::string text(const Amount& amount, double bytes_a_second, std::size_t bar_width);

private:
    double rate(const Amount& amount, Clock::time_point now);

    bool terminal_;
    bool shown_ = false;
    /// Times and bytes of the last seconds, from which the rate is computed.
    std::deque<std::pair<Clock::time_point, std::uint64_t>> samples_;
};

}  // namespace tool
