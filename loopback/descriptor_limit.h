#pragma once

#include <sys/resource.h>

#include <algorithm>

namespace loopback {

/// Changes the process's soft limit of open descriptors, at most to the hard limit. The destructor
/// restores it.
class DescriptorLimit {
public:
    static constexpr rlim_t highest = RLIM_INFINITY;
    explicit DescriptorLimit(rlim_t soft) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit limit{std::min(soft, before_.rlim_max), before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_{};
};

}  // namespace loopback
