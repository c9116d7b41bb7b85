#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace loopback {

/// An installed server program, such as nginx, on loopback ports that the kernel has chosen. The
/// destructor ends it.
class Daemon {
public:
    /// Runs `command`, which must stay in the foreground, and returns once it accepts connections.
    /// In the command "@conf@" stands for the path of a file with `configuration`; in the
    /// configuration "@dir@" stands for `directory`, and each other "@name@" for an address.
    /// Throws, with what the program says, when it does not start.
    Daemon(const std::string& command, const std::string& configuration,
           const std::string& directory);
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    /// False when the program is not installed or did not start.
    bool runs() const { return process_ > 0; }
    pid_t process() const { return process_; }
    /// "127.0.0.1:PORT".
    const std::string& address(const std::string& name) const { return addresses_.at(name); }

private:
    void chooseAddresses(const std::string& configuration);
    bool start(const std::string& command);

    std::map<std::string, std::string> addresses_;
    pid_t process_ = -1;
};

}  // namespace loopback
