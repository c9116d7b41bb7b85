#pragma once

#include <functional>
#include <string>

#include "oru/export.h"

/// What the bundled loggers offer beyond `logging::Logger`.
namespace logging {

/// Makes every bundled logger write debug lines of the levels 1 to `level`, at most 9. With 0, the
/// default, it writes none. Call it on any thread.
ORU_EXPORT void setLevel(int level);

/// How important a line is. The values stand for `debug`, `infoStream`, `error` and `critical`.
enum class Importance { Debug, Info, Error, Critical };

/// A function that gets each complete line, with the name of its logger. It runs on the thread that
/// logs, and for one line at a time. If it throws, the line is lost. Neither the function nor its
/// destructor may write to a bundled logger or call `setReceiver`: they would wait for ever.
using LineReceiver =
    std::function<void(Importance importance, const std::string& logger, const std::string& line)>;

/// Sends the lines of all bundled loggers to `receiver`. If it is empty, they are dropped. Until
/// the first call they go to stderr; on a terminal they are coloured, unless the environment has
/// NO_COLOR. Call it on any thread. To use sinks of spdlog, see `logging/spdlog_sinks.h`.
ORU_EXPORT void setReceiver(LineReceiver receiver);

}  // namespace logging
