#include "scripted_server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

constexpr int stalled_milliseconds = 300;

bool ready(int descriptor, short events, int timeout) {
    pollfd entry{descriptor, events, 0};
    return poll(&entry, 1, timeout) > 0;
}

}  // namespace

std::string Peer::read(std::size_t body) const {
    std::string text;
    std::size_t wanted = 0;
    while (wanted == 0 || text.size() < wanted) {
        char block[65536];
        const ssize_t got = recv(descriptor_, block, sizeof block, 0);
        if (got <= 0) return text;
        text.append(block, static_cast<std::size_t>(got));
        const auto end = text.find("\r\n\r\n");
        if (end != std::string::npos) wanted = end + 4 + body;
    }
    return text;
}

bool Peer::write(const std::string& bytes) const {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t sent =
            send(descriptor_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

std::size_t Peer::writeUntilStalled(std::size_t bytes) const {
    const std::string block(65536, 's');
    std::size_t done = 0;
    while (done < bytes && ready(descriptor_, POLLOUT, stalled_milliseconds)) {
        const ssize_t sent = send(descriptor_, block.data(), std::min(block.size(), bytes - done),
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) done += static_cast<std::size_t>(sent);
    }
    return done;
}

void Peer::waitForClose() const {
    char block[4096];
    while (recv(descriptor_, block, sizeof block, 0) > 0) {
    }
}

ScriptedServer::ScriptedServer(std::function<void(Peer&)> script)
    : script_(std::move(script)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_, generic, length) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, generic, &length) != 0) {
        throw std::runtime_error("no loopback port to listen on");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

ScriptedServer::ScriptedServer(const std::string& reply, std::size_t body)
    : ScriptedServer([this, reply, body](Peer& peer) {
          std::string request = peer.read(body);
          {
              const std::lock_guard lock(mutex_);
              requests_.push_back(std::move(request));
          }
          peer.write(reply);
      }) {}

ScriptedServer::~ScriptedServer() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(listener_);
    close(stop_);
}

std::string ScriptedServer::url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(port_) + target;
}

std::vector<std::string> ScriptedServer::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void ScriptedServer::serve() {
    pollfd entries[] = {{listener_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(entries, 2, -1) > 0 && entries[1].revents == 0) {
        const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) continue;
        Peer peer(descriptor);
        script_(peer);
        close(descriptor);
    }
}

}  // namespace test
