#include "loopback/server_process.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "loopback/descriptor_limit.h"

namespace loopback {

ServerProcess::ServerProcess(const std::function<void(const Ready&)>& serve) {
    setenv("no_proxy", "*", 1);
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    std::array<int, 2> ends{};
    // Close-on-exec: the child runs until every copy of the parent's end is closed, so a program
    // that the parent starts must not inherit one.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("no socket pair");
    }
    child_ = fork();
    if (child_ == 0) {
        close(ends[0]);
        const DescriptorLimit all(DescriptorLimit::highest);
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

}  // namespace loopback
