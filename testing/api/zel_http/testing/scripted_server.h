#pragma once

/// @file
/// A server that does to each connection what a test says, for what no decent server does. Header
/// only: it needs the headers of Boost.Asio, and no other part of `zel_http::testing`.

#include <boost/asio.hpp>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zel_http/records.h"

namespace zel::testing {

/// A connection of a client's.
using Socket = boost::asio::ip::tcp::socket;

/// Reads the head of a request, up to its empty line, and what has come with it of the body. Less
/// if the client closes.
inline std::string readHead(Socket& socket) {
    std::string text;
    boost::system::error_code gone;
    boost::asio::read_until(socket, boost::asio::dynamic_buffer(text), "\r\n\r\n", gone);
    return text;
}

/// Reads a request, head and body. Less if the client closes.
inline std::string readRequest(Socket& socket) {
    std::string text = readHead(socket);
    const std::string field = "\r\nContent-Length: ";  // as libcurl writes it
    const std::size_t at = text.find(field);
    if (at == std::string::npos) return text;
    const std::size_t length = std::stoul(text.substr(at + field.size()));
    const std::size_t size = text.find("\r\n\r\n") + 4 + length;
    if (text.size() >= size) return text;
    boost::system::error_code gone;
    boost::asio::read(socket, boost::asio::dynamic_buffer(text),
                      boost::asio::transfer_exactly(size - text.size()), gone);
    return text;
}

/// Returns false when the client has closed.
inline bool write(Socket& socket, const std::string& bytes) {
    boost::system::error_code gone;
    boost::asio::write(socket, boost::asio::buffer(bytes), gone);
    return !gone;
}

/// Reads, whatever comes, until the client has closed.
inline void waitForClose(Socket& socket) {
    boost::system::error_code gone;
    std::string rest;
    boost::asio::read(socket, boost::asio::dynamic_buffer(rest), gone);
}

/// What a `ScriptedServer` does with a connection, before it closes it. As `then` of `says`, how it
/// ends the connection. Runs on the server's thread. It must not throw.
using Script = std::function<void(Socket&)>;

/// Closes in good order.
inline void close(Socket& /*socket*/) {}
/// Says nothing more, until the client closes.
inline void stall(Socket& socket) { waitForClose(socket); }
/// Breaks the connection: the client's socket fails once the script has ended.
inline void reset(Socket& socket) {
    // The server closes the socket, which it may shut down from another thread until then.
    socket.set_option(boost::asio::socket_base::linger(true, 0));
}
/// Reads the head of a request and sends `reply`, byte for byte. To a client that still sends a
/// body, `close` is a `reset`.
inline Script says(const std::string& reply, const Script& then = close) {
    return [=](Socket& socket) {
        readHead(socket);
        write(socket, reply);
        then(socket);
    };
}
/// Reads a request and sends `response`, with its length unless it has a Content-Length.
inline Script answers(const http::ResponseData& response) {
    std::string reply =
        "HTTP/1.1 " + std::to_string(response.status) + " \r\nConnection: close\r\n";
    http::HeaderMap headers = response.headers;
    headers.emplace("Content-Length", std::to_string(response.body.size()));
    for (const auto& [name, value] : headers) reply += name + ": " + value + "\r\n";
    return [reply = reply + "\r\n" + response.body](Socket& socket) {
        readRequest(socket);
        write(socket, reply);
    };
}
/// The first script for the first connection, and so on; the last one for all that follow.
inline Script inTurn(std::vector<Script> scripts) {
    return [scripts = std::move(scripts), next = std::size_t{0}](Socket& socket) mutable {
        const Script& script = scripts.at(next);
        if (next + 1 < scripts.size()) ++next;
        script(socket);
    };
}

/// A raw TCP server on 127.0.0.1, on a port that the kernel has chosen and a thread of its own.
/// Serves one connection after the other: runs the script, then closes the connection. Ready when
/// constructed.
class ScriptedServer {
public:
    /// What the script refers to must outlive the server.
    explicit ScriptedServer(Script script)
        : script_(std::move(script)), thread_([this] { serve(); }) {}
    /// Reads the head of a request, answers `reply` and closes.
    explicit ScriptedServer(const std::string& reply) : ScriptedServer(says(reply)) {}
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    /// Ends the connection that is being served.
    ~ScriptedServer() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
            if (served_ != nullptr) shutdown(served_->native_handle(), SHUT_RDWR);
        }
        Socket(loop_).connect(acceptor_.local_endpoint());  // wakes the thread
        thread_.join();
    }

    /// "127.0.0.1:40123". Any thread.
    std::string authority() const {
        return "127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
    }
    /// "http://127.0.0.1:40123/". Any thread.
    std::string url(const std::string& target = "/") const {
        return "http://" + authority() + target;
    }

private:
    void serve() {
        while (true) {
            Socket socket = acceptor_.accept();
            if (!setServed(&socket)) return;
            script_(socket);
            setServed(nullptr);
            boost::system::error_code ignored;
            socket.close(ignored);  // its destructor would undo what `reset` has set
        }
    }
    /// Returns false when the server is to end.
    bool setServed(Socket* socket) {
        const std::lock_guard lock(mutex_);
        served_ = socket;
        return !stopping_;
    }

    Script script_;
    boost::asio::io_context loop_;
    boost::asio::ip::tcp::acceptor acceptor_{loop_, {boost::asio::ip::address_v4::loopback(), 0}};
    std::mutex mutex_;
    bool stopping_ = false;     // guarded by mutex_
    Socket* served_ = nullptr;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace zel::testing
