#include "support/server_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "support/process.h"

namespace test {

ServerProcess::ServerProcess(const std::function<void(const Ready&)>& serve) {
    std::array<int, 2> up{};
    std::array<int, 2> down{};
    // Not for the programs that this one starts: the child waits for the last copy to be closed.
    if (pipe2(up.data(), O_CLOEXEC) != 0 || pipe2(down.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    child_ = fork();
    if (child_ == 0) {
        close(up[0]);
        close(down[1]);
        int status = 0;
        try {
            const DescriptorLimit most(DescriptorLimit::highest());
            serve([&](const auto& addresses) {
                for (const auto& address : addresses) dprintf(up[1], "%s\n", address.c_str());
                close(up[1]);
                char none = 0;
                while (read(down[0], &none, 1) < 0) {
                }
            });
        } catch (const std::exception& error) {
            std::cerr << "the servers: " << error.what() << '\n';
            status = 1;
        }
        _exit(status);
    }
    close(up[1]);
    close(down[0]);
    lifeline_ = down[1];
    FILE* lines = fdopen(up[0], "r");
    std::array<char, 1000> line{};
    while (std::fgets(line.data(), line.size(), lines) != nullptr) {
        addresses_.emplace_back(line.data());
        addresses_.back().pop_back();
    }
    static_cast<void>(std::fclose(lines));
    if (addresses_.empty()) throw std::runtime_error("the servers did not start");
}

ServerProcess::~ServerProcess() {
    close(lifeline_);
    waitpid(child_, nullptr, 0);
}

}  // namespace test
