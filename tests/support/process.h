#pragma once

#include <dlfcn.h>

#include <filesystem>
#include <iterator>
#include <utility>

namespace test {

/// The function of that name that the calling one, of the same type as `like`, replaces.
template <typename Function>
Function* replaced(Function* /*like*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// How many descriptors and threads this process has.
inline std::pair<long, long> descriptorsAndThreads() {
    const auto entries = [](const char* directory) {
        const std::filesystem::directory_iterator all(directory);
        return std::distance(begin(all), end(all));
    };
    return {entries("/proc/self/fd"), entries("/proc/self/task")};
}

}  // namespace test
