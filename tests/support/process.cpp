#include "support/process.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test {
namespace {

std::size_t entries(const char* directory) {
    const std::filesystem::directory_iterator all(directory);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace

Holdings Holdings::now() {
    return {entries("/proc/self/fd") - 1, entries("/proc/self/task")};  // without the one it takes
}

std::string Holdings::text() const {
    return fmt::format("{} threads, {} descriptors", threads, descriptors);
}

long memoryKib(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string name; status >> name;) {
        if (name != field + ":") continue;
        long value = 0;
        status >> value;
        return value;
    }
    return 0;
}

double cpuSeconds() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

DescriptorLimit::DescriptorLimit(rlim_t soft) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit limit{soft, before_.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::runtime_error(fmt::format("the limit of descriptors cannot be {}", soft));
    }
}

rlim_t DescriptorLimit::highest() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max;
}

}  // namespace test
