#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tool {

/// Whether an option, such as "-o" or "--output", takes a value; nothing for one that is not known.
using TakesValue = std::function<std::optional<bool>(const std::string& option)>;

/// The arguments of the program, with those of files of options in place of -K. Such a file has one
/// option a line: "name value", "name = value" or "name: value", with or without dashes, values
/// with blanks in quotes; '#' begins a comment. Throws `UnreadableFile`, or `std::runtime_error`
/// for what is wrong in a file.
std::vector<std::string> argumentsOf(int argc, const char* const* argv, const TakesValue& takes);

}  // namespace tool
