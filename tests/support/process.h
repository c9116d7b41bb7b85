#pragma once

#include <sys/resource.h>

#include <cstddef>
#include <string>

/// What a process can tell of itself, and its limit of descriptors.
namespace test {

/// How many descriptors and threads this process has.
struct Holdings {
    std::size_t descriptors;
    std::size_t threads;

    static Holdings now();
    /// "2 threads, 5 descriptors".
    std::string text() const;
    bool operator==(const Holdings& other) const {
        return descriptors == other.descriptors && threads == other.threads;
    }
};

/// A field of /proc/self/status in KiB: "VmRSS", "VmHWM".
long memoryKib(const std::string& field);

/// Seconds of CPU that this process has used.
double cpuSeconds();

/// Sets the soft limit of descriptors while it lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t soft);
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

    /// The hard limit.
    static rlim_t highest();

private:
    rlimit before_{};
};

}  // namespace test
