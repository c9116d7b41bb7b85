#pragma once

#include <filesystem>
#include <iterator>
#include <utility>

namespace test {

/// How many descriptors and threads this process has.
inline std::pair<long, long> descriptorsAndThreads() {
    const auto entries = [](const char* directory) {
        const std::filesystem::directory_iterator all(directory);
        return std::distance(begin(all), end(all));
    };
    return {entries("/proc/self/fd"), entries("/proc/self/task")};
}

}  // namespace test
