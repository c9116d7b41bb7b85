#pragma once

#include <string>

namespace bench {

/// A field of /proc/self/status in KiB: "VmRSS", "VmHWM", "RssAnon".
long memoryKib(const std::string& field);

/// Seconds of CPU that this process has used.
double cpuSeconds();

}  // namespace bench
