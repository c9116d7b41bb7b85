#pragma once

#include <string>

#include "outcome.h"

namespace tool {

/// What -w prints of an outcome: `format` with \n, \r, \t, %% and %{variable} replaced. An unknown
/// variable is left out.
std::string writeOut(const std::string& format, const Outcome& outcome);

}  // namespace tool
