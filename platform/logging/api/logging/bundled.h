#pragma once

#include <functional>
#include <string>

#include "oru/export.h"

/// What the bundled loggers offer beyond `logging::Logger`.
namespace logging {

/// Enables debug lines up to `level`, 1 to 9, for every bundled logger; 0, the default, turns them
/// off. Any thread.
ORU_EXPORT void setLevel(int level);

/// How important a line is: of `debug`, `infoStream`, `error` and `critical`.
enum class Importance { Debug, Info, Error, Critical };

/// Receives a complete line of the logger of that name. Runs on the thread that logs, for one line
/// at a time. A line whose receiver throws is lost. Neither it nor its destructor may write to a
/// bundled logger or call `setReceiver`, which would wait for themselves.
using LineReceiver =
    std::function<void(Importance importance, const std::string& logger, const std::string& line)>;

/// Sends the lines of all bundled loggers to `receiver`, or nowhere when it is empty. At first they
/// go to stderr, coloured on a terminal unless NO_COLOR is in the environment. Any thread.
/// `logging/spdlog_sinks.h` makes a receiver of spdlog's sinks.
ORU_EXPORT void setReceiver(LineReceiver receiver);

}  // namespace logging
