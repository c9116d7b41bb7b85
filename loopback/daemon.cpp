#include "loopback/daemon.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/algorithm/string/replace.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace loopback {
namespace {

bool answers(const std::string& address) {
    const auto port = static_cast<unsigned short>(std::stoi(address.substr(address.find(':') + 1)));
    boost::asio::io_context loop;
    boost::system::error_code refused;
    boost::asio::ip::tcp::socket(loop).connect({boost::asio::ip::address_v4::loopback(), port},
                                               refused);
    return !refused;
}

}  // namespace

Daemon::Daemon(const std::string& command, const std::string& configuration,
               const std::string& directory) {
    const std::string path = directory + "/" + command.substr(0, command.find(' ')) + ".conf";
    // Between its choice and the program's start another process may take the port.
    for (int attempt = 0; attempt < 3 && !runs(); ++attempt) {
        chooseAddresses(configuration);
        std::string text = boost::algorithm::replace_all_copy(configuration, "@dir@", directory);
        for (const auto& [name, address] : addresses_) {
            boost::algorithm::replace_all(text, "@" + name + "@", address);
        }
        std::ofstream(path) << text;
        const std::string line = boost::algorithm::replace_all_copy(command, "@conf@", path);
        if (!start(line + " 2>" + path + ".errors")) return;
    }
    if (runs()) return;
    std::ifstream errors(path + ".errors");
    throw std::runtime_error(
        command + " does not start: " + std::string(std::istreambuf_iterator<char>(errors), {}));
}

Daemon::~Daemon() {
    if (!runs()) return;
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
}

void Daemon::chooseAddresses(const std::string& configuration) {
    using boost::asio::ip::tcp;
    addresses_.clear();
    boost::asio::io_context loop;
    std::vector<tcp::acceptor> held;  // until all are chosen, or the kernel might choose one twice
    std::size_t end = 0;
    for (auto begin = configuration.find('@'); begin != std::string::npos;
         begin = configuration.find('@', end + 1)) {
        end = configuration.find('@', begin + 1);
        const std::string name = configuration.substr(begin + 1, end - begin - 1);
        if (name == "dir") continue;
        held.emplace_back(loop, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
        const auto port = held.back().local_endpoint().port();
        addresses_.emplace(name, "127.0.0.1:" + std::to_string(port));
    }
}

/// Starts the program and sets `process_` once it accepts connections, which may take 10 s. Returns
/// false when it is not installed: another attempt has no use.
bool Daemon::start(const std::string& command) {
    const std::string line = "PATH=$PATH:/usr/sbin:/usr/local/sbin; exec " + command;
    std::array<const char*, 4> arguments = {"sh", "-c", line.c_str(), nullptr};
    pid_t child = -1;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char**>(arguments.data()),
                    environ) != 0) {
        return false;
    }
    int status = 0;
    for (int i = 0; i < 1000; ++i, usleep(10'000)) {
        constexpr int not_found = 127;
        if (waitpid(child, &status, WNOHANG) == child) return WEXITSTATUS(status) != not_found;
        if (!answers(addresses_.begin()->second)) continue;
        process_ = child;
        return true;
    }
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    return true;
}

}  // namespace loopback
