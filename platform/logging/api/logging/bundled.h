#pragma once

#include <memory>
#include <vector>

#include "oru/export.h"

namespace spdlog::sinks {
class sink;
}

/// What the bundled loggers, which write through spdlog, offer beyond `logging::Logger`.
namespace logging {

/// Enables debug lines up to `level`, 1 to 9, for every bundled logger; 0, the default, turns them
/// off. Any thread.
ORU_EXPORT void setLevel(int level);

/// Replaces the sinks of all bundled loggers. At first they write to stderr, coloured on a terminal
/// unless NO_COLOR is in the environment. Any thread.
ORU_EXPORT void setSinks(std::vector<std::shared_ptr<spdlog::sinks::sink>> sinks);

}  // namespace logging
