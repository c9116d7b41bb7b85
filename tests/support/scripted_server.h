#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test {

/// One accepted connection, in the hands of a script.
class Peer {
public:
    explicit Peer(int descriptor) : descriptor_(descriptor) {}

    /// Reads up to the empty line and then `body` bytes; less when the client is gone.
    std::string read(std::size_t body = 0) const;
    /// False when the client is gone.
    bool write(const std::string& bytes) const;
    /// Writes until the client takes nothing more for a while, or everything is written. Returns
    /// the bytes written.
    std::size_t writeUntilStalled(std::size_t bytes) const;
    /// Returns once the client has closed.
    void waitForClose() const;

private:
    const int descriptor_;
};

/// A raw TCP server on loopback that runs a script for each connection, one after the other, and
/// closes the connection behind it. Ready when constructed.
class ScriptedServer {
public:
    explicit ScriptedServer(std::function<void(Peer&)> script);
    /// Reads one request with `body` bytes, keeps it for `requests`, answers `reply` and closes.
    explicit ScriptedServer(const std::string& reply, std::size_t body = 0);
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    ~ScriptedServer();

    unsigned short port() const { return port_; }
    std::string url(const std::string& target = "/") const;
    std::vector<std::string> requests() const;

private:
    void serve();

    std::function<void(Peer&)> script_;
    int listener_;
    int stop_;  // an eventfd that ends `serve`
    unsigned short port_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

}  // namespace test
