#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tool {

/// One option, as the manual and the completions show it.
struct OptionRow {
    std::vector<std::string> names;  ///< "-o", "--output"
    std::string value;               ///< "FILE", "one|other"; empty for a flag
    std::string help;
    std::string group;
};

/// The options of the help, in its order.
std::vector<OptionRow> optionTable(const CLI::App& app);

/// The words of a value that is one of several; empty for others.
std::vector<std::string> choicesOf(const OptionRow& row);

/// Whether the value is a path.
bool takesPath(const OptionRow& row);

}  // namespace tool
