#pragma once

#include <string>

namespace tool {

/// Whether curl has this option, "--name" or "-n".
bool isCurlOption(const std::string& name);

}  // namespace tool
