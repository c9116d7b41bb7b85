#pragma once

#include <string>
#include <vector>

namespace tool {

/// The arguments that stand in a file of options, one a line: "name value", "name = value" or
/// "name: value", with or without dashes, values quoted or not; '#' begins a comment. Throws
/// `std::runtime_error` when a quote does not end.
std::vector<std::string> argumentsOf(const std::string& file_content);

}  // namespace tool
