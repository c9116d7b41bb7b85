#pragma once

#include "command_line.h"

namespace tool {

/// Performs the requests at once and prints each outcome as it comes: bodies (and headers) to
/// standard output or the file, a summary line each to standard error. Returns the exit status.
int fetch(const CommandLine& command_line);

}  // namespace tool
