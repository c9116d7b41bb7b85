#include "progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>

#include "text.h"

namespace tool {
namespace {

using namespace std::chrono_literals;

constexpr auto rated_time = 5s;
constexpr std::size_t widest_bar = 40;
/// The columns that the text beside the bar needs.
constexpr std::size_t text_width = 46;

std::size_t barWidth() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col <= text_width) return 0;
    return std::min(size.ws_col - text_width, widest_bar);
}

std::string leftText(double seconds) {
    const auto left = static_cast<std::uint64_t>(std::min(seconds, 359'999.0));
    const std::uint64_t hours = left / 3600;
    return hours == 0 ? fmt::format("{}:{:02} left", left / 60, left % 60)
                      : fmt::format("{}:{:02}:{:02} left", hours, left / 60 % 60, left % 60);
}

}  // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

std::chrono::milliseconds Progress::interval() const { return terminal_ ? 100ms : 5s; }

void Progress::show(const Amount& amount, Clock::time_point now) {
    const double bytes_a_second = rate(amount, now);
    if (terminal_) {
        std::cerr << '\r' << text(amount, bytes_a_second, barWidth()) << "\033[K" << std::flush;
        shown_ = true;
    } else {
        std::cerr << text(amount, bytes_a_second, 0) << '\n';
    }
}

void Progress::clear() {
    if (std::exchange(shown_, false)) std::cerr << "\r\033[K" << std::flush;
}

std::string Progress::text(const Amount& amount, double bytes_a_second, std::size_t bar_width) {
    std::string text;
    if (amount.total != 0) {
        const double part =
            std::min(1.0, static_cast<double>(amount.written) / static_cast<double>(amount.total));
        if (bar_width != 0) {
            const auto done = static_cast<std::size_t>(part * static_cast<double>(bar_width));
            text += '[' + std::string(done, '=') + std::string(bar_width - done, ' ') + "] ";
        }
        text += fmt::format("{:3.0f} % of {}", std::floor(part * 100), sizeText(amount.total));
    } else {
        text += sizeText(amount.written);
    }
    text += fmt::format("  {}/s", sizeText(static_cast<std::uint64_t>(bytes_a_second)));
    if (amount.total > amount.written && bytes_a_second > 0) {
        text +=
            "  " + leftText(static_cast<double>(amount.total - amount.written) / bytes_a_second);
    }
    return text;
}

double Progress::rate(const Amount& amount, Clock::time_point now) {
    samples_.emplace_back(now, amount.written);
    while (samples_.size() > 2 && now - samples_.front().first > rated_time) samples_.pop_front();
    const auto& [then, written] = samples_.front();
    const double seconds = std::chrono::duration<double>(now - then).count();
    if (seconds <= 0) return 0;
    return static_cast<double>(amount.written - written) / seconds;
}

}  // namespace tool
