#pragma once

#include "command_line.h"

namespace tool {

/// Performs the requests, some at a time, and reports each outcome as it comes. Returns the exit
/// status.
int fetch(const CommandLine& command_line);

}  // namespace tool
