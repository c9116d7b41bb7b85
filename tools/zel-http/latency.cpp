#include "latency.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tool {
namespace {

constexpr std::array<double, 5> quantiles = {0, 0.5, 0.9, 0.99, 1};

}  // namespace

const std::vector<std::string>& Latencies::columns() {
    static const std::vector<std::string> names = {"min", "p50", "p90", "p99", "max"};
    return names;
}

void Latencies::add(const Outcome& outcome) {
    ++count_;
    bytes_ += outcome.body_size;
    ++outcomes_[outcome.failure.empty() ? std::to_string(outcome.status) : outcome.failure];
    if (!outcome.failure.empty()) return;  // a quick refusal would count as a fast request
    const auto phases = phasesOf(outcome);
    phases_.resize(phases.size());
    for (std::size_t i = 0; i < phases.size(); ++i) {
        phases_[i].first = phases[i].first;
        phases_[i].second.push_back(static_cast<float>(phases[i].second));
    }
}

std::vector<Latencies::Row> Latencies::rows() const {
    std::vector<Row> rows;
    for (auto [phase, sorted] : phases_) {
        std::sort(sorted.begin(), sorted.end());
        Row row{phase, {}};
        for (const double quantile : quantiles) {
            // The smallest value that this share of the requests does not exceed.
            const auto rank = std::ceil(quantile * static_cast<double>(sorted.size()));
            const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
            row.values.push_back(static_cast<double>(sorted[index]));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

}  // namespace tool
