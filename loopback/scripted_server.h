#pragma once

#include <atomic>
#include <boost/asio.hpp>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace loopback {

using Socket = boost::asio::ip::tcp::socket;

/// Reads the head of a request, up to its empty line, and `body` bytes; less if the client closes.
inline std::string readRequest(Socket& socket, std::size_t body = 0) {
    std::string text;
    boost::system::error_code gone;
    const auto buffer = boost::asio::dynamic_buffer(text);
    const std::size_t head = boost::asio::read_until(socket, buffer, "\r\n\r\n", gone);
    if (text.size() < head + body) {
        boost::asio::read(socket, buffer, boost::asio::transfer_exactly(head + body - text.size()),
                          gone);
    }
    return text;
}

/// Returns false when the client has closed.
inline bool write(Socket& socket, const std::string& bytes) {
    boost::system::error_code gone;
    boost::asio::write(socket, boost::asio::buffer(bytes), gone);
    return !gone;
}

inline void waitForClose(Socket& socket) {
    boost::system::error_code gone;
    std::string rest;
    boost::asio::read(socket, boost::asio::dynamic_buffer(rest), gone);
}

/// What a `ScriptedServer` does with a connection, before it closes it. As `then` of `says`, how it
/// ends the connection.
using Script = std::function<void(Socket&)>;

inline void close(Socket& /*socket*/) {}
inline void stall(Socket& socket) { waitForClose(socket); }
inline void reset(Socket& socket) {
    socket.set_option(boost::asio::socket_base::linger(true, 0));
    socket.close();
}
/// Reads a request and answers `reply`.
inline Script says(const std::string& reply, const Script& then = close) {
    return [=](Socket& socket) {
        readRequest(socket);
        write(socket, reply);
        then(socket);
    };
}

/// A raw TCP server on loopback, for answers that real servers do not send. Serves one connection
/// after the other: runs the script, then closes the connection. Ready when constructed.
class ScriptedServer {
public:
    explicit ScriptedServer(Script script)
        : script_(std::move(script)), thread_([this] { serve(); }) {}
    /// Reads a request, answers `reply` and closes.
    explicit ScriptedServer(const std::string& reply) : ScriptedServer(says(reply)) {}
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    /// Ends the connection that is being served.
    ~ScriptedServer() {
        stopping_ = true;
        {
            const std::lock_guard lock(mutex_);
            if (served_ != nullptr) shutdown(served_->native_handle(), SHUT_RDWR);
        }
        Socket(loop_).connect(acceptor_.local_endpoint());
        thread_.join();
    }

    std::string authority() const {
        return "127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
    }
    std::string url(const std::string& target = "/") const {
        return "http://" + authority() + target;
    }

private:
    void serve() {
        while (true) {
            Socket socket = acceptor_.accept();
            if (stopping_) return;
            setServed(&socket);
            script_(socket);
            setServed(nullptr);
        }
    }
    void setServed(Socket* socket) {
        const std::lock_guard lock(mutex_);
        served_ = socket;
    }

    Script script_;
    boost::asio::io_context loop_;
    boost::asio::ip::tcp::acceptor acceptor_{loop_, {boost::asio::ip::address_v4::loopback(), 0}};
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    Socket* served_ = nullptr;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace loopback
