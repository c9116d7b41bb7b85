#pragma once

#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace loopback {

/// Servers in a process of their own, so that what is counted here is the client's alone.
class ServerProcess {
public:
    /// Tells the parent where the servers listen, and returns when they are no longer needed.
    using Ready = std::function<void(const std::vector<std::string>& addresses)>;

    /// Requests of this process go to loopback without the proxy that its environment may name, and
    /// a client that is gone does not end it: the environment's "no_proxy" and the signal SIGPIPE.
    /// Forks, so construct it before this process has threads. `serve` runs in the child, with as
    /// many descriptors as it may have: it constructs the servers, calls `Ready` and returns.
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
