#pragma once

/// @file
/// A server that follows a script of your test, so that it can do what no correct server does.
/// Header only: it needs the headers of Boost.Asio, and nothing else of `zel_http::testing`.

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

/// A connection that a client has made to the server.
using Socket = boost::asio::ip::tcp::socket;

/// Reads the head of a request, up to its empty line. The result may also have the beginning of the
/// body. It is shorter if the client closes the connection first.
inline std::string readHead(Socket& socket) {
    std::string text;
    boost::system::error_code gone;
    boost::asio::read_until(socket, boost::asio::dynamic_buffer(text), "\r\n\r\n", gone);
    return text;
}

/// Reads a request, head and body. The result is shorter if the client closes the connection first.
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

/// Sends `bytes`. Returns false if the client has closed the connection.
inline bool write(Socket& socket, const std::string& bytes) {
    boost::system::error_code gone;
    boost::asio::write(socket, boost::asio::buffer(bytes), gone);
    return !gone;
}

/// Reads and ignores what comes, until the client closes the connection.
inline void waitForClose(Socket& socket) {
    boost::system::error_code gone;
    std::string rest;
    boost::asio::read(socket, boost::asio::dynamic_buffer(rest), gone);
}

/// What a `ScriptedServer` does with a connection before it closes it. It runs on the server's
/// thread, and must not throw. `says` takes a second one, which says how the connection ends.
using Script = std::function<void(Socket&)>;

/// Closes the connection in the usual way.
inline void close(Socket& /*socket*/) {}
/// Sends nothing more, and waits until the client closes the connection.
inline void stall(Socket& socket) { waitForClose(socket); }
/// Breaks the connection (TCP RST) when the script ends: the client's socket then fails.
inline void reset(Socket& socket) {
    // The server closes the socket, which it may shut down from another thread until then.
    socket.set_option(boost::asio::socket_base::linger(true, 0));
}
/// Reads the head of a request, sends `reply` unchanged, and runs `then`. If the client is still
/// sending a body, `close` breaks the connection as `reset` does.
inline Script says(const std::string& reply, const Script& then = close) {
    return [=](Socket& socket) {
        readHead(socket);
        write(socket, reply);
        then(socket);
    };
}
/// Reads a request and sends `response`. Adds the header Content-Length if it has none.
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
/// Runs the first script for the first connection, the second for the second, and so on. The last
/// script also serves all further connections.
inline Script inTurn(std::vector<Script> scripts) {
    return [scripts = std::move(scripts), next = std::size_t{0}](Socket& socket) mutable {
        const Script& script = scripts.at(next);
        if (next + 1 < scripts.size()) ++next;
        script(socket);
    };
}

/// A raw TCP server on 127.0.0.1, with a thread of its own and a port that the kernel has chosen.
/// It serves one connection after the other: it runs the script, then closes the connection. Once
/// it is constructed, clients can connect.
class ScriptedServer {
public:
    /// Everything that the script refers to must outlive the server.
    explicit ScriptedServer(Script script)
        : script_(std::move(script)), thread_([this] { serve(); }) {}
    /// For each connection: reads the head of a request, sends `reply`, and closes the connection.
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
