#include "process_usage.h"

#include <sys/resource.h>

#include <fstream>

namespace bench {

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

}  // namespace bench
