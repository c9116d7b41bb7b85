#pragma once

#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace loopback {

/// Servers in a child process, so that threads, descriptors and memory counted in this process are
/// the client's alone.
class ServerProcess {
public:
    /// Sends the servers' addresses to the parent, and returns when the parent ends the child.
    using Ready = std::function<void(const std::vector<std::string>& addresses)>;

    /// Forks, so construct it before this process has threads. `serve` runs in the child, with the
    /// highest limit of descriptors: it constructs the servers, calls `Ready` and returns.
    /// In both processes it sets "no_proxy", so that requests to loopback use no proxy of the
    /// environment, and ignores SIGPIPE, which a write to a closed connection would raise.
    explicit ServerProcess(const std::function<void(const Ready&)>& serve);
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    /// Ends the child.
    ~ServerProcess();

    const std::vector<std::string>& addresses() const { return addresses_; }

private:
    pid_t child_ = -1;
    FILE* lifeline_ = nullptr;
    std::vector<std::string> addresses_;
};

}  // namespace loopback
