#pragma once

#include <string>

#include "outcome.h"

namespace tool {

/// What -w prints of an outcome, and where.
struct WriteOut {
    std::string output;  ///< to standard output
    std::string errors;  ///< to standard error, for %{stderr} and variables that are unknown
};

/// Replaces \n, \r, \t, %%, %{variable} and %header{name} in `format`.
WriteOut writeOut(const std::string& format, const Outcome& outcome);

}  // namespace tool
