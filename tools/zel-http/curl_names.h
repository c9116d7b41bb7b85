#pragma once

#include <string>

namespace tool {

enum class OptionKind { Unknown, OfCurl, Shortened };

/// What "--name" or "-n" is for curl: one of its options, or the begin of a name.
OptionKind kindOf(const std::string& option);

}  // namespace tool
