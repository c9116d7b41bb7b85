#include "session.h"

#include <csignal>

#include "logging/logger.h"

namespace tool {

Session::Session()
    : signals_(loop_, SIGINT, SIGTERM),
      executor_(loop_),
      engine_(std::make_unique<zel::http::Engine>(
          [this](const std::function<void()>& closure) { executor_.post(closure, 0); },
          &logging::getLogger("HttpClient"))),
      client_(zel::http::createClient(executor_, logging::getLogger("zel-http"))) {
    // Ignored from the start it stays so, as nohup wants it.
    struct sigaction hangup {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) signals_.add(SIGHUP);
}

Session::~Session() {
    client_.reset();
    engine_.reset();
}

int Session::run(const std::function<void()>& interrupted) {
    int status = 0;
    signals_.async_wait([&](const boost::system::error_code& error, int signal) {
        if (error) return;
        status = 128 + signal;
        interrupted();
        stop();
    });
    loop_.restart();
    loop_.run();
    signals_.cancel();
    return status;
}

}  // namespace tool
