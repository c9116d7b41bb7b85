#pragma once

#include <string>

namespace CLI {
class App;
}

namespace tool {

/// The manual page, section 1, in the markup of man(7), made of the help texts.
std::string manualPage(const CLI::App& app);

}  // namespace tool
