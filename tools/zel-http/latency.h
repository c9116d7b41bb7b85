#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "outcome.h"

namespace tool {

/// What many requests took, phase by phase; of those without an answer only the number.
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
    /// How many came to each status, or to the failure of that name.
    const std::map<std::string, std::size_t>& outcomes() const { return outcomes_; }
    std::size_t count() const { return count_; }
    std::uint64_t bytes() const { return bytes_; }

private:
    // A phase each; floats, because a million requests are allowed.
    std::vector<std::pair<std::string, std::vector<float>>> phases_;
    std::map<std::string, std::size_t> outcomes_;
    std::size_t count_ = 0;
    std::uint64_t bytes_ = 0;
};

}  // namespace tool
