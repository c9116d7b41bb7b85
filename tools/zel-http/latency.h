#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "outcome.h"

namespace tool {

/// Collects how long many requests took, phase by phase. A request without a response is counted,
/// but not timed.
class Latencies {
public:
    void add(const Outcome& outcome);

    struct Row {
        std::string phase;
        /// Milliseconds: the least, the 50th, 90th and 99th percentile, the most.
        std::vector<double> values;
    };
    static const std::vector<std::string>& columns();
    std::vector<Row> rows() const;
    /// The milliseconds of every timed request, by phase.
    const std::vector<std::pair<std::string, std::vector<float>>>& phases() const {
        return phases_;
    }
    /// The number of requests for each status, and for each failure by its name.
    const std::map<std::string, std::size_t>& outcomes() const { return outcomes_; }
    std::size_t count() const { return count_; }
    std::uint64_t bytes() const { return bytes_; }

private:
    // An entry for each phase. Floats, since there may be a million requests.
    std::vector<std::pair<std::string, std::vector<float>>> phases_;
    std::map<std::string, std::size_t> outcomes_;
    std::size_t count_ = 0;
    std::uint64_t bytes_ = 0;
};

}  // namespace tool
