#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

namespace tool {

/// How far the downloads are, all together.
struct Amount {
    std::uint64_t written = 0;
    /// 0 while any length is not known.
    std::uint64_t total = 0;
};

/// Shows progress on standard error: on a terminal a bar that is drawn over and over, elsewhere a
/// plain line now and then.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    Progress();

    /// How often `show` wants to be called.
    std::chrono::milliseconds interval() const;
    void show(const Amount& amount, Clock::time_point now);
    /// Takes the bar off the screen, for a line in its place.
    void clear();

    /// "42 % of 29.0 MiB  3.1 MiB/s  0:05 left", with a bar in a width of its own when that is not
    /// 0.
    static std::string text(const Amount& amount, double bytes_a_second, std::size_t bar_width);

private:
    double rate(const Amount& amount, Clock::time_point now);

    bool terminal_;
    bool shown_ = false;
    /// The last seconds.
    std::deque<std::pair<Clock::time_point, std::uint64_t>> samples_;
};

}  // namespace tool
