#pragma once

#include <string>

namespace CLI {
class App;
}

namespace tool {

/// A script that completes options, values with fixed choices, and files, for "bash", "zsh" or
/// "fish".
std::string completion(const CLI::App& app, const std::string& shell);

}  // namespace tool
