#pragma once

#include <string>
#include <vector>

namespace tool {

/// The arguments that stand in a file of options, one a line: "name value", "name = value" or
/// "name: value", with or without dashes, values quoted or not; '#' begins a comment. Throws
/// `std::runtime_error` when a quote does not end.
std::vector<std::string> argumentsOf(const std::string& file_content);

/// The arguments of the program, with those of files of options in place of -K. Throws as above,
/// for a file that names another one, too, and `UnreadableFile`.
std::vector<std::string> argumentsOf(int argc, const char* const* argv);

}  // namespace tool
