#include "histogram.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace tool {
namespace {

constexpr double least_time = 0.01;  // milliseconds; a phase that did not take place has less
constexpr std::size_t name_width = 10;
constexpr std::size_t most_bins = 60;

/// How many requests took how long in each phase: bins of a logarithmic scale that all share.
struct Bins {
    double from = 0;  ///< milliseconds
    double to = 0;
    std::vector<std::pair<std::string, std::vector<std::size_t>>> rows;

    Bins(const Latencies& latencies, std::size_t count) {
        std::vector<std::pair<std::string, std::vector<float>>> phases;
        for (const auto& [name, times] : latencies.phases()) {
            const float longest = *std::max_element(times.begin(), times.end());
            if (longest >= static_cast<float>(least_time)) phases.emplace_back(name, times);
        }
        for (const auto& [name, times] : phases) {
            for (const double time : times) {
                if (time < least_time) continue;
                from = from == 0 ? time : std::min(from, time);
                to = std::max(to, time);
            }
        }
        for (const auto& [name, times] : phases) {
            std::vector<std::size_t> bins(count);
            for (const double time : times) ++bins[binOf(time, count)];
            rows.emplace_back(name, bins);
        }
    }

    std::size_t binOf(double time, std::size_t count) const {
        if (time <= from || to <= from) return 0;
        const double part = std::log(time / from) / std::log(to / from);
        return std::min(count - 1, static_cast<std::size_t>(part * static_cast<double>(count)));
    }
};

std::size_t mostOf(const std::vector<std::size_t>& bins) {
    return *std::max_element(bins.begin(), bins.end());
}

bool showsUtf8() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return std::string(value).find("UTF-8") != std::string::npos;
        }
    }
    return false;
}

/// The bar of a bin, from nothing to full height.
std::string barOf(std::size_t count, std::size_t most, bool utf8) {
    constexpr std::array<const char*, 9> blocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr std::array<const char*, 9> letters = {" ", ".", ":", "-", "=", "+", "*", "#", "@"};
    const std::size_t height = count == 0 ? 0 : std::max<std::size_t>(1, count * 8 / most);
    return utf8 ? blocks[height] : letters[height];
}

std::string timeText(double milliseconds) {
    return milliseconds < 10 ? fmt::format("{:.2f} ms", milliseconds)
                             : fmt::format("{:.0f} ms", milliseconds);
}

}  // namespace

std::size_t terminalWidth() {
    winsize size{};
    constexpr std::size_t usual = 80;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return usual;
    return size.ws_col;
}

std::string histogram(const Latencies& latencies, std::size_t columns) {
    constexpr std::size_t least_bins = 20;
    if (columns < name_width + least_bins) return {};
    const std::size_t count = std::min(columns - name_width - 1, most_bins);
    const Bins bins(latencies, count);
    if (bins.rows.empty()) return {};
    const bool utf8 = showsUtf8();
    std::string text;
    for (const auto& [name, row] : bins.rows) {
        text += fmt::format("{:<{}}", name, name_width);
        for (const std::size_t one : row) text += barOf(one, mostOf(row), utf8);
        text += '\n';
    }
    const std::string last = timeText(bins.to);
    return text + fmt::format("{:<{}}{:<{}}{}\n", "", name_width, timeText(bins.from),
                              count - last.size(), last);
}

std::string histogramSvg(const Latencies& latencies) {
    constexpr int left = 90;
    constexpr int bin_width = 9;
    constexpr int row_height = 60;
    constexpr int bar_height = 46;
    const Bins bins(latencies, most_bins);
    const auto rows = static_cast<int>(bins.rows.size());
    const int width = left + static_cast<int>(most_bins) * bin_width + 20;
    std::string svg = fmt::format(
        R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {} {}" font-family="sans-serif" font-size="13">
<style>text {{ fill: #1f2937 }} rect {{ fill: #c2410c }} path {{ stroke: #9ca3af }}
@media (prefers-color-scheme: dark) {{ text {{ fill: #e5e7eb }} rect {{ fill: #fb923c }} }}</style>
<text x="10" y="20">{} requests: how many took how long, by phase</text>
)",
        width, rows * row_height + 70, latencies.count());
    int bottom = 30;
    for (const auto& [name, row] : bins.rows) {
        bottom += row_height;
        svg += fmt::format("<text x=\"10\" y=\"{}\">{}</text>\n", bottom - 4, name);
        for (std::size_t i = 0; i < row.size(); ++i) {
            const auto height = static_cast<int>(std::ceil(
                bar_height * static_cast<double>(row[i]) / static_cast<double>(mostOf(row))));
            if (height == 0) continue;
            svg += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"/>\n",
                               left + static_cast<int>(i) * bin_width, bottom - height,
                               bin_width - 1, height);
        }
        svg += fmt::format("<path d=\"M{} {}H{}\"/>\n", left, bottom, width - 20);
    }
    return svg + fmt::format(
                     "<text x=\"{}\" y=\"{}\">{}</text>\n"
                     "<text x=\"{}\" y=\"{}\" text-anchor=\"end\">{}</text>\n</svg>\n",
                     left, bottom + 20, timeText(bins.from), width - 20, bottom + 20,
                     timeText(bins.to));
}

}  // namespace tool
