#pragma once

#include <cstddef>
#include <string>

#include "latency.h"

namespace tool {

/// A line for each phase that took time: how many requests needed how long, on a logarithmic scale,
/// no wider than `columns`. Empty where that is too narrow.
std::string histogram(const Latencies& latencies, std::size_t columns);

/// The same as a picture.
std::string histogramSvg(const Latencies& latencies);

/// The columns of the terminal at standard output; 80 where it does not tell.
std::size_t terminalWidth();

}  // namespace tool
