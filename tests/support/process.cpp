#include "support/process.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace test {

std::pair<std::size_t, std::size_t> descriptorsAndThreads() {
    const auto entries = [](const char* directory) {
        const std::filesystem::directory_iterator all(directory);
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    };
    return {entries("/proc/self/fd") - 1, entries("/proc/self/task")};  // without the one it takes
}

DescriptorLimit::DescriptorLimit(rlim_t soft) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit limit{std::min(soft, before_.rlim_max), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
}

ServerProcess::ServerProcess(const std::function<void(const Ready&)>& serve) {
    std::array<int, 2> ends{};
    // Not for the programs that this one starts: the child waits for the last copy to be closed.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("no socket pair");
    }
    child_ = fork();
    if (child_ == 0) {
        close(ends[0]);
        const DescriptorLimit most(DescriptorLimit::highest);
        serve([&](const auto& addresses) {
            for (const auto& address : addresses) dprintf(ends[1], "%s\n", address.c_str());
            shutdown(ends[1], SHUT_WR);
            char none = 0;
            while (read(ends[1], &none, 1) < 0) {
            }
        });
        _exit(0);
    }
    close(ends[1]);
    lifeline_ = fdopen(ends[0], "r");
    std::array<char, 1000> line{};
    while (std::fgets(line.data(), line.size(), lifeline_) != nullptr) {
        addresses_.emplace_back(line.data());
        addresses_.back().pop_back();
    }
    if (addresses_.empty()) throw std::runtime_error("the servers did not start");
}

ServerProcess::~ServerProcess() {
    static_cast<void>(std::fclose(lifeline_));
    waitpid(child_, nullptr, 0);
}

}  // namespace test
