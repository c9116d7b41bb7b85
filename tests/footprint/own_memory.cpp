#include "own_memory.h"

#include <cstdint>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

namespace test {
namespace {

/// The first mapping of a file that the list has, which is in both lists the same one.
std::uint64_t startOf(const std::string& file, const char* list) {
    std::ifstream mappings(list);
    for (std::string line; std::getline(mappings, line);) {
        if (line.find(file) != std::string::npos) return std::stoull(line, nullptr, 16);
    }
    return 0;
}

/// An emulator tells its program the program's own addresses in `maps`; `smaps` has the kernel's.
std::uint64_t firstAddress() {
    constexpr const char* file = "/libzel_http.so";
    return startOf(file, "/proc/self/smaps") - startOf(file, "/proc/self/maps");
}

}  // namespace

OwnMemory OwnMemory::now() {
    const std::uint64_t first = firstAddress();
    const std::uint64_t length = std::numeric_limits<std::uintptr_t>::max();
    OwnMemory sum{};
    bool own = false;
    std::ifstream mappings("/proc/self/smaps");
    for (std::string line; std::getline(mappings, line);) {
        std::istringstream words(line);
        std::string name;
        words >> name;
        long kib = 0;
        if (name.back() != ':') {
            const std::uint64_t start = std::stoull(name, nullptr, 16);
            own = start >= first && start - first < length;
        } else if (own && words >> kib) {
            if (name == "Rss:") sum.resident += kib;
            if (name == "Anonymous:") sum.anonymous += kib;
        }
    }
    return sum;
}

}  // namespace test
