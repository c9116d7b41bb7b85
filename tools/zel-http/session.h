#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <functional>
#include <memory>

#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace tool {

/// What a program needs around the library: a loop on the main thread, an executor on it, the
/// engine, and a client. The FSM context is the loop too.
class Session {
public:
    Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    /// Destroys the engine before the loop that it posts outcomes to. Outcomes that have not been
    /// delivered are dropped.
    ~Session();

    zel::http::Client& client() { return *client_; }
    /// Another client, with log lines of its own.
    std::shared_ptr<zel::http::Client> createClient(logging::Logger& logger) {
        return zel::http::createClient(executor_, logger);
    }
    zel::http::Engine& engine() { return *engine_; }
    boost::asio::io_context& loop() { return loop_; }
    oru::executor& executor() { return executor_; }

    /// Runs the loop until `stop`, and returns 0. On Ctrl-C, SIGTERM or SIGHUP calls `interrupted`
    /// on the loop, stops, and returns the exit status of a program that this signal ended.
    int run(const std::function<void()>& interrupted);
    void stop() { loop_.stop(); }

private:
    boost::asio::io_context loop_;
    /// Holds a signal that comes before `run`. Signals that this process was started to ignore, as
    /// by nohup, stay ignored.
    boost::asio::signal_set signals_;
    oru::asio_executor executor_;
    std::unique_ptr<zel::http::Engine> engine_;
    std::shared_ptr<zel::http::Client> client_;
};

}  // namespace tool
