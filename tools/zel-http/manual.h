#pragma once

#include <string>

namespace CLI {
class App;
}

namespace tool {

/// The manual page, section 1, in the language of man(7): the help, set as a page.
std::string manualPage(const CLI::App& app);

/// What bash sources to complete the options, the values that are words, and files.
std::string bashCompletion(const CLI::App& app);

}  // namespace tool
