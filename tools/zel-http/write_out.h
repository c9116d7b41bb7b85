#pragma once

#include <string>

#include "outcome.h"

namespace tool {

/// Prints what -w is to tell of an outcome: `format` with \n, \r, \t, %%, %{variable} and
/// %header{name} replaced. Standard error gets what follows %{stderr}, and a word about an unknown
/// variable.
void writeOut(const std::string& format, const Outcome& outcome);

}  // namespace tool
