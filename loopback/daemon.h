#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace loopback {

/// A server program of the system's, nginx say, which listens on loopback, on ports of the kernel's
/// choosing, until this object goes.
class Daemon {
public:
    /// Runs `command`, which must stay in the foreground, and returns once it answers. In the
    /// command "@conf@" is the path of a file with `configuration`; in that, "@dir@" is
    /// `directory`, and each other "@name@" an address. Throws, with what the program says, when it
    /// does not start.
    Daemon(const std::string& command, const std::string& configuration,
           const std::string& directory);
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    /// False where there is no such program.
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
